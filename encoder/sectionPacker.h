// The packer of a ZYL0 section: raw deflate with sync flushes, or one LZMA stream packed afresh
// from the section's first byte. Both keep the section's history, and both can save their
// state, take a trial, and go back to the saved state. Bit-exact.
#pragma once

#include <cstdint>
#include <cstdio>
#include <vector>

typedef struct z_stream_s z_stream;
struct zycZlibPool;

class zycSectionPacker {
 public:
  zycSectionPacker();
  ~zycSectionPacker();
  zycSectionPacker(const zycSectionPacker&) = delete;
  zycSectionPacker& operator=(const zycSectionPacker&) = delete;

  // packing 0: deflate into a buffer of `bufferBytes`; 1: LZMA with `lzmaDictionary`, its input
  // and output buffers starting at `bufferBytes` x 2 bytes.
  void Open(uint32_t packing, uint32_t bufferBytes, uint32_t lzmaDictionary, FILE* file);
  // A new section: an empty deflate state, or an empty LZMA input.
  void Restart();
  void Save();
  void Restore();
  // One item, its 32-bit length and its bytes, without commit. Returns the packed bytes (deflate)
  // or the rough figure (LZMA).
  int32_t PackItem(const void* data, uint32_t count);
  // The trial or final size of what was packed since the last restore or commit: with LZMA
  // the section's packed size less what earlier frames took.
  int32_t FinishSize(int32_t roughSum);
  // Writes what the frame produced. A failed write, seek or flush leaves its errno in
  // `writeError` (the first one stays).
  void Commit();
  void Close();

  // LZMA: what the last commit that went well wrote from its file position on (the unpacked
  // size and the packed data); later commits of the section write over it.
  const std::vector<uint8_t>& committed() const { return committed_; }
  long committedAt() const { return committedAt_; }

  FILE* file() const { return file_; }
  void SetFile(FILE* file) { file_ = file; }
  uint32_t packing() const { return packing_; }
  bool open() const { return open_; }

  uint32_t sectionPackedSize = 0;  // what the section has cost so far (LZMA)
  int writeError = 0;              // errno of the first failed file operation, 0 while none

 private:
  // What a call of Pack or PackLzma does after taking its bytes.
  enum class Step {
    kAppend,    // nothing more
    kCommit,    // writes the frame to the file
    kEstimate,  // LZMA: packs the section to learn its size
  };
  // Deflate: packs `count` bytes with a sync flush (nothing for 0); kCommit writes what is
  // pending to the file. Returns the bytes deflate produced for this call.
  uint32_t Pack(const void* data, uint32_t count, Step step);
  // LZMA: appends the bytes; kCommit writes the packed section (first time 5 property bytes,
  // the 8-byte unpacked size and the data; later the size and the data over the old ones);
  // kEstimate packs the section; both return the packed size plus 13, kAppend a rough
  // 0.9 x `count`.
  int32_t PackLzma(const void* data, uint32_t count, Step step);
  void InitStream();
  void EndStream(z_stream* stream);
  size_t Compress();
  // Notes errno when `ok` is false; returns `ok`.
  bool Check(bool ok);

  uint32_t packing_ = 0;
  bool open_ = false;
  FILE* file_ = nullptr;
  // deflate
  zycZlibPool* pool_ = nullptr;
  z_stream* zip_ = nullptr;
  z_stream* backup_ = nullptr;
  std::vector<uint8_t> zipBuffer_;
  uint32_t zipPending_ = 0;
  // LZMA
  uint32_t lzmaDictionary_ = 65536;
  std::vector<uint8_t> lzmaInput_;
  std::vector<uint8_t> lzmaOutput_;
  uint32_t lzmaInputSize_ = 0;
  uint32_t lzmaMark_ = 0;
  bool lzmaDirty_ = true;
  uint32_t lzmaCachedSize_ = 0;
  uint8_t lzmaProperties_[5] = {};
  long lzmaSizePosition_ = 0;
  std::vector<uint8_t> committed_;
  long committedAt_ = 0;
};

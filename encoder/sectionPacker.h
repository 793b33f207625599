// The packer of a ZYL0 section: raw deflate with sync flushes, or one LZMA stream that holds
// the whole section. Both keep the section's history, and both can save their state, take a
// trial, and go back to the saved state. Bit-exact.
//
// An LZMA section is packed for every pass as one stream from its first byte, and its bytes are
// those of LzmaCompress on the whole section. The cost does not grow with the section: the
// encoder's state after the committed bytes that no later byte can change is kept, and each
// pass resumes a copy of it; a commit writes only the packed bytes that can still change.
#pragma once

#include <cstdint>
#include <cstdio>
#include <vector>

typedef struct z_stream_s z_stream;
struct zycZlibPool;
struct zycLzmaResume;

class zycSectionPacker {
 public:
  zycSectionPacker();
  ~zycSectionPacker();
  zycSectionPacker(const zycSectionPacker&) = delete;
  zycSectionPacker& operator=(const zycSectionPacker&) = delete;

  // packing 0: deflate into a buffer of `bufferBytes`; 1: LZMA with `lzmaDictionary`, its input
  // buffer starting at `bufferBytes` x 2 bytes and growing with the section.
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

  // LZMA, after a commit that went well: the packed bytes that later commits of the section may
  // write over, from file position `committedAt` to the section's end. The section's other
  // changing bytes are its unpacked size: `head` holds the property bytes and that size, the
  // 13 bytes at `headAt`. Nothing is committed while `headAt` is negative.
  const std::vector<uint8_t>& committed() const { return committed_; }
  long committedAt() const { return committedAt_; }
  const uint8_t* head() const { return lzmaHead_; }
  long headAt() const { return lzmaHeadWritten_ ? lzmaSizePosition_ - 5 : -1; }

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
  // the 8-byte unpacked size and the data; later the size, and the data from the first byte
  // that could change, over the old ones); kEstimate packs the section; both return the packed
  // size plus 13, kAppend a rough 0.9 x `count`.
  int32_t PackLzma(const void* data, uint32_t count, Step step);
  void InitStream();
  void EndStream(z_stream* stream);
  size_t Compress();
  // Writes the section's head or its new size, and the packed bytes that may have changed.
  void WriteLzma(size_t packed);
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
  void RestartLzma();
  uint32_t lzmaDictionary_ = 65536;
  zycLzmaResume* lzma_ = nullptr;
  std::vector<uint8_t> lzmaInput_;
  uint32_t lzmaInputSize_ = 0;
  uint32_t lzmaMark_ = 0;
  bool lzmaDirty_ = true;       // the input or the resumed state changed since the last packing
  uint32_t lzmaCachedSize_ = 0;  // the whole packed size of the last packing
  std::vector<uint8_t> lzmaTail_;  // its bytes from `lzmaTailFrom_` on
  size_t lzmaTailFrom_ = 0;
  size_t lzmaStable_ = 0;  // packed bytes on the file that no later commit changes
  bool lzmaHeadWritten_ = false;
  uint8_t lzmaHead_[13] = {};  // the property bytes, then the unpacked size
  long lzmaSizePosition_ = 0;
  std::vector<uint8_t> committed_;
  long committedAt_ = 0;
};

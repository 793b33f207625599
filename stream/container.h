// The movie container: the file headers of both formats, the section headers, the ZYL1 frame
// record layout, the section walker, and the patching that keeps a file being written a
// complete movie after every frame. Bit-exact: a change here changes files.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "base/fileIo.h"
#include "stream/zylFormat.h"

// ---------------------------------------------------------------------------------------------
// File headers.

// ZYL0: the 64 bytes at offset 0, fields in record order, `tail` at 56.
void zycStoreHeaderZyl0(const zycStreamHeader& header, uint8_t out[kHeaderSizeZyl0]);
void zycLoadHeaderZyl0(const uint8_t in[kHeaderSizeZyl0], zycStreamHeader* header);

// ZYL1: the 60 bytes at offset 0; headerSize at 8, fileSize at 12, paramS and paramT at 52, 56.
void zycStoreHeaderZyl1(const zycStreamHeader& header, uint8_t out[kHeaderSizeZyl1]);
void zycLoadHeaderZyl1(const uint8_t in[kHeaderSizeZyl1], zycStreamHeader* header);

// The size of the header for a magic; 0 for a magic that is neither format.
uint32_t zycHeaderSize(uint32_t magic);
// The size of a section header for a magic; 0 for a magic that is neither format.
uint32_t zycSectionHeaderSize(uint32_t magic);

// The ZYL0 tail (offsets 56 to 63) has two layouts. Versions 1, 2 and 3 hold two words,
// "IXTC" and "JXTC"; every other version holds the packing byte, the 24 bits of "sFMT" split
// as a high byte and a low u16, and "tFMT".
inline bool zycTailHoldsWords(uint32_t version) { return version >= 1 && version <= 3; }
void zycSetTailWords(zycStreamHeader* header, uint32_t tailA, uint32_t tailB);
void zycSetTailPacking(zycStreamHeader* header, uint8_t packing, uint32_t paramS,
                       uint32_t paramT);
uint32_t zycTailA(const zycStreamHeader& header);  // u32 at 56
uint32_t zycTailB(const zycStreamHeader& header);  // u32 at 60
uint32_t zycTailParamS(const zycStreamHeader& header);  // bits 16-23 from 57, 0-15 from 58
// The section packing of a ZYL0 file: 0 deflate, 1 LZMA. It is the byte at offset 56; the
// word layout of versions 1 to 3 leaves no packing byte, and such files are taken as deflate.
uint8_t zycPacking(const zycStreamHeader& header);

// Where a header of the magic's format keeps fileSize: kFileSizeAtZyl0 or kFileSizeAtZyl1.
inline uint32_t zycFileSizeAt(uint32_t magic) {
  return magic == kMagicZyl1 ? kFileSizeAtZyl1 : kFileSizeAtZyl0;
}

// ---------------------------------------------------------------------------------------------
// Section headers.

struct zycSectionHeader {
  uint8_t keyType = 0;  // ZYL1 only: 0 still image key frame, 1 quad-tree key frame
  uint32_t frames = 0;  // ZYL0: 16 bits; ZYL1: 24 bits
  uint32_t size = 0;    // bytes behind the section header
};

// ZYL0, 6 bytes: u16 frames (low 16 bits of `frames`), u32 size.
void zycStoreSectionZyl0(const zycSectionHeader& section, uint8_t out[kSectionHeaderSizeZyl0]);
zycSectionHeader zycLoadSectionZyl0(const uint8_t in[kSectionHeaderSizeZyl0]);
// ZYL1, 8 bytes: u8 keyType, u8 frames bits 16-23, u16 frames bits 0-15, u32 size.
void zycStoreSectionZyl1(const zycSectionHeader& section, uint8_t out[kSectionHeaderSizeZyl1]);
zycSectionHeader zycLoadSectionZyl1(const uint8_t in[kSectionHeaderSizeZyl1]);

// ---------------------------------------------------------------------------------------------
// ZYL1 frame records.

// The streams of one record. The first stream is the key frame image or the first plane; it
// may be empty (a repeat). The sound stream is present when `hasSound`; the two further planes
// when `hasPlanes`.
struct zycRecordContent {
  const uint8_t* first = nullptr;
  uint32_t firstSize = 0;
  bool hasSound = false;
  const uint8_t* sound = nullptr;
  uint32_t soundSize = 0;
  bool hasPlanes = false;
  const uint8_t* plane2 = nullptr;
  uint32_t plane2Size = 0;
  const uint8_t* plane3 = nullptr;
  uint32_t plane3Size = 0;
  bool repeat = false;  // no picture data: record flag 8
};

// The record flags byte for a content: bit 0 sound, bits 1 and 2 planes, bit 3 repeat.
uint8_t zycRecordFlags(const zycRecordContent& content);
// The table part of a record: 4 bytes of firstSize and 6 per stream entry, padded to a
// multiple of 4.
uint32_t zycRecordTableBytes(const zycRecordContent& content);
uint32_t zycRecordTableBytes(uint32_t entries);
// A record's first word: u8 recordFlags, u8 bits 16-23 and u16 bits 0-15 of the length, the
// bytes of the record behind this word.
void zycStoreRecordHead(uint8_t flags, uint32_t length, uint8_t out[4]);
void zycLoadRecordHead(const uint8_t in[4], uint8_t* flags, uint32_t* length);
// Appends the whole record (first word, firstSize, entries, pad, streams with the pads between
// them) to `out`. Returns the bytes added. Sizes and offsets are 24-bit in the format: the
// caller keeps every stream below 16 MiB.
uint32_t zycAppendRecord(const zycRecordContent& content, std::vector<uint8_t>* out);
// A stream entry: u16 offset bits 0-15, u16 size bits 0-15, u8 offset bits 16-23, u8 size
// bits 16-23.
void zycStoreRecordEntry(uint32_t offset, uint32_t size, uint8_t out[6]);
void zycLoadRecordEntry(const uint8_t in[6], uint32_t* offset, uint32_t* size);

// ---------------------------------------------------------------------------------------------
// Section walker. Hops from section header to section header, from the first (at the header's
// end) until `frameCount` frames have been passed. Errors are texts; a wrong magic gives
// "bad magic %d" with the magic as a number.

struct zycSectionEntry {
  uint64_t offset = 0;      // file position of the section header
  uint64_t firstFrame = 0;  // frame number of the section's first frame
  zycSectionHeader header;
};

// Over bytes in memory. Every read is checked against `size`.
class zycSectionWalker {
 public:
  // Reads the header. False, with error(), for a short file or a wrong magic.
  bool Open(const uint8_t* data, size_t size);
  // The next section; false at the end of the walk (error() empty) or on a fault (error() set:
  // a section header or its data that runs past the end of the bytes).
  bool Next(zycSectionEntry* entry);
  // Where the walk stands: behind the last section passed.
  uint64_t position() const { return position_; }
  uint64_t framesPassed() const { return framesPassed_; }
  const zycStreamHeader& header() const { return header_; }
  const std::string& error() const { return error_; }

 private:
  const uint8_t* data_ = nullptr;
  size_t size_ = 0;
  uint64_t position_ = 0;
  uint64_t framesPassed_ = 0;
  bool emptyMovie_ = false;  // a ZYL0 movie of no frames still holds its zero section header
  zycStreamHeader header_;
  std::string error_;
};

// The same walk on an open file, by plain reads and seeks. The file position is left behind
// the section passed last.
class zycFileSectionWalker {
 public:
  bool Open(FILE* file);
  bool Next(zycSectionEntry* entry);
  const zycStreamHeader& header() const { return header_; }
  const std::string& error() const { return error_; }

 private:
  FILE* file_ = nullptr;
  uint64_t position_ = 0;
  uint64_t fileSize_ = 0;
  uint64_t framesPassed_ = 0;
  zycStreamHeader header_;
  std::string error_;
};

// Reads a header of either format from memory. False with "bad magic %d" or a note that the
// bytes are too few.
bool zycParseHeader(const uint8_t* data, size_t size, zycStreamHeader* header,
                    std::string* error);

// ---------------------------------------------------------------------------------------------
// Writing a movie. Both encoders keep the file a complete movie after every frame:
//   zycWriteMovieStart once, before the first frame;
//   zycOpenSection at every key frame (ZYL0: not for the first one, whose header the start
//   wrote at offset 64);
//   after appending a frame's bytes, bring `section.frames`, `section.size` and
//   `header.frameCount` up to date and call zycPatchAfterFrame.
// All file operations are plain buffered ones; each returns false when one of them failed.

struct zycOpenSectionState {
  long start = 0;  // file position of the section header
  zycSectionHeader header;
};

// Writes the header at offset 0 with `fileSize` and `frameCount` as they stand; in ZYL0 also
// the six zero bytes of the first section header, which becomes `section` (start 64).
bool zycWriteMovieStart(FILE* file, const zycStreamHeader& header,
                        zycOpenSectionState* section);
// Notes the file position and writes a zero section header there: ZYL0 six zero bytes; ZYL1
// `keyType`, frame count 0 and size 8.
bool zycOpenSection(FILE* file, uint32_t magic, uint8_t keyType, zycOpenSectionState* section);
// Writes `fileSize` and then `frameCount` of `header` at their places in the file header of its
// format. The file position is left behind frameCount. False when a seek or write failed.
bool zycWriteHeaderCounts(FILE* file, const zycStreamHeader& header);
// Takes the end position as `header->fileSize`; rewrites the section header and the header's
// fileSize and frameCount (ZYL0: section header first, then offsets 8 and 16; ZYL1: offsets 12
// and 16 first, then the section header); seeks to the end; flushes.
bool zycPatchAfterFrame(FILE* file, zycStreamHeader* header,
                        const zycOpenSectionState& section);
// The same on the job's output holder: a failure is noted in it with the system's reason, and a
// file patched whole becomes the holder's last whole state, which the job cuts back to when a
// later frame fails. A writer that rewrites bytes in place (an LZMA section packed afresh after
// every frame) passes what now stands from `tailAt` on as `tail`, and the bytes right behind the
// section header that change with it (the LZMA property bytes and unpacked size, at most 13) as
// `sectionTail`.
bool zycPatchAfterFrame(zycFileHolder* output, zycStreamHeader* header,
                        const zycOpenSectionState& section, uint64_t tailAt = 0,
                        const std::vector<uint8_t>* tail = nullptr,
                        const uint8_t* sectionTail = nullptr, uint32_t sectionTailBytes = 0);

#include "stream/container.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/byteIo.h"

namespace {

std::string BadMagic(uint32_t magic) {
  char text[48];
  std::snprintf(text, sizeof text, "bad magic %d", int32_t(magic));
  return text;
}

uint32_t AlignUp4(uint32_t v) { return (v + 3) & ~3u; }

}  // namespace

// ---------------------------------------------------------------------------------------------
// File headers.

void zycStoreHeaderZyl0(const zycStreamHeader& h, uint8_t out[kHeaderSizeZyl0]) {
  zycStore32(out + 0, h.magic);
  zycStore32(out + 4, h.version);
  zycStore32(out + 8, h.fileSize);
  zycStore32(out + 12, h.flags);
  zycStore32(out + 16, h.frameCount);
  zycStore32(out + 20, h.frameDuration);
  zycStore32(out + 24, h.timeScale);
  zycStore32(out + 28, h.width);
  zycStore32(out + 32, h.height);
  zycStore32(out + 36, h.reserved36);
  zycStore32(out + 40, h.soundRate);
  zycStore32(out + 44, h.soundChannels);
  zycStore32(out + 48, h.soundChunkLimit);
  zycStore32(out + 52, h.reserved52);
  std::memcpy(out + 56, h.tail, 8);
}

void zycLoadHeaderZyl0(const uint8_t in[kHeaderSizeZyl0], zycStreamHeader* h) {
  *h = zycStreamHeader();
  h->magic = zycLoad32(in + 0);
  h->version = zycLoad32(in + 4);
  h->fileSize = zycLoad32(in + 8);
  h->flags = zycLoad32(in + 12);
  h->frameCount = zycLoad32(in + 16);
  h->frameDuration = zycLoad32(in + 20);
  h->timeScale = zycLoad32(in + 24);
  h->width = zycLoad32(in + 28);
  h->height = zycLoad32(in + 32);
  h->reserved36 = zycLoad32(in + 36);
  h->soundRate = zycLoad32(in + 40);
  h->soundChannels = zycLoad32(in + 44);
  h->soundChunkLimit = zycLoad32(in + 48);
  h->reserved52 = zycLoad32(in + 52);
  std::memcpy(h->tail, in + 56, 8);
}

void zycStoreHeaderZyl1(const zycStreamHeader& h, uint8_t out[kHeaderSizeZyl1]) {
  zycStore32(out + 0, h.magic);
  zycStore32(out + 4, h.version);
  zycStore32(out + 8, h.headerSize);
  zycStore32(out + 12, h.fileSize);
  zycStore32(out + 16, h.frameCount);
  zycStore32(out + 20, h.frameDuration);
  zycStore32(out + 24, h.timeScale);
  zycStore32(out + 28, h.width);
  zycStore32(out + 32, h.height);
  zycStore32(out + 36, h.reserved36);
  zycStore32(out + 40, h.soundRate);
  zycStore32(out + 44, h.soundChannels);
  zycStore32(out + 48, h.soundChunkLimit);
  zycStore32(out + 52, h.paramS);
  zycStore32(out + 56, h.paramT);
}

void zycLoadHeaderZyl1(const uint8_t in[kHeaderSizeZyl1], zycStreamHeader* h) {
  *h = zycStreamHeader();
  h->magic = zycLoad32(in + 0);
  h->version = zycLoad32(in + 4);
  h->headerSize = zycLoad32(in + 8);
  h->fileSize = zycLoad32(in + 12);
  h->frameCount = zycLoad32(in + 16);
  h->frameDuration = zycLoad32(in + 20);
  h->timeScale = zycLoad32(in + 24);
  h->width = zycLoad32(in + 28);
  h->height = zycLoad32(in + 32);
  h->reserved36 = zycLoad32(in + 36);
  h->soundRate = zycLoad32(in + 40);
  h->soundChannels = zycLoad32(in + 44);
  h->soundChunkLimit = zycLoad32(in + 48);
  h->paramS = zycLoad32(in + 52);
  h->paramT = zycLoad32(in + 56);
}

uint32_t zycHeaderSize(uint32_t magic) {
  if (magic == kMagicZyl0) return kHeaderSizeZyl0;
  if (magic == kMagicZyl1) return kHeaderSizeZyl1;
  return 0;
}

uint32_t zycSectionHeaderSize(uint32_t magic) {
  if (magic == kMagicZyl0) return kSectionHeaderSizeZyl0;
  if (magic == kMagicZyl1) return kSectionHeaderSizeZyl1;
  return 0;
}

void zycSetTailWords(zycStreamHeader* h, uint32_t tailA, uint32_t tailB) {
  zycStore32(h->tail, tailA);
  zycStore32(h->tail + 4, tailB);
}

void zycSetTailPacking(zycStreamHeader* h, uint8_t packing, uint32_t paramS, uint32_t paramT) {
  h->tail[0] = packing;
  h->tail[1] = uint8_t(paramS >> 16);
  zycStore16(h->tail + 2, uint16_t(paramS));
  zycStore32(h->tail + 4, paramT);
}

uint32_t zycTailA(const zycStreamHeader& h) { return zycLoad32(h.tail); }
uint32_t zycTailB(const zycStreamHeader& h) { return zycLoad32(h.tail + 4); }
uint32_t zycTailParamS(const zycStreamHeader& h) {
  return uint32_t(h.tail[1]) << 16 | zycLoad16(h.tail + 2);
}

uint8_t zycPacking(const zycStreamHeader& h) {
  return zycTailHoldsWords(h.version) ? kPackingDeflate : h.tail[0];
}

// ---------------------------------------------------------------------------------------------
// Section headers.

void zycStoreSectionZyl0(const zycSectionHeader& s, uint8_t out[kSectionHeaderSizeZyl0]) {
  zycStore16(out, uint16_t(s.frames));
  zycStore32(out + 2, s.size);
}

zycSectionHeader zycLoadSectionZyl0(const uint8_t in[kSectionHeaderSizeZyl0]) {
  zycSectionHeader s;
  s.frames = zycLoad16(in);
  s.size = zycLoad32(in + 2);
  return s;
}

void zycStoreSectionZyl1(const zycSectionHeader& s, uint8_t out[kSectionHeaderSizeZyl1]) {
  out[0] = s.keyType;
  out[1] = uint8_t(s.frames >> 16);
  zycStore16(out + 2, uint16_t(s.frames));
  zycStore32(out + 4, s.size);
}

zycSectionHeader zycLoadSectionZyl1(const uint8_t in[kSectionHeaderSizeZyl1]) {
  zycSectionHeader s;
  s.keyType = in[0];
  s.frames = uint32_t(in[1]) << 16 | zycLoad16(in + 2);
  s.size = zycLoad32(in + 4);
  return s;
}

// ---------------------------------------------------------------------------------------------
// ZYL1 frame records.

uint8_t zycRecordFlags(const zycRecordContent& c) {
  uint8_t flags = 0;
  if (c.hasSound) flags |= kRecordFlagSound;
  if (c.hasPlanes) flags |= kRecordFlagPlanes;
  if (c.repeat) flags |= kRecordFlagRepeat;
  return flags;
}

uint32_t zycRecordTableBytes(const zycRecordContent& c) {
  return zycRecordTableBytes((c.hasSound ? 1 : 0) + (c.hasPlanes ? 2 : 0));
}

uint32_t zycRecordTableBytes(uint32_t entries) { return AlignUp4(4 + 6 * entries); }

void zycStoreRecordHead(uint8_t flags, uint32_t length, uint8_t out[4]) {
  out[0] = flags;
  out[1] = uint8_t(length >> 16);
  zycStore16(out + 2, uint16_t(length));
}

void zycLoadRecordHead(const uint8_t in[4], uint8_t* flags, uint32_t* length) {
  *flags = in[0];
  *length = uint32_t(in[1]) << 16 | zycLoad16(in + 2);
}

void zycStoreRecordEntry(uint32_t offset, uint32_t size, uint8_t out[6]) {
  zycStore16(out, uint16_t(offset));
  zycStore16(out + 2, uint16_t(size));
  out[4] = uint8_t(offset >> 16);
  out[5] = uint8_t(size >> 16);
}

void zycLoadRecordEntry(const uint8_t in[6], uint32_t* offset, uint32_t* size) {
  *offset = uint32_t(in[4]) << 16 | zycLoad16(in);
  *size = uint32_t(in[5]) << 16 | zycLoad16(in + 2);
}

uint32_t zycAppendRecord(const zycRecordContent& c, std::vector<uint8_t>* out) {
  // The streams in file order; offsets count from the firstSize field.
  struct Piece {
    const uint8_t* data;
    uint32_t size;
  };
  Piece pieces[4];
  int count = 0;
  pieces[count++] = {c.first, c.firstSize};
  if (c.hasSound) pieces[count++] = {c.sound, c.soundSize};
  if (c.hasPlanes) {
    pieces[count++] = {c.plane2, c.plane2Size};
    pieces[count++] = {c.plane3, c.plane3Size};
  }
  const uint32_t table = zycRecordTableBytes(c);
  uint32_t offsets[4];
  uint32_t at = table;
  for (int i = 0; i < count; ++i) {
    offsets[i] = at;
    at += pieces[i].size;
    if (i + 1 < count) at = AlignUp4(at);
  }
  const uint32_t length = at;  // bytes behind the first word

  const size_t base = out->size();
  out->resize(base + 4 + length, 0);
  uint8_t* r = out->data() + base;
  zycStoreRecordHead(zycRecordFlags(c), length, r);
  zycStore32(r + 4, c.firstSize);
  uint8_t* entry = r + 8;
  for (int i = 1; i < count; ++i, entry += 6) zycStoreRecordEntry(offsets[i], pieces[i].size, entry);
  for (int i = 0; i < count; ++i)
    if (pieces[i].size) std::memcpy(r + 4 + offsets[i], pieces[i].data, pieces[i].size);
  return 4 + length;
}

// ---------------------------------------------------------------------------------------------
// Section walkers.

bool zycParseHeader(const uint8_t* data, size_t size, zycStreamHeader* header,
                    std::string* error) {
  if (size < 4) {
    *error = "file too short for a header (" + std::to_string(size) + " bytes)";
    return false;
  }
  const uint32_t magic = zycLoad32(data);
  const uint32_t need = zycHeaderSize(magic);
  if (!need) {
    *error = BadMagic(magic);
    return false;
  }
  if (size < need) {
    *error = "file too short for a header (" + std::to_string(size) + " of " +
             std::to_string(need) + " bytes)";
    return false;
  }
  if (magic == kMagicZyl0)
    zycLoadHeaderZyl0(data, header);
  else
    zycLoadHeaderZyl1(data, header);
  return true;
}

bool zycSectionWalker::Open(const uint8_t* data, size_t size) {
  data_ = data;
  size_ = size;
  framesPassed_ = 0;
  error_.clear();
  if (!zycParseHeader(data, size, &header_, &error_)) return false;
  position_ = zycHeaderSize(header_.magic);
  emptyMovie_ = header_.magic == kMagicZyl0 && header_.frameCount == 0;
  return true;
}

bool zycSectionWalker::Next(zycSectionEntry* entry) {
  error_.clear();
  if (framesPassed_ >= header_.frameCount && !emptyMovie_) return false;
  const uint32_t headerBytes = zycSectionHeaderSize(header_.magic);
  if (position_ + headerBytes > size_) {
    error_ = "section header at byte " + std::to_string(position_) +
             " runs past the end of the file (" + std::to_string(size_) + " bytes)";
    return false;
  }
  entry->offset = position_;
  entry->firstFrame = framesPassed_;
  entry->header = header_.magic == kMagicZyl0 ? zycLoadSectionZyl0(data_ + position_)
                                              : zycLoadSectionZyl1(data_ + position_);
  const uint64_t end = position_ + headerBytes + uint64_t(entry->header.size);
  if (end > size_) {
    error_ = "section at byte " + std::to_string(position_) + " holds " +
             std::to_string(entry->header.size) + " bytes, past the end of the file (" +
             std::to_string(size_) + " bytes)";
    return false;
  }
  if (emptyMovie_) {
    emptyMovie_ = false;  // the one zero section header of a movie of no frames
  } else if (entry->header.frames == 0) {
    error_ = "section at byte " + std::to_string(position_) + " holds no frames";
    return false;
  }
  position_ = end;
  framesPassed_ += entry->header.frames;
  return true;
}

bool zycFileSectionWalker::Open(FILE* file) {
  file_ = file;
  framesPassed_ = 0;
  error_.clear();
  uint8_t bytes[kHeaderSizeZyl0] = {};
  if (std::fseek(file, 0, SEEK_END) != 0) {
    error_ = "cannot seek";
    return false;
  }
  fileSize_ = uint64_t(std::ftell(file));
  std::fseek(file, 0, SEEK_SET);
  const size_t got = std::fread(bytes, 1, sizeof bytes, file);
  if (!zycParseHeader(bytes, got, &header_, &error_)) return false;
  position_ = zycHeaderSize(header_.magic);
  std::fseek(file, long(position_), SEEK_SET);
  return true;
}

bool zycFileSectionWalker::Next(zycSectionEntry* entry) {
  error_.clear();
  if (framesPassed_ >= header_.frameCount) return false;
  const uint32_t headerBytes = zycSectionHeaderSize(header_.magic);
  uint8_t bytes[kSectionHeaderSizeZyl1];
  if (std::fseek(file_, long(position_), SEEK_SET) != 0 ||
      std::fread(bytes, 1, headerBytes, file_) != headerBytes) {
    error_ = "section header at byte " + std::to_string(position_) +
             " runs past the end of the file";
    return false;
  }
  entry->offset = position_;
  entry->firstFrame = framesPassed_;
  entry->header = header_.magic == kMagicZyl0 ? zycLoadSectionZyl0(bytes)
                                              : zycLoadSectionZyl1(bytes);
  const uint64_t end = position_ + headerBytes + uint64_t(entry->header.size);
  if (end > fileSize_) {
    error_ = "section at byte " + std::to_string(position_) + " holds " +
             std::to_string(entry->header.size) + " bytes, past the end of the file";
    return false;
  }
  if (entry->header.frames == 0) {
    error_ = "section at byte " + std::to_string(position_) + " holds no frames";
    return false;
  }
  position_ = end;
  framesPassed_ += entry->header.frames;
  std::fseek(file_, long(position_), SEEK_SET);
  return true;
}

// ---------------------------------------------------------------------------------------------
// Writing.

bool zycWriteMovieStart(FILE* file, const zycStreamHeader& header,
                        zycOpenSectionState* section) {
  uint8_t bytes[kHeaderSizeZyl0 + kSectionHeaderSizeZyl0] = {};
  size_t count;
  if (header.magic == kMagicZyl0) {
    zycStoreHeaderZyl0(header, bytes);
    count = kHeaderSizeZyl0 + kSectionHeaderSizeZyl0;  // the zero first section header
    section->start = long(kHeaderSizeZyl0);
    section->header = zycSectionHeader();
  } else {
    zycStoreHeaderZyl1(header, bytes);
    count = kHeaderSizeZyl1;
  }
  if (std::fseek(file, 0, SEEK_SET) != 0) return false;
  return std::fwrite(bytes, 1, count, file) == count;
}

bool zycOpenSection(FILE* file, uint32_t magic, uint8_t keyType, zycOpenSectionState* section) {
  section->start = std::ftell(file);
  if (section->start < 0) return false;
  section->header = zycSectionHeader();
  uint8_t bytes[kSectionHeaderSizeZyl1] = {};
  size_t count;
  if (magic == kMagicZyl0) {
    count = kSectionHeaderSizeZyl0;
  } else {
    section->header.keyType = keyType;
    section->header.size = kSectionHeaderSizeZyl1;  // until the first record is complete
    zycStoreSectionZyl1(section->header, bytes);
    count = kSectionHeaderSizeZyl1;
  }
  return std::fwrite(bytes, 1, count, file) == count;
}

bool zycWriteHeaderCounts(FILE* file, const zycStreamHeader& header) {
  uint8_t word[4];
  zycStore32(word, header.fileSize);
  if (std::fseek(file, long(zycFileSizeAt(header.magic)), SEEK_SET) != 0 ||
      std::fwrite(word, 1, 4, file) != 4)
    return false;
  zycStore32(word, header.frameCount);
  return std::fseek(file, long(kFrameCountAt), SEEK_SET) == 0 && std::fwrite(word, 1, 4, file) == 4;
}

bool zycPatchAfterFrame(FILE* file, zycStreamHeader* header, const zycOpenSectionState& section) {
  if (std::fseek(file, 0, SEEK_END) != 0) return false;
  const long end = std::ftell(file);
  if (end < 0) return false;
  header->fileSize = uint32_t(end);
  const bool zyl1 = header->magic == kMagicZyl1;
  uint8_t sectionBytes[kSectionHeaderSizeZyl1];
  if (zyl1)
    zycStoreSectionZyl1(section.header, sectionBytes);
  else
    zycStoreSectionZyl0(section.header, sectionBytes);
  const size_t sectionCount = zycSectionHeaderSize(header->magic);
  auto writeSection = [&]() {
    return std::fseek(file, section.start, SEEK_SET) == 0 &&
           std::fwrite(sectionBytes, 1, sectionCount, file) == sectionCount;
  };
  // ZYL0 patches the section header first, ZYL1 the header fields first.
  const bool ok = zyl1 ? zycWriteHeaderCounts(file, *header) && writeSection()
                       : writeSection() && zycWriteHeaderCounts(file, *header);
  return ok && std::fseek(file, 0, SEEK_END) == 0 && std::fflush(file) == 0;
}

bool zycPatchAfterFrame(zycFileHolder* output, zycStreamHeader* header,
                        const zycOpenSectionState& section, uint64_t tailAt,
                        const std::vector<uint8_t>* tail, const uint8_t* sectionTail,
                        uint32_t sectionTailBytes) {
  const bool patched =
      output->Check(output->file && zycPatchAfterFrame(output->file, header, section));
  // After any failure, this frame's or an earlier one's, the last whole state stands.
  if (!patched || output->error != 0) return false;
  const bool zyl1 = header->magic == kMagicZyl1;
  uint8_t head[kHeaderSizeZyl0];
  // The section's record: its header, and the bytes right behind it that change with it.
  uint8_t sectionBytes[kSectionHeaderSizeZyl1 + kLzmaHeadBytes];
  if (zyl1) {
    zycStoreHeaderZyl1(*header, head);
    zycStoreSectionZyl1(section.header, sectionBytes);
  } else {
    zycStoreHeaderZyl0(*header, head);
    zycStoreSectionZyl0(section.header, sectionBytes);
  }
  const uint32_t headerBytes = zycSectionHeaderSize(header->magic);
  sectionTailBytes = std::min(sectionTailBytes, kLzmaHeadBytes);
  if (sectionTail) std::memcpy(sectionBytes + headerBytes, sectionTail, sectionTailBytes);
  output->MarkWhole(header->fileSize, head, zycHeaderSize(header->magic), uint64_t(section.start),
                    sectionBytes, headerBytes + (sectionTail ? sectionTailBytes : 0), tailAt,
                    tail);
  return true;
}

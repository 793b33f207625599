#include "stream/safeReader.h"

#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "base/byteIo.h"
#include "deps/lzmaLib/lzmaLib.h"
#include "stream/decoderTables.h"
#include "stream/imageFormat.h"
#include "stream/zyl1Decoder.h"
#include "stream/zycDecoder.h"

namespace {

std::string Num(uint64_t v) { return std::to_string(v); }

// Reads bits most significant first from 32-bit little-endian words, never past `words`.
class CheckedBits {
 public:
  CheckedBits(const uint8_t* data, uint64_t words) : data_(data), words_(words) {}
  // False when the value would need a word beyond the stream.
  bool Read(uint32_t bits, uint32_t* value) {
    if (bits == 0) {
      *value = 0;
      return true;
    }
    if (count_ < bits) {
      if (next_ >= words_) return false;
      buffer_ = buffer_ << 32 | zycLoad32(data_ + 4 * next_);
      ++next_;
      count_ += 32;
    }
    count_ -= bits;
    *value = uint32_t(buffer_ >> count_) & uint32_t((uint64_t(1) << bits) - 1);
    return true;
  }

 private:
  const uint8_t* data_;
  uint64_t words_;
  uint64_t next_ = 0;
  uint64_t buffer_ = 0;
  uint32_t count_ = 0;
};

// Walks a block tree without drawing: counts what each symbol takes from the other streams
// and checks every motion source block against the rounded picture.
struct TreeCheck {
  const uint8_t* tree;
  uint32_t treeBytes;  // behind the flags byte
  const uint8_t* motion;
  uint32_t motionBytes;
  bool wide;  // u16 motion indices into the 4096-entry table
  const int8_t (*largeMotion)[2];
  uint32_t width, height;

  uint64_t symbols = 0;
  uint32_t motionCount = 0, colourCount = 0, fadeCount = 0;
  std::string error;

  bool Symbol(uint8_t* symbol) {
    if (symbols / 4 >= treeBytes) {
      error = "the tree runs past its item (" + Num(treeBytes) + " bytes of symbols)";
      return false;
    }
    *symbol = (tree[symbols / 4] >> (2 * (symbols % 4))) & 3;
    ++symbols;
    return true;
  }

  bool Motion(uint32_t x, uint32_t y, uint32_t size) {
    const uint32_t step = wide ? 2 : 1;
    if (uint64_t(motionCount) * step + step > motionBytes) {
      error = "motion index " + Num(motionCount) + " is beyond the motion item (" +
              Num(motionBytes) + " bytes)";
      return false;
    }
    const uint8_t* at = motion + size_t(motionCount) * step;
    const uint32_t index = wide ? zycLoad16(at) : *at;
    int dx, dy;
    if (wide) {
      if (index >= uint32_t(kLargeMotionCount)) {
        error = "motion index " + Num(motionCount) + " selects vector " + Num(index) +
                ", beyond the table of " + Num(kLargeMotionCount);
        return false;
      }
      dx = largeMotion[index][0];
      dy = largeMotion[index][1];
    } else {
      dx = kSmallMotionTable[index][0];
      dy = kSmallMotionTable[index][1];
    }
    const int64_t sx = int64_t(x) + dx, sy = int64_t(y) + dy;
    if (sx < 0 || sy < 0 || sx + size > width || sy + size > height) {
      error = "motion index " + Num(motionCount) + " (vector " + Num(index) + ": " +
              std::to_string(dx) + "," + std::to_string(dy) +
              ") reads outside the picture (block " + Num(size) + " at " + Num(x) + "," +
              Num(y) + ")";
      return false;
    }
    ++motionCount;
    return true;
  }

  bool Node(uint32_t x, uint32_t y, uint32_t size) {
    uint8_t symbol;
    if (!Symbol(&symbol)) return false;
    switch (symbol) {
      case kSymbolCopy: return Motion(x, y, size);
      case kSymbolSplit:
        if (size == 4) return true;  // leaves the pixels as they are
        {
          const uint32_t h = size / 2;
          return Node(x, y, h) && Node(x + h, y, h) && Node(x, y + h, h) &&
                 Node(x + h, y + h, h);
        }
      case kSymbolColour: ++colourCount; return true;
      default:
        if (!Motion(x, y, size)) return false;
        ++fadeCount;
        return true;
    }
  }

  bool Walk() {
    for (uint32_t y = 0; y < height; y += 16)
      for (uint32_t x = 0; x < width; x += 16)
        if (!Node(x, y, 16)) return false;
    return true;
  }
};

}  // namespace

zycSafeReader::zycSafeReader()
    : io_(std::make_unique<myDecoder>()),
      decoder_(std::make_unique<zycFrameDecoder>()),
      zyl1_(std::make_unique<zycZyl1Decoder>()) {}

zycSafeReader::~zycSafeReader() {
  decoder_->io = io_.get();
  decoder_->Release();
}

const std::string& zycSafeReader::error() const {
  static const std::string kNone;
  return problems_.empty() ? kNone : problems_.front();
}

void zycSafeReader::Problem(const std::string& text) { problems_.push_back(name_ + ": " + text); }

// The encoder appends a frame's bytes before it patches the headers, so a job stopped in that
// moment leaves bytes behind the end the header gives: the movie up to that end is whole.
// Anything else behind the last section is a fault.
void zycSafeReader::CheckTail(size_t walkedTo) {
  if (walkedTo == file_.size() && header_.fileSize == file_.size()) return;
  // A header still as Begin first wrote it (size 0, no frames) is a job stopped in its first
  // frame.
  const bool unpatched = header_.fileSize == 0 && header_.frameCount == 0;
  if ((walkedTo == header_.fileSize || unpatched) && walkedTo < file_.size()) {
    notes_.push_back(name_ + ": " + Num(file_.size() - walkedTo) +
                     " bytes behind the movie's end at byte " + Num(walkedTo) +
                     " are ignored (a frame being written when the encoder stopped)");
    return;
  }
  if (header_.fileSize < file_.size())  // a larger one was reported before the walk
    Problem("the header gives a file size of " + Num(header_.fileSize) + " bytes, the file holds " +
            Num(file_.size()));
  if (walkedTo < file_.size())
    Problem(Num(file_.size() - walkedTo) + " bytes stand behind the last section, at byte " +
            Num(walkedTo));
}

std::string zycSafeReader::FramePlace(uint32_t frame) const {
  const zycSafeFrame& f = frames_[frame];
  return name_ + ": frame " + Num(frame) + " (section " + Num(f.section) + " at byte " +
         Num(sections_[f.section].offset) + "): ";
}

bool zycSafeReader::Open(const std::string& path) {
  name_ = path;
  file_.clear();
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) {
    problems_.assign(1, path + ": cannot be opened");
    sections_.clear();
    frames_.clear();
    header_ = zycStreamHeader();
    return false;
  }
  uint8_t buffer[65536];
  size_t got;
  while ((got = std::fread(buffer, 1, sizeof buffer, f)) > 0)
    file_.insert(file_.end(), buffer, buffer + got);
  const bool failed = std::ferror(f);
  std::fclose(f);
  if (failed) {
    problems_.assign(1, path + ": read error");
    return false;
  }
  return Walk();
}

bool zycSafeReader::OpenMemory(const uint8_t* data, size_t size, const std::string& name) {
  name_ = name;
  file_.assign(data, data + size);
  return Walk();
}

bool zycSafeReader::Walk() {
  problems_.clear();
  notes_.clear();
  sections_.clear();
  frames_.clear();
  unpacked_.clear();
  items_.clear();
  records_.clear();
  header_ = zycStreamHeader();
  pictureWidth_ = pictureHeight_ = 0;

  std::string why;
  if (!zycParseHeader(file_.data(), file_.size(), &header_, &why)) {
    Problem(why);
    return false;
  }
  const uint32_t round = isZyl1() ? 8 : 16;
  const uint64_t w = (uint64_t(header_.width) + round - 1) / round * round;
  const uint64_t h = (uint64_t(header_.height) + round - 1) / round * round;
  if (header_.width == 0 || header_.height == 0 || header_.width > limits_.maxWidth ||
      header_.height > limits_.maxHeight || w * h > limits_.maxPixels) {
    Problem("picture of " + Num(header_.width) + " x " + Num(header_.height) +
            " pixels is empty or beyond this reader's limits");
    return false;
  }
  pictureWidth_ = uint32_t(w);
  pictureHeight_ = uint32_t(h);
  if (header_.fileSize > file_.size())
    Problem("the header gives a file size of " + Num(header_.fileSize) + " bytes, the file holds " +
            Num(file_.size()));
  if (header_.frameDuration == 0 || header_.timeScale == 0)
    Problem("the header gives a frame duration of " + Num(header_.frameDuration) + " / " +
            Num(header_.timeScale) + " s");
  if (isZyl1() && header_.headerSize != kHeaderSizeZyl1)
    Problem("the header gives a header size of " + Num(header_.headerSize) + " (60 expected)");

  const bool walked = isZyl1() ? WalkZyl1() : WalkZyl0();
  Rewind();
  return walked && problems_.empty();
}

bool zycSafeReader::WalkZyl0() {
  zycSectionWalker walker;
  walker.Open(file_.data(), file_.size());
  uint64_t unpackedTotal = 0;
  zycSectionEntry entry;
  while (walker.Next(&entry)) {
    const uint32_t index = uint32_t(sections_.size());
    zycSafeSection s;
    s.offset = entry.offset;
    s.frames = entry.header.frames;
    s.firstFrame = uint32_t(entry.firstFrame);
    s.packedBytes = entry.header.size;
    sections_.push_back(s);
    unpacked_.emplace_back();
    if (s.frames == 0) continue;  // the zero section of a movie of no frames

    std::vector<uint8_t>& bytes = unpacked_.back();
    if (!Unpack(entry, index, &bytes)) return false;
    sections_.back().unpackedBytes = bytes.size();
    unpackedTotal += bytes.size();
    if (unpackedTotal > limits_.maxUnpackedBytes) {
      Problem("section " + Num(index) + " at byte " + Num(entry.offset) +
              ": the sections unpack to more than " + Num(limits_.maxUnpackedBytes) + " bytes");
      return false;
    }

    size_t pos = 0;
    for (uint32_t i = 0; i < s.frames; ++i) {
      zycFrameItems items;
      const uint32_t number = uint32_t(frames_.size());
      zycSafeFrame f;
      f.section = index;
      f.key = i == 0;
      f.offset = pos;
      if (!zycSplitFrame(bytes.data() + pos, bytes.size() - pos, &items)) {
        frames_.push_back(f);
        problems_.push_back(FramePlace(number) + zycPayloadErrorText(items.error) + " at byte " +
                            Num(pos + items.errorOffset) + " of the unpacked section");
        frames_.pop_back();
        return false;
      }
      f.flags = items.flags;
      f.bytes = items.frameBytes;
      f.treeBytes = items.tree.size;
      f.motionBytes = items.motion.size;
      f.colourBytes = items.colour.size;
      f.imageBytes = items.image.size;
      f.soundBytes = items.sound.size;
      f.fadeBytes = items.fade.size;
      f.tableBytes = items.table.size;
      frames_.push_back(f);
      items_.push_back(items);
      pos += items.frameBytes;
    }
    if (pos != bytes.size())
      Problem("section " + Num(index) + " at byte " + Num(entry.offset) + ": " +
              Num(bytes.size() - pos) + " unpacked bytes stand behind its last frame");
  }
  if (!walker.error().empty()) {
    Problem(walker.error());
    // The walk stopped on a section that runs past the end: the entry is that section.
    if (entry.offset == walker.position()) SalvageCut(entry);
    return false;
  }
  CheckTail(walker.position());
  if (walker.framesPassed() != header_.frameCount)
    Problem("the sections hold " + Num(walker.framesPassed()) + " frames, the header says " +
            Num(header_.frameCount));
  return true;
}

void zycSafeReader::SalvageCut(zycSectionEntry entry) {
  const uint64_t start = entry.offset + kSectionHeaderSizeZyl0;
  if (zycPacking(header_) != kPackingDeflate || entry.header.frames == 0 ||
      start >= file_.size()) {
    return;
  }
  entry.header.size = uint32_t(file_.size() - start);
  const uint32_t index = uint32_t(sections_.size());
  const size_t problems = problems_.size();
  std::vector<uint8_t> bytes;
  const bool unpacked = Unpack(entry, index, &bytes);
  problems_.resize(problems);  // the cut is the problem; what the bytes give is what is left
  if (!unpacked && bytes.empty()) return;
  std::vector<zycFrameItems> items;
  size_t pos = 0;
  for (uint32_t i = 0; i < entry.header.frames; ++i) {
    zycFrameItems frame;
    if (!zycSplitFrame(bytes.data() + pos, bytes.size() - pos, &frame)) break;
    items.push_back(frame);
    pos += frame.frameBytes;
  }
  if (items.empty()) return;
  zycSafeSection section;
  section.offset = entry.offset;
  section.frames = uint32_t(items.size());
  section.firstFrame = uint32_t(entry.firstFrame);
  section.packedBytes = entry.header.size;
  section.unpackedBytes = pos;
  sections_.push_back(section);
  bytes.resize(pos);
  unpacked_.push_back(std::move(bytes));
  pos = 0;
  for (size_t i = 0; i < items.size(); ++i) {
    zycSafeFrame f;
    f.section = index;
    f.key = i == 0;
    f.offset = pos;
    f.flags = items[i].flags;
    f.bytes = items[i].frameBytes;
    f.treeBytes = items[i].tree.size;
    f.motionBytes = items[i].motion.size;
    f.colourBytes = items[i].colour.size;
    f.imageBytes = items[i].image.size;
    f.soundBytes = items[i].sound.size;
    f.fadeBytes = items[i].fade.size;
    f.tableBytes = items[i].table.size;
    frames_.push_back(f);
    items_.push_back(items[i]);
    pos += items[i].frameBytes;
  }
}

bool zycSafeReader::Unpack(const zycSectionEntry& entry, uint32_t index,
                           std::vector<uint8_t>* out) {
  const uint8_t* data = file_.data() + entry.offset + kSectionHeaderSizeZyl0;
  const uint32_t size = entry.header.size;
  const std::string place = "section " + Num(index) + " at byte " + Num(entry.offset) + ": ";
  uint64_t room = limits_.maxUnpackedBytes;
  for (const auto& u : unpacked_) room -= std::min<uint64_t>(room, u.size());

  if (zycPacking(header_) == kPackingLzma) {
    if (size < kLzmaHeadBytes) {
      Problem(place + "LZMA data of " + Num(size) + " bytes is shorter than its " +
              Num(kLzmaHeadBytes) + "-byte head");
      return false;
    }
    const uint64_t length = zycLoad64(data + kLzmaPropertyBytes);
    if (length > room) {
      Problem(place + "LZMA data claims " + Num(length) + " unpacked bytes, beyond the limit of " +
              Num(room));
      return false;
    }
    out->resize(size_t(length));
    size_t produced = size_t(length);
    size_t consumed = size - kLzmaHeadBytes;
    const int result = LzmaUncompress(out->data(), &produced, data + kLzmaHeadBytes, &consumed,
                                      data, kLzmaPropertyBytes);
    if (result != 0 || produced != length) {
      Problem(place + "LZMA data damaged (result " + std::to_string(result) + ", " +
              Num(produced) + " of " + Num(length) + " bytes)");
      return false;
    }
    return true;
  }
  if (zycPacking(header_) != kPackingDeflate) {
    Problem("unknown packing " + Num(zycPacking(header_)));
    return false;
  }

  // Raw deflate, sync-flushed and never finished: inflate until the bytes run out.
  z_stream z{};
  if (inflateInit2(&z, -15) != Z_OK) {
    Problem(place + "inflate could not start");
    return false;
  }
  out->resize(size_t(std::min<uint64_t>(room, std::max<uint64_t>(4096, uint64_t(size) * 4))));
  z.next_in = const_cast<Bytef*>(data);
  z.avail_in = size;
  size_t produced = 0;
  bool ok = true;
  for (;;) {
    if (produced == out->size()) {
      if (out->size() >= room) {
        Problem(place + "deflate data unpacks to more than " + Num(room) + " bytes");
        ok = false;
        break;
      }
      out->resize(size_t(std::min<uint64_t>(room, uint64_t(out->size()) * 2)));
    }
    z.next_out = out->data() + produced;
    z.avail_out = uInt(std::min<size_t>(out->size() - produced, 1u << 30));
    const uInt before = z.avail_out, inBefore = z.avail_in;
    const int result = inflate(&z, Z_SYNC_FLUSH);
    produced += before - z.avail_out;
    if (result == Z_BUF_ERROR && z.avail_in != 0 && z.avail_in == inBefore &&
        z.avail_out == before && z.avail_out != 0) {
      Problem(place + "the deflate stream stalls at byte " + Num(size - z.avail_in) +
              " of the section");
      ok = false;
      break;
    }
    if (result == Z_STREAM_END) {
      if (z.avail_in != 0) {
        Problem(place + "the deflate stream ends " + Num(z.avail_in) +
                " bytes before the section does");
        ok = false;
      }
      break;
    }
    if (result == Z_BUF_ERROR || result == Z_OK) {
      if (z.avail_in == 0 && z.avail_out != 0) break;  // all bytes taken, nothing pending
      continue;
    }
    Problem(place + "deflate data damaged (" + (z.msg ? z.msg : "inflate error") + ") at byte " +
            Num(size - z.avail_in) + " of the section");
    ok = false;
    break;
  }
  inflateEnd(&z);
  out->resize(produced);
  return ok;
}

bool zycSafeReader::WalkZyl1() {
  zycSectionWalker walker;
  walker.Open(file_.data(), file_.size());
  zycSectionEntry entry;
  while (walker.Next(&entry)) {
    const uint32_t index = uint32_t(sections_.size());
    zycSafeSection s;
    s.offset = entry.offset;
    s.frames = entry.header.frames;
    s.firstFrame = uint32_t(entry.firstFrame);
    s.packedBytes = entry.header.size;
    s.unpackedBytes = entry.header.size;
    s.keyType = entry.header.keyType;
    sections_.push_back(s);
    const std::string place = "section " + Num(index) + " at byte " + Num(entry.offset) + ": ";
    if (s.keyType > 1) Problem(place + "unknown key type " + Num(s.keyType));

    const uint64_t start = entry.offset + kSectionHeaderSizeZyl1;
    const uint64_t end = start + entry.header.size;
    uint64_t pos = start;
    for (uint32_t i = 0; i < s.frames; ++i) {
      const uint32_t number = uint32_t(frames_.size());
      zycSafeFrame f;
      f.section = index;
      f.key = i == 0;
      f.offset = pos;
      zycFrameRecord record;
      frames_.push_back(f);
      if (!zycSplitRecord(file_.data() + pos, size_t(end - pos), &record)) {
        problems_.push_back(FramePlace(number) + zycPayloadErrorText(record.error) +
                            " at byte " + Num(pos + record.errorOffset));
        frames_.pop_back();
        return false;
      }
      zycSafeFrame& g = frames_.back();
      g.flags = record.recordFlags;
      g.bytes = record.recordBytes;
      g.soundBytes = record.sound.size;
      const bool planes = (record.recordFlags & kRecordFlagPlanes) == kRecordFlagPlanes;
      const bool repeat = record.recordFlags & kRecordFlagRepeat;
      if (planes) {
        g.kind = kFrameKindPlanes;
        g.planeBytes[0] = record.first.size;
        g.planeBytes[1] = record.plane2.size;
        g.planeBytes[2] = record.plane3.size;
      } else if (repeat) {
        g.kind = kFrameKindRepeat;
        if (record.first.size)
          problems_.push_back(FramePlace(number) + "a repeat record holds a picture stream of " +
                              Num(record.first.size) + " bytes");
      } else {
        g.kind = s.keyType ? kFrameKindQuadTree : kFrameKindStill;
        g.imageBytes = record.first.size;
        if (!f.key)
          problems_.push_back(FramePlace(number) + "a key frame record inside a section");
        else if (!record.first.size)
          problems_.push_back(FramePlace(number) + "a key frame record without an image");
      }
      if (f.key && (planes || repeat))
        problems_.push_back(FramePlace(number) + "the section does not start with a key frame");
      records_.push_back(record);
      pos += record.recordBytes;
    }
    if (pos != end)
      Problem(place + Num(end - pos) + " bytes stand behind its last frame record");
  }
  if (!walker.error().empty()) {
    Problem(walker.error());
    return false;
  }
  CheckTail(walker.position());
  if (walker.framesPassed() != header_.frameCount)
    Problem("the sections hold " + Num(walker.framesPassed()) + " frames, the header says " +
            Num(header_.frameCount));
  return true;
}

// ---------------------------------------------------------------------------------------------
// Frame checks.

bool zycSafeReader::CheckStillImage(const uint8_t* image, uint32_t size, uint32_t wantWidth,
                                    uint32_t wantHeight, std::string* why) {
  if (size < kStillImageHeaderBytes) {
    *why = "still image of " + Num(size) + " bytes is shorter than its " +
           Num(kStillImageHeaderBytes) + "-byte header";
    return false;
  }
  const zycStillImageHeader head = zycLoadStillImageHeader(image);
  const uint32_t tableBytes = head.tableBytes;
  const uint32_t surfaceBits = head.surfaceBits, vqBits = head.vqBits;
  const uint32_t width = head.width, height = head.height;
  const uint32_t surfaceOffset = head.surfaceOffset;
  const uint32_t codebookCount = head.codebookCount;
  const uint32_t codebookOffset = head.codebookOffset;
  char text[160];
  if (head.magic != kStillImageMagic) {
    std::snprintf(text, sizeof text, "still image has magic 0x%08X", head.magic);
    *why = text;
    return false;
  }
  if (head.imageVersion != kStillImageVersion) {
    *why = "still image of version " + Num(head.imageVersion) + " (" +
           Num(kStillImageVersion) + " expected)";
    return false;
  }
  if (width != wantWidth || height != wantHeight) {
    *why = "still image of " + Num(width) + " x " + Num(height) + " pixels in a picture of " +
           Num(wantWidth) + " x " + Num(wantHeight);
    return false;
  }
  if (tableBytes % kBlockBytes != 0 || tableBytes > limits_.maxTableBytes) {
    *why = "still image block table of " + Num(tableBytes) +
           " bytes (a multiple of 48 within the limit expected)";
    return false;
  }
  if (uint64_t(codebookCount) * kBlockBytes > tableBytes) {
    *why = "still image codebook of " + Num(codebookCount) +
           " entries does not fit its block table of " + Num(tableBytes) + " bytes";
    return false;
  }
  if (codebookOffset < kStillImageHeaderBytes ||
      uint64_t(codebookOffset) + kImageBlockBytes * uint64_t(codebookCount) > size) {
    *why = "still image codebook of " + Num(codebookCount) + " entries at byte " +
           Num(codebookOffset) + " lies outside the image (" + Num(size) + " bytes)";
    return false;
  }
  if (surfaceOffset < kStillImageHeaderBytes || surfaceOffset > size) {
    *why = "still image surface table at byte " + Num(surfaceOffset) + " lies outside the image (" +
           Num(size) + " bytes)";
    return false;
  }
  if (surfaceBits > 32 || vqBits > 32) {
    *why = "still image index widths of " + Num(surfaceBits) + " and " + Num(vqBits) + " bits";
    return false;
  }
  const uint32_t surfaceEnd = codebookOffset > surfaceOffset ? codebookOffset : size;
  const uint64_t surfaces = (surfaceEnd - surfaceOffset) / kSurfaceEntryBytes;

  CheckedBits bits(image + kStillImageHeaderBytes, (size - kStillImageHeaderBytes) / 4);
  for (uint32_t by = 0; by + 8 <= height; by += 8) {
    for (uint32_t bx = 0; bx + 8 <= width; bx += 8) {
      const std::string block = " (block 8 at " + Num(bx) + "," + Num(by) + ")";
      uint32_t kind, index;
      if (!bits.Read(1, &kind)) {
        *why = "still image bit stream runs past the image" + block;
        return false;
      }
      if (kind) {
        for (int q = 0; q < 4; ++q) {
          if (!bits.Read(vqBits, &index)) {
            *why = "still image bit stream runs past the image" + block;
            return false;
          }
          if (index >= codebookCount) {
            *why = "still image codebook index " + Num(index) + " beyond its " +
                   Num(codebookCount) + " entries" + block;
            return false;
          }
        }
      } else {
        if (!bits.Read(surfaceBits, &index)) {
          *why = "still image bit stream runs past the image" + block;
          return false;
        }
        if (index >= surfaces) {
          *why = "still image surface index " + Num(index) + " beyond its " + Num(surfaces) +
                 " surfaces" + block;
          return false;
        }
      }
    }
  }
  return true;
}

bool zycSafeReader::CheckTableImage(const uint8_t* image, uint32_t size, uint32_t colourBlocks,
                                    std::string* why) {
  if (size < kTableImageHeaderBytes) {
    *why = "table-block image of " + Num(size) + " bytes is shorter than its " +
           Num(kTableImageHeaderBytes) + "-byte header";
    return false;
  }
  const zycTableImageHeader head = zycLoadTableImageHeader(image);
  if (head.marker != 0) return true;  // the frame's blocks are not decoded at all
  const uint32_t indexBits = head.indexBits;
  const uint32_t tableBytes = head.tableBytes;
  const uint32_t origin = head.tableOrigin;
  const uint32_t blockCount = head.blockCount;
  const uint32_t newCount = head.newCount;
  const uint32_t newOffset = head.newOffset;
  if (tableBytes == 0 || tableBytes % kBlockBytes != 0 || tableBytes > limits_.maxTableBytes) {
    *why = "table-block image with a block table of " + Num(tableBytes) +
           " bytes (a multiple of 48 within the limit expected)";
    return false;
  }
  if (blockCount != colourBlocks) {
    *why = "table-block image of " + Num(blockCount) + " blocks for a tree of " +
           Num(colourBlocks) + " colour blocks";
    return false;
  }
  if (indexBits > 32) {
    *why = "table-block image index width of " + Num(indexBits) + " bits";
    return false;
  }
  if (uint64_t(newCount) * kBlockBytes > tableBytes) {
    *why = "table-block image of " + Num(newCount) + " new entries for a block table of " +
           Num(tableBytes) + " bytes";
    return false;
  }
  if (newOffset < kTableImageHeaderBytes ||
      uint64_t(newOffset) + kImageBlockBytes * uint64_t(newCount) > size) {
    *why = "table-block image new entries at byte " + Num(newOffset) +
           " lie outside the image (" + Num(size) + " bytes)";
    return false;
  }
  if (origin >= tableBytes || origin % kBlockBytes != 0) {
    *why = "table-block image origin " + Num(origin) + " in a block table of " +
           Num(tableBytes) + " bytes";
    return false;
  }
  const uint32_t writePos = head.reset ? 0 : tableWritePos;
  if (writePos > tableBytes || writePos % kBlockBytes != 0) {
    *why = "table-block image writes at byte " + Num(writePos) + " of a block table of " +
           Num(tableBytes) + " bytes";
    return false;
  }
  const uint64_t entries = tableBytes / kBlockBytes;
  CheckedBits bits(image + kTableImageHeaderBytes, (size - kTableImageHeaderBytes) / 4);
  for (uint32_t k = 0; k < blockCount; ++k) {
    uint32_t index;
    if (!bits.Read(indexBits, &index)) {
      *why = "table-block image bit stream runs past the image at index " + Num(k);
      return false;
    }
    if (index >= entries) {
      *why = "table-block image index " + Num(index) + " (block " + Num(k) + ") beyond the " +
             Num(entries) + " entries of its block table";
      return false;
    }
  }
  return true;
}

bool zycSafeReader::CheckZyl0Frame(const zycSafeFrame& frame, const zycFrameItems& items,
                                   const uint8_t* bytes, std::string* why) {
  if (items.image.present)
    return CheckStillImage(bytes + items.image.offset, items.image.size, pictureWidth_,
                           pictureHeight_, why);

  TreeCheck tree{};
  tree.tree = bytes + items.tree.offset + 1;
  tree.treeBytes = items.tree.size - 1;
  tree.motion = items.motion.present ? bytes + items.motion.offset : nullptr;
  tree.motionBytes = items.motion.present ? items.motion.size : 0;
  tree.wide = header_.flags & kHeaderFlagWideMotion;
  if (tree.wide && !largeMotionReady_) {
    zycFillLargeMotionTable(largeMotion_);  // the table by its rule takes a while to build
    largeMotionReady_ = true;
  }
  tree.largeMotion = largeMotion_;
  tree.width = pictureWidth_;
  tree.height = pictureHeight_;
  if (!tree.Walk()) {
    *why = tree.error;
    return false;
  }
  const uint64_t treeNeed = (tree.symbols + 3) / 4;
  if (treeNeed != tree.treeBytes) {
    *why = "the tree item holds " + Num(tree.treeBytes) + " bytes of symbols, the tree takes " +
           Num(treeNeed);
    return false;
  }
  const uint64_t motionNeed = uint64_t(tree.motionCount) * (tree.wide ? 2 : 1);
  if (motionNeed != tree.motionBytes) {
    *why = "the motion item holds " + Num(tree.motionBytes) + " bytes, the tree takes " +
           Num(motionNeed);
    return false;
  }
  if (items.table.present) {
    if (tree.fadeCount) {
      *why = "a table frame holds " + Num(tree.fadeCount) + " fade blocks but no fade levels";
      return false;
    }
    return CheckTableImage(bytes + items.table.offset, items.table.size, tree.colourCount, why);
  }
  const uint64_t colourNeed = uint64_t(tree.colourCount) * 8;
  const uint32_t colourHave = items.colour.present ? items.colour.size : 0;
  if (colourNeed != colourHave) {
    *why = "the colour item holds " + Num(colourHave / 8) + " blocks, the tree has " +
           Num(tree.colourCount) + " colour blocks";
    return false;
  }
  const uint64_t fadeNeed = (uint64_t(tree.fadeCount) + 1) / 2;
  const uint32_t fadeHave = items.fade.present ? items.fade.size : 0;
  if (fadeNeed != fadeHave) {
    *why = "the fade item holds " + Num(fadeHave) + " bytes, the tree has " +
           Num(tree.fadeCount) + " fade blocks";
    return false;
  }
  (void)frame;
  return true;
}

// ---------------------------------------------------------------------------------------------
// Decoding.

void zycSafeReader::ResetDecoder() {
  decoder_->io = io_.get();
  decoder_->Release();
  const bool zyl1 = isZyl1();
  decoder_->Setup(pictureWidth_, pictureHeight_, 32,
                  zyl1 ? 0 : (header_.flags & kHeaderFlagYuv ? 1 : 0),
                  zyl1 || !(header_.flags & kHeaderFlagWideMotion) ? 1 : 0);
  decoder_->io = io_.get();
  if (zyl1) zyl1_->Setup(pictureWidth_, pictureHeight_);
  tableWritePos = 0;
}

void zycSafeReader::Rewind() {
  next_ = 0;
  current_ = 0;
  undecodable_ = 0;
  frameError_.clear();
  soundData_ = nullptr;
  soundBytes_ = 0;
  pictureValid_ = false;
  // ZYL0 pictures are multiples of 16 in both directions and the frame routine writes whole
  // blocks; ZYL1 still images write their own size.
  const size_t bytes = size_t(pictureWidth_) * pictureHeight_ * 4;
  picture_.assign(bytes, 0);
  previous_.assign(bytes, 0);
  decoderReady_ = false;  // set up at the first frame: the tables take a while to fill
}

zycSafeStatus zycSafeReader::NextFrame() {
  frameError_.clear();
  soundData_ = nullptr;
  soundBytes_ = 0;
  if (next_ >= frames_.size()) return zycSafeStatus::end;
  current_ = next_++;
  const zycSafeFrame& f = frames_[current_];
  if (!decoderReady_) {
    ResetDecoder();
    decoderReady_ = true;
  }

  if (!isZyl1()) {
    const zycFrameItems& items = items_[current_];
    const uint8_t* bytes = unpacked_[f.section].data() + f.offset;
    if (items.sound.present) {
      soundData_ = bytes + items.sound.offset;
      soundBytes_ = items.sound.size;
    }
    std::string why;
    if (!CheckZyl0Frame(f, items, bytes, &why)) {
      frameError_ = FramePlace(current_) + why;
      return zycSafeStatus::damaged;
    }
    // The decoder shifts the tree bytes in place: it works on a copy.
    scratch_.assign(bytes, bytes + f.bytes);
    zycSetFrameStreams(*decoder_, items, scratch_.data());
    decoder_->ownStateWord = 0;
    decoder_->ownStopWord = 0;
    decoder_->stateWord = &decoder_->ownStateWord;
    decoder_->stopWord = &decoder_->ownStopWord;
    decoder_->stopMask = 0;
    if (items.image.present) {
      decoder_->DecodeImage(picture_.data());
    } else {
      decoder_->treeView = treeView_ ? 1 : 0;
      decoder_->DecodeFrame(picture_.data(), previous_.data());
      decoder_->treeView = 0;
      picture_.swap(previous_);
    }
    pictureValid_ = true;
    return zycSafeStatus::decoded;
  }

  const zycFrameRecord& record = records_[current_];
  const uint8_t* bytes = file_.data() + f.offset;
  if (record.sound.present) {
    soundData_ = bytes + record.sound.offset;
    soundBytes_ = record.sound.size;
  }
  zycZyl1Streams streams;
  if (record.first.present) {
    streams.first = bytes + record.first.offset;
    streams.firstSize = record.first.size;
  }
  if (record.plane2.present) {
    streams.second = bytes + record.plane2.offset;
    streams.secondSize = record.plane2.size;
  }
  if (record.plane3.present) {
    streams.third = bytes + record.plane3.offset;
    streams.thirdSize = record.plane3.size;
  }
  switch (f.kind) {
    case kFrameKindStill: {
      std::string why;
      if (!record.first.present ||
          !CheckStillImage(streams.first, streams.firstSize, pictureWidth_, pictureHeight_,
                           &why)) {
        frameError_ = FramePlace(current_) + (why.empty() ? "a key frame without an image" : why);
        pictureValid_ = false;
        return zycSafeStatus::damaged;
      }
      break;
    }
    case kFrameKindQuadTree:
      if (!record.first.present) {
        frameError_ = FramePlace(current_) + "a key frame without an image";
        pictureValid_ = false;
        return zycSafeStatus::damaged;
      }
      break;
    default:
      // Repeats and P-frames build on the picture before them.
      if (!pictureValid_) {
        frameError_ = FramePlace(current_) + (f.kind == kFrameKindRepeat
                                                  ? "repeats a frame that was not decoded"
                                                  : "builds on a frame that was not decoded");
        ++undecodable_;
        return zycSafeStatus::undecodable;
      }
      if (f.kind == kFrameKindRepeat) return zycSafeStatus::decoded;
      break;
  }
  if (const char* why = zyl1_->Decode(f.kind, streams)) {
    frameError_ = FramePlace(current_) + why;
    pictureValid_ = false;
    return zycSafeStatus::damaged;
  }
  std::memcpy(picture_.data(), zyl1_->picture(), picture_.size());
  pictureValid_ = true;
  return zycSafeStatus::decoded;
}

std::vector<std::string> zycSafeReader::CheckAll() {
  std::vector<std::string> all = problems_;
  Rewind();
  for (;;) {
    const zycSafeStatus status = NextFrame();
    if (status == zycSafeStatus::end) break;
    if (status == zycSafeStatus::damaged) all.push_back(frameError_);
  }
  const uint32_t undecodable = undecodable_;
  Rewind();
  undecodable_ = undecodable;
  return all;
}

std::vector<zycSectionPrefix> zycWholeFramePrefixes(const zycStreamHeader& header,
                                                    const uint8_t* data, size_t available,
                                                    uint64_t maxUnpacked) {
  std::vector<zycSectionPrefix> prefixes;
  if (header.magic == kMagicZyl1) {
    // Records one behind the other: a u8 of flags, then 24 bits of the length behind the first
    // word.
    size_t position = 0;
    while (position + 4 <= available) {
      uint8_t flags;
      uint32_t length;
      zycLoadRecordHead(data + position, &flags, &length);
      if (position + 4 + length > available) break;
      position += 4 + length;
      prefixes.push_back({uint32_t(prefixes.size() + 1), uint32_t(position)});
    }
    return prefixes;
  }
  if (header.magic != kMagicZyl0 || zycPacking(header) != kPackingDeflate) return prefixes;

  // Inflate block by block, noting where a block ends on a byte boundary: the sync flush that
  // ends a frame is such a place.
  struct Point {
    uint64_t in, out;
  };
  std::vector<Point> points;
  std::vector<uint8_t> out(4096);
  z_stream z{};
  if (inflateInit2(&z, -15) != Z_OK) return prefixes;
  z.next_in = const_cast<Bytef*>(data);
  z.avail_in = uInt(std::min<size_t>(available, 1u << 30));
  for (;;) {
    if (z.total_out == out.size()) {
      if (out.size() >= maxUnpacked) break;
      out.resize(size_t(std::min<uint64_t>(maxUnpacked, uint64_t(out.size()) * 2)));
    }
    z.next_out = out.data() + z.total_out;
    z.avail_out = uInt(out.size() - z.total_out);
    const uLong inBefore = z.total_in, outBefore = z.total_out;
    const int result = inflate(&z, Z_BLOCK);
    if ((z.data_type & 128) && (z.data_type & 7) == 0) points.push_back({z.total_in, z.total_out});
    if (result != Z_OK) break;
    if (z.total_in == inBefore && z.total_out == outBefore) break;
  }
  inflateEnd(&z);

  // Frame ends in the unpacked bytes, each matched with the last clean block end that leaves
  // exactly those bytes unpacked.
  size_t position = 0;
  const size_t unpacked = points.empty() ? 0 : size_t(points.back().out);
  for (uint32_t frames = 1;; ++frames) {
    zycFrameItems items;
    if (!zycSplitFrame(out.data() + position, unpacked - position, &items)) break;
    position += items.frameBytes;
    uint64_t bytes = 0;
    for (const Point& p : points)
      if (p.out == position) bytes = p.in;
    if (bytes > 0) prefixes.push_back({frames, uint32_t(bytes)});
  }
  return prefixes;
}

// Hand-made frame payloads for decoder tests.
#include "tests/support/movieBuilder.h"

#include <algorithm>

namespace movieBuilder {

void put16(Bytes& out, uint32_t v) {
  out.push_back(uint8_t(v & 0xFF));
  out.push_back(uint8_t((v >> 8) & 0xFF));
}

void put32(Bytes& out, uint32_t v) {
  put16(out, v & 0xFFFF);
  put16(out, v >> 16);
}

void putItem(Bytes& out, const Bytes& body) {
  put32(out, uint32_t(body.size()));
  out.insert(out.end(), body.begin(), body.end());
}

void BitWriter::Put(uint32_t value, int bits) {
  for (int i = bits - 1; i >= 0; --i) {
    if (used_ == 32) {
      words_.push_back(0);
      used_ = 0;
    }
    const uint32_t bit = (value >> i) & 1;
    words_.back() |= bit << (31 - used_);
    ++used_;
  }
}

Bytes BitWriter::Finish() const {
  Bytes out;
  for (uint32_t w : words_) put32(out, w);
  return out;
}

TreeFrame& TreeFrame::Copy(uint32_t motionIndex) {
  symbols_.push_back(0);
  if (wideMotion_) {
    put16(motion_, motionIndex);
  } else {
    motion_.push_back(uint8_t(motionIndex));
  }
  return *this;
}

TreeFrame& TreeFrame::Split() {
  symbols_.push_back(1);
  return *this;
}

TreeFrame& TreeFrame::Colour(uint16_t color0, uint16_t color1, uint32_t indices) {
  symbols_.push_back(2);
  colourWords_.push_back(uint32_t(color0) | uint32_t(color1) << 16);
  indexWords_.push_back(indices);
  return *this;
}

TreeFrame& TreeFrame::TableBlock() {
  symbols_.push_back(2);
  return *this;
}

TreeFrame& TreeFrame::Fade(uint32_t motionIndex, uint32_t level) {
  Copy(motionIndex);
  symbols_.back() = 3;
  fades_.push_back(uint8_t(level));
  return *this;
}

TreeFrame& TreeFrame::Sound(const Bytes& chunk) {
  sound_ = chunk;
  hasSound_ = true;
  return *this;
}

TreeFrame& TreeFrame::Table(const Bytes& tableImage) {
  table_ = tableImage;
  hasTable_ = true;
  return *this;
}

TreeFrame& TreeFrame::ForceFlags(uint8_t flags) {
  forcedFlags_ = flags;
  return *this;
}

uint8_t TreeFrame::Flags() const {
  if (forcedFlags_ >= 0) return uint8_t(forcedFlags_);
  uint8_t flags = 1;
  if (!motion_.empty()) flags |= 2;
  if (!colourWords_.empty()) flags |= 4;
  if (hasSound_) flags |= 16;
  if (!fades_.empty()) flags |= 32;
  if (hasTable_) flags |= 64;
  return flags;
}

Bytes TreeFrame::TreeBody() const {
  Bytes body{Flags()};
  for (size_t i = 0; i < symbols_.size(); ++i) {
    if (i % 4 == 0) body.push_back(0);
    body.back() = uint8_t(body.back() | symbols_[i] << (2 * (i % 4)));
  }
  return body;
}

Bytes TreeFrame::Build() const {
  const uint8_t flags = Flags();
  Bytes out;
  putItem(out, TreeBody());
  if (flags & 2) putItem(out, motion_);
  if (!(flags & 64) && (flags & 4)) {
    Bytes colour;
    for (uint32_t w : colourWords_) put32(colour, w);
    for (uint32_t w : indexWords_) put32(colour, w);
    putItem(out, colour);
  }
  if (flags & 16) putItem(out, sound_);
  if (flags & 64) {
    putItem(out, table_);
  } else if (flags & 32) {
    Bytes fade((fades_.size() + 1) / 2, 0);
    for (size_t i = 0; i < fades_.size(); ++i)
      fade[i / 2] = uint8_t(fade[i / 2] | (fades_[i] & 15) << (i % 2 ? 4 : 0));
    putItem(out, fade);
  }
  return out;
}

void StillImage::SurfaceBlock(uint32_t index) {
  bits.Put(0, 1);
  bits.Put(index, surfaceBits);
}

void StillImage::CodebookBlock(uint32_t topLeft, uint32_t topRight, uint32_t bottomLeft,
                               uint32_t bottomRight) {
  bits.Put(1, 1);
  bits.Put(topLeft, vqBits);
  bits.Put(topRight, vqBits);
  bits.Put(bottomLeft, vqBits);
  bits.Put(bottomRight, vqBits);
}

Bytes StillImage::Build() const {
  const Bytes stream = bits.Finish();
  const uint32_t surfaceOffset = 28 + uint32_t(stream.size());
  const uint32_t codebookOffset = surfaceOffset + 36 * uint32_t(surfaces.size());
  Bytes out;
  put32(out, 0x7FED52A5);
  put32(out, tableBytes);
  out.push_back(3);
  out.push_back(surfaceBits);
  out.push_back(vqBits);
  out.push_back(0);
  put16(out, width);
  put16(out, height);
  put32(out, surfaceOffset);
  put32(out, uint32_t(codebook.size()));
  put32(out, codebookOffset);
  out.insert(out.end(), stream.begin(), stream.end());
  for (const auto& s : surfaces)
    for (int16_t k : s) put16(out, uint16_t(k));
  for (const auto& e : codebook) out.insert(out.end(), e.begin(), e.end());
  return out;
}

Bytes TableImage::Build() const {
  BitWriter bits;
  for (uint32_t i : indices) bits.Put(i, indexBits);
  const Bytes stream = bits.Finish();
  Bytes out{marker, reset, indexBits, 0};
  put32(out, tableBytes);
  put32(out, tableOrigin);
  put32(out, uint32_t(indices.size()));
  put32(out, uint32_t(newEntries.size()));
  put32(out, 24 + uint32_t(stream.size()));
  out.insert(out.end(), stream.begin(), stream.end());
  for (const auto& e : newEntries) out.insert(out.end(), e.begin(), e.end());
  return out;
}

std::array<uint8_t, 8> dxtBlock(uint16_t color0, uint16_t color1, uint32_t indices) {
  return {uint8_t(color0 & 0xFF),          uint8_t(color0 >> 8),
          uint8_t(color1 & 0xFF),          uint8_t(color1 >> 8),
          uint8_t(indices & 0xFF),         uint8_t((indices >> 8) & 0xFF),
          uint8_t((indices >> 16) & 0xFF), uint8_t((indices >> 24) & 0xFF)};
}

Bytes imageFrame(const Bytes& image, const Bytes* sound) {
  Bytes out;
  putItem(out, Bytes{uint8_t(sound ? 25 : 9)});
  putItem(out, image);
  if (sound) putItem(out, *sound);
  return out;
}

Bytes frameRecord(uint8_t recordFlags, const Bytes& first, const Bytes* sound, const Bytes* plane2,
                  const Bytes* plane3) {
  std::vector<const Bytes*> others;
  if (sound) others.push_back(sound);
  if (plane2) others.push_back(plane2);
  if (plane3) others.push_back(plane3);
  // Part behind the first word: firstSize, entries, pad to 4, then the streams.
  Bytes behind;
  put32(behind, uint32_t(first.size()));
  const size_t entriesAt = behind.size();
  behind.resize(behind.size() + 6 * others.size(), 0);
  while (behind.size() % 4) behind.push_back(0);
  const size_t firstStart = behind.size();
  behind.insert(behind.end(), first.begin(), first.end());
  for (size_t i = 0; i < others.size(); ++i) {
    while ((behind.size() - firstStart) % 4) behind.push_back(0);
    const uint32_t offset = uint32_t(behind.size());
    const uint32_t size = uint32_t(others[i]->size());
    uint8_t* e = behind.data() + entriesAt + 6 * i;
    e[0] = uint8_t(offset & 0xFF);
    e[1] = uint8_t((offset >> 8) & 0xFF);
    e[2] = uint8_t(size & 0xFF);
    e[3] = uint8_t((size >> 8) & 0xFF);
    e[4] = uint8_t(offset >> 16);
    e[5] = uint8_t(size >> 16);
    behind.insert(behind.end(), others[i]->begin(), others[i]->end());
  }
  const uint32_t length = uint32_t(behind.size());
  Bytes out(4 + behind.size());
  out[0] = recordFlags;
  out[1] = uint8_t(length >> 16);
  out[2] = uint8_t(length & 0xFF);
  out[3] = uint8_t((length >> 8) & 0xFF);
  std::copy(behind.begin(), behind.end(), out.begin() + 4);
  return out;
}

}  // namespace movieBuilder

// Hand-made frame payloads and whole movies for tests.
#include "tests/support/movieBuilder.h"

#include <zlib.h>

#include <algorithm>
#include <cstdio>

#include "deps/lzmaLib/lzmaLib.h"

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

uint8_t TreeFrame::Flags() const {
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

std::vector<Bytes> TreeFrame::Items() const {
  const uint8_t flags = Flags();
  std::vector<Bytes> items = {TreeBody()};
  if (flags & 2) items.push_back(motion_);
  if (!(flags & 64) && (flags & 4)) {
    Bytes colour;
    for (uint32_t w : colourWords_) put32(colour, w);
    for (uint32_t w : indexWords_) put32(colour, w);
    items.push_back(colour);
  }
  if (flags & 16) items.push_back(sound_);
  if (flags & 64) {
    items.push_back(table_);
  } else if (flags & 32) {
    Bytes fade((fades_.size() + 1) / 2, 0);
    for (size_t i = 0; i < fades_.size(); ++i)
      fade[i / 2] = uint8_t(fade[i / 2] | (fades_[i] & 15) << (i % 2 ? 4 : 0));
    items.push_back(fade);
  }
  return items;
}

Bytes TreeFrame::Build() const {
  Bytes out;
  for (const Bytes& item : Items()) putItem(out, item);
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

// ---------------------------------------------------------------------------------------------
// Whole movies.

namespace {

// A still image of w x h pixels: 8 by 8 blocks alternating between a surface (1-bit index into
// two surfaces) and four codebook blocks (1-bit indices into two entries).
Bytes MovieStillImage(uint32_t w, uint32_t h, uint8_t seed) {
  StillImage image;
  image.tableBytes = 48 * 16;
  image.surfaceBits = 1;
  image.vqBits = 1;
  image.width = uint16_t(w);
  image.height = uint16_t(h);
  uint32_t k = 0;
  for (uint32_t by = 0; by < h; by += 8) {
    for (uint32_t bx = 0; bx < w; bx += 8, ++k) {
      if ((k + seed) % 2) {
        image.CodebookBlock(k & 1, (k + 1) & 1, (k + 2) & 1, (k + 3) & 1);
      } else {
        image.SurfaceBlock(k % 3 == 0);
      }
    }
  }
  for (int s = 0; s < 2; ++s) {
    std::array<int16_t, 18> surface;
    for (int channel = 0; channel < 3; ++channel) {
      const int16_t k0 = int16_t(1000 + 900 * channel + 500 * s + 37 * seed);
      const int16_t coefficients[6] = {k0, int16_t(30 - 20 * s), int16_t(-25 + channel), 1, -1, 2};
      std::copy(coefficients, coefficients + 6, surface.begin() + 6 * channel);
    }
    image.surfaces.push_back(surface);
  }
  image.codebook.push_back({0x1F, 0xF8, 0xE0, 0x07, 0x1B, 0xE4, 0x1B, 0xE4});
  image.codebook.push_back({uint8_t(0x10 + seed), 0x84, 0x00, 0x00, 0xFF, 0x00, 0xAA, 0x55});
  return image.Build();
}

// Raw deflate of one section, every length word and every body flushed on its own, never
// finished.
Bytes DeflateSection(const std::vector<Bytes>& pieces) {
  z_stream z{};
  deflateInit2(&z, 9, Z_DEFLATED, -15, 9, Z_DEFAULT_STRATEGY);
  Bytes out;
  uint8_t buffer[1 << 14];
  for (const Bytes& piece : pieces) {
    z.next_in = const_cast<Bytef*>(piece.data());
    z.avail_in = uInt(piece.size());
    do {
      z.next_out = buffer;
      z.avail_out = sizeof buffer;
      deflate(&z, Z_SYNC_FLUSH);
      out.insert(out.end(), buffer, buffer + (sizeof buffer - z.avail_out));
    } while (z.avail_out == 0);
  }
  deflateEnd(&z);
  return out;
}

// Five property bytes, the u64 unpacked size, the LZMA stream.
Bytes LzmaSection(const Bytes& unpacked) {
  Bytes out(13 + unpacked.size() * 2 + 1024);
  size_t packedSize = out.size() - 13;
  size_t propsSize = 5;
  LzmaCompress(out.data() + 13, &packedSize, unpacked.data(), unpacked.size(), out.data(),
               &propsSize, 1, 65536, 2, 0, 2, 8, 1);
  for (int i = 0; i < 8; ++i) out[5 + i] = uint8_t(uint64_t(unpacked.size()) >> (8 * i));
  out.resize(13 + packedSize);
  return out;
}

}  // namespace

std::vector<Bytes> Zyl0FrameItems(const MovieOptions& o, uint32_t frame, bool key) {
  const uint32_t blocks = ((o.width + 15) / 16) * ((o.height + 15) / 16);
  if (key && o.stillKeyFrames) {
    std::vector<Bytes> items = {Bytes{uint8_t(o.sound ? 25 : 9)},
                                MovieStillImage((o.width + 15) & ~15u, (o.height + 15) & ~15u,
                                                uint8_t(o.seed + frame))};
    if (o.sound) items.push_back(Bytes(7 + frame % 3, uint8_t(frame)));
    return items;
  }
  // Copies take motion index 0, the vector (0,0).
  TreeFrame tree(o.wideMotion);
  if (!key && o.tableFrames) {
    // Copies and whole colour blocks; the colour blocks come from a ring of 8 entries that
    // gets two new entries a frame.
    TableImage table;
    table.indexBits = 3;
    table.tableBytes = 8 * 48;
    for (uint32_t k = 0; k < blocks; ++k) {
      if ((k + frame) % 2 == 0) {
        tree.Copy(0);
      } else {
        tree.TableBlock();
        table.indices.push_back((k + frame) % 8);
      }
    }
    for (int e = 0; e < 2; ++e)
      table.newEntries.push_back({uint8_t(frame * 40 + e), uint8_t(0x80 + e), 0x10, 0x04, 0x1B,
                                  0xE4, uint8_t(frame), 0x55});
    if (o.sound) tree.Sound(Bytes(5, uint8_t(frame)));
    return tree.Table(table.Build()).Items();
  }
  auto colour = [&](uint32_t k) {
    const uint32_t colours = uint32_t(o.seed * 977u + frame * 131u + k * 7919u) * 2654435761u;
    tree.Colour(uint16_t(colours), uint16_t(colours >> 16),
                uint32_t(o.seed + frame * 17u + k * 29u) * 2246822519u);
  };
  for (uint32_t k = 0; k < blocks; ++k) {
    if (key) {
      colour(k);
    } else if ((k + frame) % 2 == 0) {
      tree.Copy(0);
    } else {
      // A split block: fade, colour, copy, and a split of 4 by 4 nodes of every symbol (its
      // split leaves the pixels as they are).
      tree.Split().Fade(0, (frame + k) & 15);
      colour(k);
      tree.Copy(0).Split().Copy(0).Split();
      colour(k + 1000);
      tree.Fade(0, (15 - frame) & 15);
    }
  }
  if (o.sound) {
    Bytes s;
    for (uint32_t i = 0; i < 6 + frame % 5; ++i) s.push_back(uint8_t(frame * 3 + i));
    tree.Sound(s);
  }
  return tree.Items();
}

Bytes Zyl0(const MovieOptions& o) {
  // Versions 1 to 3 hold two words in the header's tail and always deflate.
  const bool tailWords = o.version >= 1 && o.version <= 3;
  const bool lzma = !tailWords && o.packing == 1;
  Bytes body;
  uint32_t frame = 0;
  for (uint32_t frames : o.sections) {
    std::vector<Bytes> pieces;
    Bytes unpacked;
    for (uint32_t i = 0; i < frames; ++i, ++frame) {
      std::vector<Bytes> items = Zyl0FrameItems(o, frame, i == 0);
      if (o.edit) o.edit(frame, &items);
      for (const Bytes& item : items) {
        Bytes length;
        put32(length, uint32_t(item.size()));
        pieces.push_back(length);
        pieces.push_back(item);
        putItem(unpacked, item);
      }
    }
    const Bytes packed = lzma ? LzmaSection(unpacked) : DeflateSection(pieces);
    put16(body, frames);  // section header: u16 frames, u32 packed size
    put32(body, uint32_t(packed.size()));
    body.insert(body.end(), packed.begin(), packed.end());
  }
  if (o.sections.empty()) body.resize(6, 0);

  Bytes out = {'Z', 'Y', 'L', '0'};
  put32(out, o.version);
  put32(out, uint32_t(64 + body.size()));  // file size
  put32(out, 1 | (o.sound ? 2 : 0) | (o.wideMotion ? 8 : 0));
  put32(out, frame);
  put32(out, o.frameDuration);
  put32(out, 1000000);  // time scale
  put32(out, o.width);
  put32(out, o.height);
  put32(out, 0);
  put32(out, o.sound ? 22050 : 0);
  put32(out, o.sound ? 1 : 0);
  put32(out, o.sound ? 900 : 0);
  put32(out, 7);
  out.push_back(tailWords ? 0 : o.packing);  // the tail: packing and zero parameters
  out.resize(64, 0);
  out.insert(out.end(), body.begin(), body.end());
  return out;
}

Bytes Zyl1(const MovieOptions& o) {
  Bytes body;
  uint32_t frame = 0;
  for (uint32_t frames : o.sections) {
    Bytes records;
    for (uint32_t i = 0; i < frames; ++i, ++frame) {
      Bytes sound(5 + frame % 4, uint8_t(0xA0 + frame));
      const Bytes* soundStream = o.sound ? &sound : nullptr;
      const uint8_t soundFlag = o.sound ? 1 : 0;
      Bytes record;
      if (i == 0) {
        const Bytes image =
            MovieStillImage((o.width + 7) & ~7u, (o.height + 7) & ~7u, uint8_t(o.seed + frame));
        record = frameRecord(soundFlag, image, soundStream, nullptr, nullptr);
      } else if (o.planeFrames) {
        const Bytes y(13 + frame, uint8_t(frame)), u(5, 0x55), v(6, 0x66);
        record = frameRecord(soundFlag | 6, y, soundStream, &u, &v);
      } else {
        record = frameRecord(soundFlag | 8, Bytes(), soundStream, nullptr, nullptr);
      }
      records.insert(records.end(), record.begin(), record.end());
    }
    // Section header: key type, frames as u8 bits 16-23 then u16 bits 0-15, u32 size.
    body.push_back(0);
    body.push_back(uint8_t(frames >> 16));
    put16(body, frames & 0xFFFF);
    put32(body, uint32_t(records.size()));
    body.insert(body.end(), records.begin(), records.end());
  }
  Bytes out = {'Z', 'Y', 'L', '1'};
  put32(out, o.version);
  put32(out, 60);  // header size
  put32(out, uint32_t(60 + body.size()));
  put32(out, frame);
  put32(out, o.frameDuration);
  put32(out, 1000000);
  put32(out, o.width);
  put32(out, o.height);
  put32(out, 0);
  put32(out, o.sound ? 16000 : 0);
  put32(out, o.sound ? 1 : 0);
  put32(out, o.sound ? 700 : 0);
  put32(out, 0);  // paramS
  put32(out, 0);  // paramT
  out.insert(out.end(), body.begin(), body.end());
  return out;
}

bool WriteFile(const std::string& path, const Bytes& bytes) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return false;
  const bool ok = bytes.empty() || std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  return std::fclose(f) == 0 && ok;
}

Bytes ReadFile(const std::string& path) {
  Bytes bytes;
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return bytes;
  uint8_t buffer[4096];
  size_t got;
  while ((got = std::fread(buffer, 1, sizeof buffer, f)) > 0)
    bytes.insert(bytes.end(), buffer, buffer + got);
  std::fclose(f);
  return bytes;
}

}  // namespace movieBuilder

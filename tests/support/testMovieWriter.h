// Small movies made byte by byte for tests: valid containers whose frames hold hand-built
// items (ZYL0) or records (ZYL1), packed the way the encoders pack them. Header-only; users
// link zlib and the LZMA sources (zyl_stream does).
#pragma once

#include <zlib.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "base/byteIo.h"
#include "deps/lzmaLib/lzmaLib.h"
#include "stream/container.h"
#include "stream/zylFormat.h"

struct zylTestMovieOptions {
  uint32_t width = 40;   // rounded up to 48 by the decoder: 3 x 1 blocks of 16 at height 16
  uint32_t height = 16;
  uint32_t version = 0;
  uint8_t packing = kPackingDeflate;
  std::vector<uint32_t> sections = {3, 2};  // frames per section
  bool sound = false;
  uint8_t seed = 0;  // varies the colours, so that different movies differ
  uint32_t frameDuration = 40000;
  bool planeFrames = false;  // ZYL1: P-frames as plane records (not decodable here)
  bool stillKeyFrames = false;  // ZYL0: key frames as still images instead of trees
  bool tableFrames = false;     // ZYL0: P-frames take their colour blocks from a block table
  bool wideMotion = false;      // ZYL0: u16 motion indices (header flag 8)
  // ZYL0: may change a frame's item bodies (tree item first) before they are packed.
  std::function<void(uint32_t frame, std::vector<std::vector<uint8_t>>* items)> edit;
};

namespace zylTestMovie {

inline void PutU32(std::vector<uint8_t>* out, uint32_t v) {
  uint8_t b[4];
  zycStore32(b, v);
  out->insert(out->end(), b, b + 4);
}

// Writes 2-bit symbols four to a byte, first symbol in the low bits.
struct SymbolWriter {
  std::vector<uint8_t> bytes;
  uint32_t count = 0;
  void Put(uint8_t symbol) {
    if (count % 4 == 0) bytes.push_back(0);
    bytes.back() |= uint8_t(symbol << (2 * (count % 4)));
    ++count;
  }
};

inline std::vector<uint8_t> StillImage(uint32_t w, uint32_t h, uint8_t seed);

// The items of one ZYL0 frame, each a body without its length word.
inline std::vector<std::vector<uint8_t>> Zyl0FrameItems(const zylTestMovieOptions& o,
                                                        uint32_t frame, bool key) {
  const uint32_t blocks = ((o.width + 15) / 16) * ((o.height + 15) / 16);
  SymbolWriter tree;
  std::vector<uint8_t> motion, fade;
  std::vector<uint32_t> colours, indices;
  uint32_t fadeCount = 0;
  auto colourBlock = [&](uint32_t k) {
    colours.push_back(uint32_t(o.seed * 977u + frame * 131u + k * 7919u) * 2654435761u);
    indices.push_back(uint32_t(o.seed + frame * 17u + k * 29u) * 2246822519u);
  };
  auto putMotion = [&]() {  // index 0, the vector (0,0)
    motion.push_back(0);
    if (o.wideMotion) motion.push_back(0);
  };
  auto fadeLevel = [&](uint8_t level) {
    if (fadeCount % 2 == 0) fade.push_back(0);
    fade.back() |= uint8_t((level & 15) << (4 * (fadeCount % 2)));
    ++fadeCount;
  };
  if (key && o.stillKeyFrames) {
    std::vector<std::vector<uint8_t>> items;
    items.push_back({uint8_t(kFrameFlagAlways | kFrameFlagImage | (o.sound ? kFrameFlagSound : 0))});
    items.push_back(StillImage((o.width + 15) & ~15u, (o.height + 15) & ~15u, uint8_t(o.seed + frame)));
    if (o.sound) items.push_back(std::vector<uint8_t>(7 + frame % 3, uint8_t(frame)));
    return items;
  }
  if (!key && o.tableFrames) {
    // Copies and whole colour blocks; the colour blocks come from a ring of 8 entries that
    // gets two new entries a frame.
    std::vector<uint32_t> picks;
    for (uint32_t k = 0; k < blocks; ++k) {
      if ((k + frame) % 2 == 0) {
        tree.Put(kSymbolCopy);
        putMotion();
      } else {
        tree.Put(kSymbolColour);
        picks.push_back((k + frame) % 8);
      }
    }
    std::vector<uint8_t> table(24);
    table[2] = 3;  // indexBits
    zycStore32(&table[4], 8 * 48);
    zycStore32(&table[12], uint32_t(picks.size()));
    zycStore32(&table[16], 2);
    uint32_t word = 0, used = 0;
    for (uint32_t pick : picks) {
      word |= pick << (29 - used);
      used += 3;
    }
    if (!picks.empty()) PutU32(&table, word);  // a single word holds up to ten indices
    zycStore32(&table[20], uint32_t(table.size()));
    for (int e = 0; e < 2; ++e) {
      const uint8_t entry[8] = {uint8_t(frame * 40 + e), uint8_t(0x80 + e), 0x10, 0x04,
                                0x1B, 0xE4, uint8_t(frame), 0x55};
      table.insert(table.end(), entry, entry + 8);
    }
    uint8_t flags = kFrameFlagAlways | kFrameFlagTable;
    if (!motion.empty()) flags |= kFrameFlagMotion;
    if (o.sound) flags |= kFrameFlagSound;
    std::vector<std::vector<uint8_t>> items;
    std::vector<uint8_t> treeItem = {flags};
    treeItem.insert(treeItem.end(), tree.bytes.begin(), tree.bytes.end());
    items.push_back(treeItem);
    if (!motion.empty()) items.push_back(motion);
    if (o.sound) items.push_back(std::vector<uint8_t>(5, uint8_t(frame)));
    items.push_back(table);
    return items;
  }
  for (uint32_t k = 0; k < blocks; ++k) {
    if (key) {
      tree.Put(kSymbolColour);
      colourBlock(k);
    } else if ((k + frame) % 2 == 0) {
      tree.Put(kSymbolCopy);
      putMotion();
    } else {
      // A split block: fade, colour, copy, and a split of 4 by 4 nodes of every symbol.
      tree.Put(kSymbolSplit);
      tree.Put(kSymbolFade);
      putMotion();
      fadeLevel(uint8_t(frame + k));
      tree.Put(kSymbolColour);
      colourBlock(k);
      tree.Put(kSymbolCopy);
      putMotion();
      tree.Put(kSymbolSplit);
      tree.Put(kSymbolCopy);
      putMotion();
      tree.Put(kSymbolSplit);  // leaves the pixels as they are
      tree.Put(kSymbolColour);
      colourBlock(k + 1000);
      tree.Put(kSymbolFade);
      putMotion();
      fadeLevel(uint8_t(15 - frame));
    }
  }
  uint8_t flags = kFrameFlagAlways;
  if (!motion.empty()) flags |= kFrameFlagMotion;
  if (!colours.empty()) flags |= kFrameFlagColour;
  if (o.sound) flags |= kFrameFlagSound;
  if (!fade.empty()) flags |= kFrameFlagFade;

  std::vector<std::vector<uint8_t>> items;
  std::vector<uint8_t> treeItem = {flags};
  treeItem.insert(treeItem.end(), tree.bytes.begin(), tree.bytes.end());
  items.push_back(treeItem);
  if (!motion.empty()) items.push_back(motion);
  if (!colours.empty()) {
    std::vector<uint8_t> c;
    for (uint32_t w : colours) PutU32(&c, w);
    for (uint32_t w : indices) PutU32(&c, w);
    items.push_back(c);
  }
  if (o.sound) {
    std::vector<uint8_t> s;
    const uint32_t n = 6 + frame % 5;
    for (uint32_t i = 0; i < n; ++i) s.push_back(uint8_t(frame * 3 + i));
    items.push_back(s);
  }
  if (!fade.empty()) items.push_back(fade);
  return items;
}

// Raw deflate of one section, every length word and every body flushed on its own, never
// finished.
inline std::vector<uint8_t> DeflateSection(const std::vector<std::vector<uint8_t>>& pieces) {
  z_stream z{};
  deflateInit2(&z, 9, Z_DEFLATED, -15, 9, Z_DEFAULT_STRATEGY);
  std::vector<uint8_t> out;
  uint8_t buffer[1 << 14];
  for (const auto& piece : pieces) {
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

inline std::vector<uint8_t> LzmaSection(const std::vector<uint8_t>& unpacked) {
  std::vector<uint8_t> out(13 + unpacked.size() * 2 + 1024);
  size_t packedSize = out.size() - 13;
  size_t propsSize = 5;
  LzmaCompress(out.data() + 13, &packedSize, unpacked.data(), unpacked.size(), out.data(),
               &propsSize, 1, 65536, 2, 0, 2, 8, 1);
  zycStore64(out.data() + 5, unpacked.size());
  out.resize(13 + packedSize);
  return out;
}

inline zycStreamHeader Zyl0Header(const zylTestMovieOptions& o) {
  zycStreamHeader h;
  h.magic = kMagicZyl0;
  h.version = o.version;
  h.flags = kHeaderFlagAlways | (o.sound ? kHeaderFlagSound : 0) |
            (o.wideMotion ? kHeaderFlagWideMotion : 0);
  h.frameDuration = o.frameDuration;
  h.timeScale = kTimeScale;
  h.width = o.width;
  h.height = o.height;
  h.soundRate = o.sound ? 22050 : 0;
  h.soundChannels = o.sound ? 1 : 0;
  h.soundChunkLimit = o.sound ? 900 : 0;
  h.reserved52 = kReserved52;
  if (!zycTailHoldsWords(o.version)) zycSetTailPacking(&h, o.packing, 0, 0);
  return h;
}

// A whole ZYL0 movie.
inline std::vector<uint8_t> Zyl0(const zylTestMovieOptions& o) {
  zycStreamHeader h = Zyl0Header(o);
  std::vector<uint8_t> body;
  uint32_t frame = 0;
  for (uint32_t frames : o.sections) {
    std::vector<std::vector<uint8_t>> pieces;
    std::vector<uint8_t> unpacked;
    for (uint32_t i = 0; i < frames; ++i, ++frame) {
      std::vector<std::vector<uint8_t>> items = Zyl0FrameItems(o, frame, i == 0);
      if (o.edit) o.edit(frame, &items);
      for (const auto& item : items) {
        std::vector<uint8_t> length;
        PutU32(&length, uint32_t(item.size()));
        pieces.push_back(length);
        pieces.push_back(item);
        unpacked.insert(unpacked.end(), length.begin(), length.end());
        unpacked.insert(unpacked.end(), item.begin(), item.end());
      }
    }
    const std::vector<uint8_t> packed =
        zycPacking(h) == kPackingLzma ? LzmaSection(unpacked) : DeflateSection(pieces);
    uint8_t sh[kSectionHeaderSizeZyl0];
    zycSectionHeader s;
    s.frames = frames;
    s.size = uint32_t(packed.size());
    zycStoreSectionZyl0(s, sh);
    body.insert(body.end(), sh, sh + sizeof sh);
    body.insert(body.end(), packed.begin(), packed.end());
  }
  if (o.sections.empty()) body.resize(kSectionHeaderSizeZyl0, 0);
  h.frameCount = frame;
  h.fileSize = uint32_t(kHeaderSizeZyl0 + body.size());
  std::vector<uint8_t> out(kHeaderSizeZyl0);
  zycStoreHeaderZyl0(h, out.data());
  out.insert(out.end(), body.begin(), body.end());
  return out;
}

// A still image of w x h pixels (the rounded picture size): 8 by 8 blocks alternating between
// a surface (1-bit index into two surfaces) and four codebook blocks (1-bit indices into two
// entries).
inline std::vector<uint8_t> StillImage(uint32_t w, uint32_t h, uint8_t seed) {
  std::vector<uint32_t> words;
  uint64_t acc = 0;
  uint32_t bits = 0;
  auto put = [&](uint32_t value, uint32_t n) {
    acc = acc << n | value;
    bits += n;
    if (bits >= 32) {
      bits -= 32;
      words.push_back(uint32_t(acc >> bits));
    }
  };
  uint32_t k = 0;
  for (uint32_t by = 0; by < h; by += 8) {
    for (uint32_t bx = 0; bx < w; bx += 8, ++k) {
      if ((k + seed) % 2) {
        put(1, 1);
        for (int q = 0; q < 4; ++q) put((k + q) & 1, 1);
      } else {
        put(0, 1);
        put(k % 3 == 0, 1);
      }
    }
  }
  if (bits) words.push_back(uint32_t(acc << (32 - bits)));

  std::vector<uint8_t> image(28);
  zycStore32(&image[0], kStillImageMagic);
  zycStore32(&image[4], 48 * 16);
  image[8] = 3;
  image[9] = 1;   // surfaceBits
  image[10] = 1;  // vqBits
  zycStore16(&image[12], uint16_t(w));
  zycStore16(&image[14], uint16_t(h));
  for (uint32_t word : words) PutU32(&image, word);
  zycStore32(&image[16], uint32_t(image.size()));
  for (int s = 0; s < 2; ++s) {
    for (int channel = 0; channel < 3; ++channel) {
      const int16_t k0 = int16_t(1000 + 900 * channel + 500 * s + 37 * seed);
      const int16_t coefficients[6] = {k0, int16_t(30 - 20 * s), int16_t(-25 + channel), 1, -1, 2};
      for (int16_t c : coefficients) {
        image.push_back(uint8_t(c));
        image.push_back(uint8_t(uint16_t(c) >> 8));
      }
    }
  }
  zycStore32(&image[20], 2);
  zycStore32(&image[24], uint32_t(image.size()));
  const uint8_t codebook[16] = {0x1F, 0xF8, 0xE0, 0x07, 0x1B, 0xE4, 0x1B, 0xE4,
                                uint8_t(0x10 + seed), 0x84, 0x00, 0x00, 0xFF, 0x00, 0xAA, 0x55};
  image.insert(image.end(), codebook, codebook + 16);
  return image;
}

// A whole ZYL1 movie: each section a still key frame followed by repeats, or by plane frames
// whose streams are filler bytes.
inline std::vector<uint8_t> Zyl1(const zylTestMovieOptions& o) {
  zycStreamHeader h;
  h.magic = kMagicZyl1;
  h.version = o.version;
  h.headerSize = kHeaderSizeZyl1;
  h.frameDuration = o.frameDuration;
  h.timeScale = kTimeScale;
  h.width = o.width;
  h.height = o.height;
  h.soundRate = o.sound ? 16000 : 0;
  h.soundChannels = o.sound ? 1 : 0;
  h.soundChunkLimit = o.sound ? 700 : 0;
  std::vector<uint8_t> body;
  uint32_t frame = 0;
  for (uint32_t frames : o.sections) {
    std::vector<uint8_t> records;
    for (uint32_t i = 0; i < frames; ++i, ++frame) {
      zycRecordContent c;
      std::vector<uint8_t> image, sound, y, u, v;
      if (i == 0) {
        image = StillImage((o.width + 7) & ~7u, (o.height + 7) & ~7u, uint8_t(o.seed + frame));
        c.first = image.data();
        c.firstSize = uint32_t(image.size());
      } else if (o.planeFrames) {
        y.assign(13 + frame, uint8_t(frame));
        u.assign(5, 0x55);
        v.assign(6, 0x66);
        c.first = y.data();
        c.firstSize = uint32_t(y.size());
        c.hasPlanes = true;
        c.plane2 = u.data();
        c.plane2Size = 5;
        c.plane3 = v.data();
        c.plane3Size = 6;
      } else {
        c.repeat = true;
      }
      if (o.sound) {
        sound.assign(5 + frame % 4, uint8_t(0xA0 + frame));
        c.hasSound = true;
        c.sound = sound.data();
        c.soundSize = uint32_t(sound.size());
      }
      zycAppendRecord(c, &records);
    }
    zycSectionHeader s;
    s.keyType = 0;
    s.frames = frames;
    s.size = uint32_t(records.size());
    uint8_t sh[kSectionHeaderSizeZyl1];
    zycStoreSectionZyl1(s, sh);
    body.insert(body.end(), sh, sh + sizeof sh);
    body.insert(body.end(), records.begin(), records.end());
  }
  h.frameCount = frame;
  h.fileSize = uint32_t(kHeaderSizeZyl1 + body.size());
  std::vector<uint8_t> out(kHeaderSizeZyl1);
  zycStoreHeaderZyl1(h, out.data());
  out.insert(out.end(), body.begin(), body.end());
  return out;
}

inline bool WriteFile(const std::string& path, const std::vector<uint8_t>& bytes) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return false;
  const bool ok =
      bytes.empty() || std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  return std::fclose(f) == 0 && ok;
}

inline std::vector<uint8_t> ReadFile(const std::string& path) {
  std::vector<uint8_t> bytes;
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return bytes;
  uint8_t buffer[4096];
  size_t got;
  while ((got = std::fread(buffer, 1, sizeof buffer, f)) > 0) bytes.insert(bytes.end(), buffer, buffer + got);
  std::fclose(f);
  return bytes;
}

}  // namespace zylTestMovie

// The walk of the block decoder: one template, parameterised by the bytes of a pixel (4, 3 or
// 2), by where colour blocks come from, and by the kernel set that copies, fades and paints
// 32-bit squares. The block tree is unrolled at compile time, 16 then 8 then 4. Each kernel
// set is built in a file of its own (the AVX2 one under that target), so this header is made
// for inclusion in those files only and keeps everything in an unnamed namespace.
#pragma once

#include <bit>
#include <cstddef>
#include <cstring>

#include "base/byteIo.h"
#include "stream/zycDecoder.h"

static_assert(std::endian::native == std::endian::little, "pixels are stored little-endian");

namespace {

enum class BlockSource { dxt1, table };

// Writes the low `kBytes` bytes of a pixel value.
template <int kBytes>
inline void putPixel(uint8_t* p, uint32_t value) {
  std::memcpy(p, &value, kBytes);
}

template <int kBytes>
inline uint32_t getPixel(const uint8_t* p) {
  uint32_t value = 0;
  std::memcpy(&value, p, kBytes);
  return value;
}

// Fields of an R5G6B5 word expanded to 8 bits.
inline uint32_t lowField8(uint32_t c) {
  uint32_t x = (c & 31) << 3;
  return x | (x >> 5);
}
inline uint32_t middleField8(uint32_t c) {
  uint32_t x = (c & 0x7E0) >> 3;
  return x | (x >> 6);
}
inline uint32_t highField8(uint32_t c) {
  uint32_t x = (c & 0xF800) >> 8;
  return x | (x >> 5);
}

// Palette entries as three 8-bit fields each: [entry][0 low, 1 middle, 2 high].
inline void palette8(const zycFrameDecoder& d, uint32_t color0, uint32_t color1,
                     uint32_t out[4][3]) {
  const uint32_t a[3] = {lowField8(color0), middleField8(color0), highField8(color0)};
  const uint32_t b[3] = {lowField8(color1), middleField8(color1), highField8(color1)};
  for (int f = 0; f < 3; ++f) {
    out[0][f] = a[f];
    out[1][f] = b[f];
    if (color0 <= color1) {
      out[2][f] = (a[f] + b[f]) >> 1;
      out[3][f] = 0;
    } else {
      out[2][f] = d.thirds[2 * a[f] + b[f]];
      out[3][f] = d.thirds[a[f] + 2 * b[f]];
    }
  }
}

// The palette of YUV colour words, converted to 32-bit pixel words.
inline void paletteYuv32(const zycFrameDecoder& d, uint32_t color0, uint32_t color1,
                         uint32_t palette[4]) {
  uint32_t f[4][3];
  palette8(d, color0, color1, f);
  const uint8_t* clamp = d.clampTable + kClampBias;
  for (int e = 0; e < 4; ++e) {
    const uint32_t cb = f[e][0], y = f[e][1], cr = f[e][2];
    const int32_t t = d.Ytable[y];
    palette[e] = uint32_t(clamp[t + d.CrToR[cr]]) << 16 |
                 uint32_t(clamp[t + d.CrToG[cr] + d.CbToG[cb]]) << 8 | clamp[t + d.CbToB[cb]];
  }
}

// The palette as 32-bit pixel words.
[[gnu::always_inline]] inline void palette32(const zycFrameDecoder& d, uint32_t color0,
                                             uint32_t color1, uint32_t palette[4]) {
  if (d.yuv) {
    paletteYuv32(d, color0, color1, palette);
    return;
  }
  const uint32_t a0 = lowField8(color0), a1 = middleField8(color0), a2 = highField8(color0);
  const uint32_t b0 = lowField8(color1), b1 = middleField8(color1), b2 = highField8(color1);
  const uint32_t p0 = a0 | a1 << 8 | a2 << 16;
  const uint32_t p1 = b0 | b1 << 8 | b2 << 16;
  palette[0] = p0;
  palette[1] = p1;
  // Both modes are worked out and one is picked without a branch: which one a block takes
  // is as good as random.
  const uint32_t half = (p0 & p1) + (((p0 ^ p1) & 0xFEFEFEu) >> 1);  // per byte (a + b) >> 1
  const uint8_t* thirds = d.thirds;
  const uint32_t near0 = thirds[2 * a0 + b0] | uint32_t(thirds[2 * a1 + b1]) << 8 |
                         uint32_t(thirds[2 * a2 + b2]) << 16;
  const uint32_t near1 = thirds[a0 + 2 * b0] | uint32_t(thirds[a1 + 2 * b1]) << 8 |
                         uint32_t(thirds[a2 + 2 * b2]) << 16;
  const uint32_t fourColours = 0u - uint32_t(color0 > color1);
  palette[2] = (near0 & fourColours) | (half & ~fourColours);
  palette[3] = near1 & fourColours;
}

// The palette in the pixel form of the routine: pixel words for 4 and 3 bytes, R5G6B5 words
// for 2 bytes.
template <int kBytes>
[[gnu::always_inline]] inline void buildPalette(const zycFrameDecoder& d, uint32_t color0,
                                                uint32_t color1, uint32_t pal[4]) {
  if constexpr (kBytes == 2) {
    if (d.yuv) {
      uint32_t f[4][3];
      palette8(d, color0, color1, f);
      const uint32_t* clamp = d.clamp565 + kClampBias;
      for (int e = 0; e < 4; ++e) {
        const uint32_t cb = f[e][0], y = f[e][1], cr = f[e][2];
        const int32_t t = d.Ytable[y];
        pal[e] = (clamp[t + d.CrToR[cr]] & 0xF800) |
                 (clamp[t + d.CrToG[cr] + d.CbToG[cb]] & 0x7E0) | (clamp[t + d.CbToB[cb]] & 0x1F);
      }
      return;
    }
    pal[0] = color0;
    pal[1] = color1;
    const uint32_t a0 = color0 & 31, a1 = (color0 >> 5) & 63, a2 = color0 >> 11;
    const uint32_t b0 = color1 & 31, b1 = (color1 >> 5) & 63, b2 = color1 >> 11;
    if (color0 <= color1) {
      pal[2] = ((a0 + b0) >> 1) | ((a1 + b1) & ~1u) * 16 | ((a2 + b2) & ~1u) * 1024;
      pal[3] = 0;
    } else {
      pal[2] = d.thirds[2 * a0 + b0] | uint32_t(d.thirds[2 * a1 + b1]) << 5 |
               uint32_t(d.thirds[2 * a2 + b2]) << 11;
      pal[3] = d.thirds[a0 + 2 * b0] | uint32_t(d.thirds[a1 + 2 * b1]) << 5 |
               uint32_t(d.thirds[a2 + 2 * b2]) << 11;
    }
  } else {
    palette32(d, color0, color1, pal);
  }
}

// `Kernels` copies, fades and paints the squares of 32-bit pixels:
//   template <int kSize> static void Copy(const uint8_t* from, uint8_t* to, ptrdiff_t stride);
//   static constexpr bool kFades;  // true: it has
//   template <int kSize> static void Fade(const uint8_t* from, uint8_t* to, ptrdiff_t stride,
//                                         uint32_t level);
//   static constexpr bool kColourBlocks;  // true: it has
//   template <int kSize> static void ColourBlock(const uint32_t palette[4], uint32_t index,
//                                                uint8_t* to, ptrdiff_t stride);
// Squares of 3 and 2-byte pixels, and what a set has not, go through the plain loops and
// the tables.
template <int kBytes, BlockSource kSource, class Kernels>
class TreeWalk {
 public:
  explicit TreeWalk(zycFrameDecoder& d)
      : d_(d),
        stride_(ptrdiff_t(d.width) * kBytes),
        tree_(d.treeStream),
        treeBits_(d.treeBits),
        treeByte_(d.treeBits != 0 ? *d.treeStream : 0),
        motion_(d.motionStream),
        colour_(d.colourStream),
        index_(d.indexStream),
        fade_(d.fadeStream),
        fadeHalf_(d.fadeHalf),
        table_(d.tableStream) {}

  void Run() {
    zycFrameDecoder& d = d_;
    if (*d.stateWord & 2) {
      *d.stateWord = 0;
    } else {
      d.resumeRow = 0;
    }
    uint8_t* src = d.src;
    uint8_t* dst = d.dst;
    const ptrdiff_t step = 16 * kBytes;
    for (uint32_t y = d.resumeRow; y < d.height; y += 16) {
      if (*d.stopWord & d.stopMask) {
        *d.stateWord = 2;
        d.resumeRow = y;
        d.src = src;
        d.dst = dst;
        Save();
        return;
      }
      for (uint32_t x = 0; x < d.width; x += 16) {
        Prefetch(src + kAhead, dst + kAhead);
        Node<16>(src, dst);
        src += step;
        dst += step;
      }
      src += 15 * stride_;
      dst += 15 * stride_;
    }
    d.src = src;
    d.dst = dst;
    Save();
  }

 private:
  void Save() {
    if (treeBits_ != 0) *tree_ = uint8_t(treeByte_);
    d_.treeStream = tree_;
    d_.treeBits = treeBits_;
    d_.motionStream = motion_;
    d_.colourStream = colour_;
    d_.indexStream = index_;
    d_.fadeStream = fade_;
    d_.fadeHalf = fadeHalf_;
    d_.tableStream = table_;
  }

  // The block rows are read and written 16 lines at a time; touching the lines a few blocks
  // ahead keeps them in cache. Only a hint: prefetching past the picture is harmless.
  static constexpr ptrdiff_t kAhead = 4 * 16 * kBytes;

  void Prefetch(const uint8_t* src, const uint8_t* dst) const {
    for (int row = 0; row < 16; ++row) {
      __builtin_prefetch(src + row * stride_, 0);
      __builtin_prefetch(dst + row * stride_, 1);
    }
  }

  // Takes the two low bits of the tree byte and shifts the byte in place. The byte is kept
  // in a register while its symbols are taken and stored as it stands when it is left (or
  // the walk stops), so the buffer ends as if it had been shifted in place at every symbol.
  uint32_t Symbol() {
    if (treeBits_ == 0) treeByte_ = *tree_;
    const uint32_t symbol = treeByte_ & 3;
    if (++treeBits_ != 4) {
      treeByte_ >>= 2;
    } else {
      *tree_++ = uint8_t(treeByte_);
      treeBits_ = 0;
    }
    return symbol;
  }

  ptrdiff_t MotionOffset() {
    uint32_t index;
    if (d_.smallMotion) {
      index = *motion_;
      motion_ += 1;
    } else {
      index = zycLoad16(motion_);
      motion_ += 2;
    }
    return ptrdiff_t(d_.motionOffset[index]) * kBytes;
  }

  uint32_t FadeLevel() {
    if (fadeHalf_ == 0) {
      fadeHalf_ = 1;
      return *fade_ & 15;
    }
    fadeHalf_ = 0;
    return *fade_++ >> 4;
  }

  // A square copied by whole rows.
  template <int kSize>
  void Copy(const uint8_t* from, uint8_t* to) {
    if constexpr (kBytes == 4) {
      Kernels::template Copy<kSize>(from, to, stride_);
    } else {
      for (int row = 0; row < kSize; ++row) {
        std::memcpy(to, from, kSize * kBytes);
        from += stride_;
        to += stride_;
      }
    }
  }

  // The tone curve of a level as pixel words already at the place of each field, made when
  // the frame first uses the level.
  const uint32_t (&FadeWords(uint32_t level))[3][256] {
    if (!(fadeWordsMade_ & (1u << level))) {
      const uint8_t* tone = d_.tone8[level];
      for (int v = 0; v < 256; ++v) {
        fadeWords_[level][0][v] = tone[v];
        fadeWords_[level][1][v] = uint32_t(tone[v]) << 8;
        fadeWords_[level][2][v] = uint32_t(tone[v]) << 16;
      }
      fadeWordsMade_ |= 1u << level;
    }
    return fadeWords_[level];
  }

  template <int kSize>
  void Fade(const uint8_t* from, uint8_t* to, uint32_t level) {
    if constexpr (kBytes == 4 && Kernels::kFades) {
      Kernels::template Fade<kSize>(from, to, stride_, level);
    } else if constexpr (kBytes == 4) {
      const uint32_t(&words)[3][256] = FadeWords(level);
      for (int row = 0; row < kSize; ++row) {
        for (int i = 0; i < kSize; ++i) {
          const uint32_t p = getPixel<4>(from + 4 * i);
          putPixel<4>(to + 4 * i,
                      words[0][p & 255] | words[1][(p >> 8) & 255] | words[2][(p >> 16) & 255]);
        }
        from += stride_;
        to += stride_;
      }
    } else if constexpr (kBytes == 3) {
      const uint8_t* tone = d_.tone8[level];
      for (int row = 0; row < kSize; ++row) {
        for (int i = 0; i < 3 * kSize; ++i) to[i] = tone[from[i]];
        from += stride_;
        to += stride_;
      }
    } else {
      const uint8_t* tone5 = d_.tone5[level];
      const uint32_t* tone6 = d_.tone6[level];
      for (int row = 0; row < kSize; ++row) {
        for (int i = 0; i < kSize; ++i) {
          const uint32_t p = getPixel<2>(from + 2 * i);
          putPixel<2>(to + 2 * i,
                      tone5[p & 31] | uint32_t(tone5[p >> 11]) << 11 | tone6[(p >> 5) & 63]);
        }
        from += stride_;
        to += stride_;
      }
    }
  }

  // Writes 16 pixel values, each magnified to a kSize / 4 square.
  template <int kSize>
  void PutBlock(const uint32_t pixels[16], uint8_t* to) {
    constexpr int kScale = kSize / 4;
    for (int row = 0; row < 4; ++row) {
      uint8_t line[kSize * kBytes];
      for (int col = 0; col < 4; ++col) {
        for (int k = 0; k < kScale; ++k)
          putPixel<kBytes>(line + (col * kScale + k) * kBytes, pixels[row * 4 + col]);
      }
      for (int k = 0; k < kScale; ++k) {
        std::memcpy(to, line, sizeof line);
        to += stride_;
      }
    }
  }

  template <int kSize>
  void ColourBlock(uint8_t* to) {
    uint32_t pixels[16];
    if constexpr (kSource == BlockSource::dxt1) {
      const uint32_t colour = zycLoad32(colour_);
      uint32_t index = zycLoad32(index_);
      colour_ += 4;
      index_ += 4;
      uint32_t pal[4];
      buildPalette<kBytes>(d_, colour & 0xFFFF, colour >> 16, pal);
      if constexpr (kBytes == 4 && Kernels::kColourBlocks) {
        Kernels::template ColourBlock<kSize>(pal, index, to, stride_);
        return;
      }
      for (int i = 0; i < 16; ++i) {
        pixels[i] = pal[index & 3];
        index >>= 2;
      }
    } else {
      for (int i = 0; i < 16; ++i) pixels[i] = getPixel<kBytes>(table_ + i * kBytes);
      table_ += 16 * kBytes;
    }
    PutBlock<kSize>(pixels, to);
  }

  template <int kSize>
  void Node(uint8_t* src, uint8_t* dst) {
    switch (Symbol()) {
      case 0:
        Copy<kSize>(src + MotionOffset(), dst);
        break;
      case 1:
        if constexpr (kSize > 4) {
          constexpr int kHalf = kSize / 2;
          const ptrdiff_t right = kHalf * kBytes;
          const ptrdiff_t down = kHalf * stride_;
          Node<kHalf>(src, dst);
          Node<kHalf>(src + right, dst + right);
          Node<kHalf>(src + down, dst + down);
          Node<kHalf>(src + down + right, dst + down + right);
        }
        break;
      case 2:
        ColourBlock<kSize>(dst);
        break;
      default: {
        const ptrdiff_t offset = MotionOffset();
        Fade<kSize>(src + offset, dst, FadeLevel());
        break;
      }
    }
  }

  zycFrameDecoder& d_;
  const ptrdiff_t stride_;
  uint8_t* tree_;
  uint32_t treeBits_;
  uint32_t treeByte_;  // the current tree byte, shifted by the symbols already taken
  const uint8_t* motion_;
  const uint8_t* colour_;
  const uint8_t* index_;
  const uint8_t* fade_;
  uint32_t fadeHalf_;
  const uint8_t* table_;
  uint32_t fadeWordsMade_ = 0;
  uint32_t fadeWords_[kBytes == 4 && !Kernels::kFades ? 16 : 1][3][256];
};

}  // namespace

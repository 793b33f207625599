// The block decoder. One template, parameterised by the bytes of a pixel (4, 3 or 2) and by
// where colour blocks come from, instantiated into the six routines. The block tree is
// unrolled at compile time, 16 then 8 then 4. Pixels go through tables, except the fades of
// 32-bit pixels, which SSE2 computes exactly (the plain table version stays, `plainFades`).
#include "stream/blockDecoder.h"

#include <bit>
#include <cstddef>
#include <cstring>

#if !defined(ZYL_NO_SIMD) && (defined(__SSE2__) || defined(__x86_64__))
#include <emmintrin.h>
#define ZYC_FADE_SSE2 1
#endif

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
void paletteYuv32(const zycFrameDecoder& d, uint32_t color0, uint32_t color1, uint32_t palette[4]) {
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
void buildPalette(const zycFrameDecoder& d, uint32_t color0, uint32_t color1, uint32_t pal[4]) {
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

template <int kBytes, BlockSource kSource>
class TreeWalk {
 public:
  explicit TreeWalk(zycFrameDecoder& d)
      : d_(d),
        stride_(ptrdiff_t(d.width) * kBytes),
        tree_(d.treeStream),
        treeBits_(d.treeBits),
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

  // Takes the two low bits of the tree byte and shifts the byte in place.
  uint32_t Symbol() {
    const uint32_t symbol = *tree_ & 3;
    if (++treeBits_ != 4) {
      *tree_ = uint8_t(*tree_ >> 2);
    } else {
      ++tree_;
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

  template <int kSize>
  void Copy(const uint8_t* from, uint8_t* to) {
    for (int row = 0; row < kSize; ++row) {
      std::memcpy(to, from, kSize * kBytes);
      from += stride_;
      to += stride_;
    }
  }

#ifdef ZYC_FADE_SSE2
  // The tone curve computed instead of looked up, four pixels at a time. Level 8 and up:
  // v + (255 - v) x (level - 7) / 20; below: v - v x (8 - level) / 20, both rounded down. The
  // products stay below 2048, where the high half of x times 3277 is x / 20 rounded down; the
  // top byte comes out 0 as from the tables.
  template <int kSize>
  void FadeSse2(const uint8_t* from, uint8_t* to, uint32_t level) {
    // 255 - v is v ^ 255; the part is added as it is (lighter) or negated (darker).
    const bool lighter = level >= 8;
    const __m128i k = _mm_set1_epi16(int16_t(lighter ? level - 7 : 8 - level));
    const __m128i flip = _mm_set1_epi16(lighter ? 255 : 0);
    const __m128i negate = _mm_set1_epi16(lighter ? 0 : -1);
    const __m128i fifth = _mm_set1_epi16(3277);
    const __m128i zero = _mm_setzero_si128();
    const __m128i keep = _mm_set1_epi32(0x00FFFFFF);
    auto tone = [&](__m128i v) {
      const __m128i part =
          _mm_mulhi_epu16(_mm_mullo_epi16(_mm_xor_si128(v, flip), k), fifth);
      return _mm_add_epi16(v, _mm_sub_epi16(_mm_xor_si128(part, negate), negate));
    };
    for (int row = 0; row < kSize; ++row) {
      for (int i = 0; i < kSize; i += 4) {
        const __m128i p = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + 4 * i));
        const __m128i out = _mm_packus_epi16(tone(_mm_unpacklo_epi8(p, zero)),
                                             tone(_mm_unpackhi_epi8(p, zero)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to + 4 * i), _mm_and_si128(out, keep));
      }
      from += stride_;
      to += stride_;
    }
  }
#endif

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
    if constexpr (kBytes == 4) {
#ifdef ZYC_FADE_SSE2
      if (!d_.plainFades) {
        FadeSse2<kSize>(from, to, level);
        return;
      }
#endif
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
  const uint8_t* motion_;
  const uint8_t* colour_;
  const uint8_t* index_;
  const uint8_t* fade_;
  uint32_t fadeHalf_;
  const uint8_t* table_;
  uint32_t fadeWordsMade_ = 0;
  uint32_t fadeWords_[kBytes == 4 ? 16 : 1][3][256];
};

// The diagnostic view of the 32-bit DXT1 routine: paints each node by its symbol and size.
class TreePainter {
 public:
  explicit TreePainter(zycFrameDecoder& d) : d_(d), stride_(d.width) {}

  void Run() {
    uint32_t* dst = reinterpret_cast<uint32_t*>(d_.dst);
    for (uint32_t y = 0; y < d_.height; y += 16) {
      for (uint32_t x = 0; x < d_.width; x += 16) Paint(dst + x, 16, true);
      dst += 16 * size_t(stride_);
    }
  }

 private:
  uint32_t Symbol() {
    const uint32_t symbol = *d_.treeStream & 3;
    if (++d_.treeBits != 4) {
      *d_.treeStream = uint8_t(*d_.treeStream >> 2);
    } else {
      ++d_.treeStream;
      d_.treeBits = 0;
    }
    return symbol;
  }

  void Fill(uint32_t* to, uint32_t size, uint32_t value) {
    for (uint32_t row = 0; row < size; ++row)
      for (uint32_t i = 0; i < size; ++i) to[row * size_t(stride_) + i] = value;
  }

  static uint32_t Shade(uint32_t size, uint32_t v16, uint32_t v8, uint32_t v4) {
    return size == 16 ? v16 : size == 8 ? v8 : size == 4 ? v4 : 0;
  }

  // Quadrants below size 4 read no symbol, as the tree holds none there, and paint 0.
  void Paint(uint32_t* to, uint32_t size, bool readsSymbol) {
    if (!readsSymbol) {
      Fill(to, size, 0);
      return;
    }
    switch (Symbol()) {
      case 0:
        Fill(to, size, Shade(size, 255, 191, 127));
        break;
      case 1: {
        const uint32_t half = size / 2;
        const bool below = half >= 4;
        Paint(to, half, below);
        Paint(to + half, half, below);
        Paint(to + half * size_t(stride_), half, below);
        Paint(to + half * size_t(stride_) + half, half, below);
        break;
      }
      case 2:
        Fill(to, size, Shade(size, 0xFF0000, 0xBF0000, 0x7F0000));
        break;
      default:
        Fill(to, size, 0);
        break;
    }
  }

  zycFrameDecoder& d_;
  uint32_t stride_;
};

}  // namespace

void zycDxt1Palette32(const zycFrameDecoder& d, uint32_t color0, uint32_t color1,
                      uint32_t palette[4]) {
  palette32(d, color0, color1, palette);
}

void zycDecodeBlocksDxt32(zycFrameDecoder& decoder) {
  if (decoder.treeView) {
    TreePainter(decoder).Run();
    return;
  }
  TreeWalk<4, BlockSource::dxt1>(decoder).Run();
}
void zycDecodeBlocksDxt24(zycFrameDecoder& decoder) {
  TreeWalk<3, BlockSource::dxt1>(decoder).Run();
}
void zycDecodeBlocksDxt16(zycFrameDecoder& decoder) {
  TreeWalk<2, BlockSource::dxt1>(decoder).Run();
}
void zycDecodeBlocksTable32(zycFrameDecoder& decoder) {
  TreeWalk<4, BlockSource::table>(decoder).Run();
}
void zycDecodeBlocksTable24(zycFrameDecoder& decoder) {
  TreeWalk<3, BlockSource::table>(decoder).Run();
}
void zycDecodeBlocksTable16(zycFrameDecoder& decoder) {
  TreeWalk<2, BlockSource::table>(decoder).Run();
}

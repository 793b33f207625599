// The block decoder's six routines and its kernel sets for 32-bit pixels: the plain one (row
// copies and tone tables) and SSE2 (fades computed, four pixels a vector). The AVX2 set is in
// blockDecoder_avx2.cpp. All of them give the same pictures.
#include "stream/blockDecoder.h"

#include <cstddef>
#include <cstring>

#if !defined(ZYL_NO_SIMD) && (defined(__SSE2__) || defined(__x86_64__))
#include <emmintrin.h>
#define ZYC_BLOCK_SSE2 1
#endif

#include "base/cpuFeatures.h"
#include "stream/blockTreeWalk.h"

namespace {

// Whole rows of a square, each one move of kSize x 4 bytes.
template <int kSize>
inline void CopyRows(const uint8_t* from, uint8_t* to, ptrdiff_t stride) {
  for (int row = 0; row < kSize; ++row) {
    std::memcpy(to, from, kSize * 4);
    from += stride;
    to += stride;
  }
}

struct PlainKernels {
  template <int kSize>
  static void Copy(const uint8_t* from, uint8_t* to, ptrdiff_t stride) {
    CopyRows<kSize>(from, to, stride);
  }
  static constexpr bool kFades = false;
  template <int kSize>
  static void Fade(const uint8_t*, uint8_t*, ptrdiff_t, uint32_t) {}
  static constexpr bool kColourBlocks = false;
  template <int kSize>
  static void ColourBlock(const uint32_t*, uint32_t, uint8_t*, ptrdiff_t) {}
};

#ifdef ZYC_BLOCK_SSE2
// The tone curve computed instead of looked up. Level 8 and up: v + (255 - v) x k / 20 with
// k = level - 7; below: v - v x k / 20 with k = 8 - level; both rounded down. With u = v for
// darker and u = 255 - v for lighter (v ^ 255), both are u - u x k / 20, flipped back for
// lighter. u x k stays below 2048, where the high half of u times k x 3277 is u x k / 20
// rounded down. The bytes of a vector are worked as the even and the odd ones in 16-bit
// lanes; the top byte comes out 0 as from the tables.
struct FadeSse2 {
  __m128i flip, factor, low, keep;

  explicit FadeSse2(uint32_t level)
      : flip(_mm_set1_epi8(level >= 8 ? char(-1) : 0)),
        factor(_mm_set1_epi16(int16_t(3277 * (level >= 8 ? level - 7 : 8 - level)))),
        low(_mm_set1_epi16(0x00FF)),
        keep(_mm_set1_epi32(0x00FFFFFF)) {}

  __m128i Tone(__m128i p) const {
    const __m128i u = _mm_xor_si128(p, flip);
    const __m128i even = _mm_and_si128(u, low);
    const __m128i odd = _mm_srli_epi16(u, 8);
    const __m128i a = _mm_sub_epi16(even, _mm_mulhi_epu16(even, factor));
    const __m128i b = _mm_sub_epi16(odd, _mm_mulhi_epu16(odd, factor));
    return _mm_and_si128(_mm_xor_si128(_mm_or_si128(a, _mm_slli_epi16(b, 8)), flip), keep);
  }
};

struct Sse2Kernels {
  template <int kSize>
  static void Copy(const uint8_t* from, uint8_t* to, ptrdiff_t stride) {
    CopyRows<kSize>(from, to, stride);
  }
  static constexpr bool kFades = true;
  template <int kSize>
  static void Fade(const uint8_t* from, uint8_t* to, ptrdiff_t stride, uint32_t level) {
    const FadeSse2 fade(level);
    for (int row = 0; row < kSize; ++row) {
      for (int i = 0; i < 4 * kSize; i += 16) {
        const __m128i p = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from + i));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to + i), fade.Tone(p));
      }
      from += stride;
      to += stride;
    }
  }
  static constexpr bool kColourBlocks = false;
  template <int kSize>
  static void ColourBlock(const uint32_t*, uint32_t, uint8_t*, ptrdiff_t) {}
};
#endif

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

// The 32-bit routines by the state's kernel set; a set this build lacks falls back to the
// next one below.
template <BlockSource kSource>
void Decode32(zycFrameDecoder& decoder) {
  switch (decoder.kernels) {
    case kBlockKernelsAvx2:
      if (zycDecodeBlocks32Avx2(decoder, kSource == BlockSource::table)) return;
      [[fallthrough]];
    case kBlockKernelsSse2:
#ifdef ZYC_BLOCK_SSE2
      TreeWalk<4, kSource, Sse2Kernels>(decoder).Run();
      return;
#endif
    default:
      TreeWalk<4, kSource, PlainKernels>(decoder).Run();
      return;
  }
}

}  // namespace

uint8_t zycBestBlockKernels() {
#ifdef ZYC_BLOCK_SSE2
  if (zycCpuHasAvx2() && zycHasBlockKernelsAvx2()) return kBlockKernelsAvx2;
  return kBlockKernelsSse2;
#else
  return kBlockKernelsPlain;
#endif
}

void zycDxt1Palette32(const zycFrameDecoder& d, uint32_t color0, uint32_t color1,
                      uint32_t palette[4]) {
  palette32(d, color0, color1, palette);
}

void zycDecodeBlocksDxt32(zycFrameDecoder& decoder) {
  if (decoder.treeView) {
    TreePainter(decoder).Run();
    return;
  }
  Decode32<BlockSource::dxt1>(decoder);
}
void zycDecodeBlocksDxt24(zycFrameDecoder& decoder) {
  TreeWalk<3, BlockSource::dxt1, PlainKernels>(decoder).Run();
}
void zycDecodeBlocksDxt16(zycFrameDecoder& decoder) {
  TreeWalk<2, BlockSource::dxt1, PlainKernels>(decoder).Run();
}
void zycDecodeBlocksTable32(zycFrameDecoder& decoder) { Decode32<BlockSource::table>(decoder); }
void zycDecodeBlocksTable24(zycFrameDecoder& decoder) {
  TreeWalk<3, BlockSource::table, PlainKernels>(decoder).Run();
}
void zycDecodeBlocksTable16(zycFrameDecoder& decoder) {
  TreeWalk<2, BlockSource::table, PlainKernels>(decoder).Run();
}

// The AVX2 kernel set of the 32-bit block routines: rows of 16 and 8 pixels copied as 32-byte
// moves, fades computed eight pixels a vector (four for squares of 4) in the same exact
// integer form as the SSE2 set, colour blocks picked from their palette eight pixels at once.
// The walk is built here under the AVX2 target; everything it includes from elsewhere is
// included first, so that no shared inline function is made for that target. Only called
// when the processor has AVX2.
#include "stream/blockDecoder.h"

#if !defined(ZYL_NO_SIMD) && defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>

#include <bit>
#include <cstddef>
#include <cstring>

#include "base/byteIo.h"
#include "stream/zycDecoder.h"

#if defined(__clang__)
#pragma clang attribute push(__attribute__((target("avx2"))), apply_to = function)
#else
#pragma GCC push_options
#pragma GCC target("avx2")
#endif

#include "stream/blockTreeWalk.h"

namespace {

// The tone curve of blockDecoder.cpp's SSE2 set: u = v, or 255 - v for the lighter levels;
// u - u x k / 20 through the high half of u times k x 3277; flipped back; top byte 0.
struct FadeAvx2 {
  __m256i flip, factor, low, keep;

  explicit FadeAvx2(uint32_t level)
      : flip(_mm256_set1_epi8(level >= 8 ? char(-1) : 0)),
        factor(_mm256_set1_epi16(int16_t(3277 * (level >= 8 ? level - 7 : 8 - level)))),
        low(_mm256_set1_epi16(0x00FF)),
        keep(_mm256_set1_epi32(0x00FFFFFF)) {}

  __m256i Tone(__m256i p) const {
    const __m256i u = _mm256_xor_si256(p, flip);
    const __m256i even = _mm256_and_si256(u, low);
    const __m256i odd = _mm256_srli_epi16(u, 8);
    const __m256i a = _mm256_sub_epi16(even, _mm256_mulhi_epu16(even, factor));
    const __m256i b = _mm256_sub_epi16(odd, _mm256_mulhi_epu16(odd, factor));
    return _mm256_and_si256(_mm256_xor_si256(_mm256_or_si256(a, _mm256_slli_epi16(b, 8)), flip),
                            keep);
  }
  __m128i Tone(__m128i p) const {
    const __m128i u = _mm_xor_si128(p, _mm256_castsi256_si128(flip));
    const __m128i k = _mm256_castsi256_si128(factor);
    const __m128i even = _mm_and_si128(u, _mm256_castsi256_si128(low));
    const __m128i odd = _mm_srli_epi16(u, 8);
    const __m128i a = _mm_sub_epi16(even, _mm_mulhi_epu16(even, k));
    const __m128i b = _mm_sub_epi16(odd, _mm_mulhi_epu16(odd, k));
    return _mm_and_si128(
        _mm_xor_si128(_mm_or_si128(a, _mm_slli_epi16(b, 8)), _mm256_castsi256_si128(flip)),
        _mm256_castsi256_si128(keep));
  }
};

struct Avx2Kernels {
  // A whole row at a time: one 32-byte move for 8 pixels, two for 16, one 16-byte for 4.
  template <int kSize>
  static void Copy(const uint8_t* from, uint8_t* to, ptrdiff_t stride) {
#pragma GCC unroll 16
    for (int row = 0; row < kSize; ++row) {
      if constexpr (kSize == 4) {
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to),
                         _mm_loadu_si128(reinterpret_cast<const __m128i*>(from)));
      } else {
        for (int i = 0; i < 4 * kSize; i += 32) {
          _mm256_storeu_si256(reinterpret_cast<__m256i*>(to + i),
                              _mm256_loadu_si256(reinterpret_cast<const __m256i*>(from + i)));
        }
      }
      from += stride;
      to += stride;
    }
  }
  static constexpr bool kFades = true;
  template <int kSize>
  static void Fade(const uint8_t* from, uint8_t* to, ptrdiff_t stride, uint32_t level) {
    const FadeAvx2 fade(level);
    for (int row = 0; row < kSize; ++row) {
      if constexpr (kSize == 4) {
        const __m128i p = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to), fade.Tone(p));
      } else {
        for (int i = 0; i < 4 * kSize; i += 32) {
          const __m256i p = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(from + i));
          _mm256_storeu_si256(reinterpret_cast<__m256i*>(to + i), fade.Tone(p));
        }
      }
      from += stride;
      to += stride;
    }
  }

  // The palette sits twice in a vector, so that the lane index taken from the index word
  // needs no mask: its third bit, the next pixel's, picks the same entry in the other copy.
  // Pixel c of a row of the square is source pixel c / (kSize / 4) of its row.
  static constexpr bool kColourBlocks = true;
  template <int kSize>
  static void ColourBlock(const uint32_t palette[4], uint32_t index, uint8_t* to,
                          ptrdiff_t stride) {
    const __m256i entries = _mm256_broadcastsi128_si256(
        _mm_setr_epi32(int(palette[0]), int(palette[1]), int(palette[2]), int(palette[3])));
    auto pick = [&](uint32_t word, __m256i shifts) {
      return _mm256_permutevar8x32_epi32(entries,
                                         _mm256_srlv_epi32(_mm256_set1_epi32(int(word)), shifts));
    };
    auto store = [&](uint8_t* at, __m128i v) {
      _mm_storeu_si128(reinterpret_cast<__m128i*>(at), v);
    };
    if constexpr (kSize == 4) {
      const __m256i shifts = _mm256_setr_epi32(0, 2, 4, 6, 8, 10, 12, 14);
      const __m256i top = pick(index, shifts), bottom = pick(index >> 16, shifts);
      store(to, _mm256_castsi256_si128(top));
      store(to + stride, _mm256_extracti128_si256(top, 1));
      store(to + 2 * stride, _mm256_castsi256_si128(bottom));
      store(to + 3 * stride, _mm256_extracti128_si256(bottom, 1));
    } else if constexpr (kSize == 8) {
      const __m256i shifts = _mm256_setr_epi32(0, 0, 2, 2, 4, 4, 6, 6);
      for (int row = 0; row < 4; ++row) {
        const __m256i line = pick(index >> (8 * row), shifts);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(to), line);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(to + stride), line);
        to += 2 * stride;
      }
    } else {
      const __m256i left = _mm256_setr_epi32(0, 0, 0, 0, 2, 2, 2, 2);
      const __m256i right = _mm256_setr_epi32(4, 4, 4, 4, 6, 6, 6, 6);
      for (int row = 0; row < 4; ++row) {
        const uint32_t word = index >> (8 * row);
        const __m256i a = pick(word, left), b = pick(word, right);
        for (int k = 0; k < 4; ++k) {
          _mm256_storeu_si256(reinterpret_cast<__m256i*>(to), a);
          _mm256_storeu_si256(reinterpret_cast<__m256i*>(to + 32), b);
          to += stride;
        }
      }
    }
  }
};

void WalkDxt1(zycFrameDecoder& decoder) {
  TreeWalk<4, BlockSource::dxt1, Avx2Kernels>(decoder).Run();
}
void WalkTable(zycFrameDecoder& decoder) {
  TreeWalk<4, BlockSource::table, Avx2Kernels>(decoder).Run();
}

}  // namespace

#if defined(__clang__)
#pragma clang attribute pop
#else
#pragma GCC pop_options
#endif

bool zycDecodeBlocks32Avx2(zycFrameDecoder& decoder, bool tablePath) {
  if (tablePath) {
    WalkTable(decoder);
  } else {
    WalkDxt1(decoder);
  }
  return true;
}
bool zycHasBlockKernelsAvx2() { return true; }

#else

bool zycDecodeBlocks32Avx2(zycFrameDecoder&, bool) { return false; }
bool zycHasBlockKernelsAvx2() { return false; }

#endif

// SSE2 kernels: psadbw over 16-byte pieces. The current picture's rows are 16-byte aligned, the
// reference is read unaligned. The colour kernels clear the alpha bytes of both sides first.
// Rows are summed in groups and the kernel stops once the limit is reached.
#include "encoder/sad.h"

#include <emmintrin.h>

namespace {

template <bool kColour>
inline __m128i Piece(const uint8_t* a, const uint8_t* b, __m128i mask) {
  __m128i x = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a));
  __m128i y = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b));
  if constexpr (kColour) {
    x = _mm_and_si128(x, mask);
    y = _mm_and_si128(y, mask);
  }
  return _mm_sad_epu8(x, y);
}

inline uint32_t Total(__m128i acc) {
  return uint32_t(_mm_cvtsi128_si32(acc) + _mm_cvtsi128_si32(_mm_srli_si128(acc, 8)));
}

template <int kSize, bool kColour>
uint32_t SadSse2(const uint8_t* cur, const uint8_t* ref, uint32_t stride, uint32_t limit) {
  const __m128i mask = _mm_set1_epi32(0x00FFFFFF);
  constexpr int kPieces = kSize / 4;  // 16-byte pieces in a row
  constexpr int kRowsPerCheck = kSize == 16 ? 4 : kSize;
  __m128i acc = _mm_setzero_si128();
  for (int y0 = 0; y0 < kSize; y0 += kRowsPerCheck) {
    for (int y = y0; y < y0 + kRowsPerCheck; ++y) {
      const uint8_t* a = cur + size_t(y) * stride;
      const uint8_t* b = ref + size_t(y) * stride;
      for (int p = 0; p < kPieces; ++p) {
        acc = _mm_add_epi64(acc, Piece<kColour>(a + p * 16, b + p * 16, mask));
      }
    }
    if (kRowsPerCheck != kSize) {
      uint32_t sum = Total(acc);
      if (sum >= limit) return sum;
    }
  }
  return Total(acc);
}

// The squares of 4: the current square's rows are loaded and masked once for all its fades.
bool FadesSse2Of4(const uint8_t* cur, const uint8_t* const refs[16], ptrdiff_t offset,
                  uint32_t stride, uint32_t mask, uint32_t* error, uint32_t* fade) {
  const __m128i colour = _mm_set1_epi32(0x00FFFFFF);
  __m128i rows[4];
  for (int y = 0; y < 4; ++y) {
    rows[y] = _mm_and_si128(
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(cur + size_t(y) * stride)), colour);
  }
  bool taken = false;
  while (mask && *error) {
    const uint32_t f = uint32_t(__builtin_ctz(mask));
    mask &= mask - 1;
    const uint8_t* ref = refs[f] + offset;
    __m128i acc = _mm_setzero_si128();
    for (int y = 0; y < 4; ++y) {
      const __m128i r = _mm_and_si128(
          _mm_loadu_si128(reinterpret_cast<const __m128i*>(ref + size_t(y) * stride)), colour);
      acc = _mm_add_epi64(acc, _mm_sad_epu8(rows[y], r));
    }
    const uint32_t sum = Total(acc);
    if (sum < *error) {
      *error = sum;
      *fade = f;
      taken = true;
    }
  }
  return taken;
}

}  // namespace

bool zycSadSse2(zycSadKernels* kernels) {
  kernels->all[0] = SadSse2<4, false>;
  kernels->all[1] = SadSse2<8, false>;
  kernels->all[2] = SadSse2<16, false>;
  kernels->colour[0] = SadSse2<4, true>;
  kernels->colour[1] = SadSse2<8, true>;
  kernels->colour[2] = SadSse2<16, true>;
  kernels->fades[0] = FadesSse2Of4;
  kernels->fades[1] = nullptr;
  kernels->fades[2] = nullptr;
  kernels->simd = true;
  return true;
}

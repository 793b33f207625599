// AVX2 kernels for the squares of 8 and 16: vpsadbw over 32-byte pieces, a row of 8 pixels in
// one piece, a row of 16 in two. Only called when the processor has AVX2; the functions carry
// the target themselves, so the rest of the library is built for the base processor. Like the
// SSE2 kernels, the colour kernels clear the alpha bytes first and the kernel of 16 stops once
// the limit is reached. The squares of 4 keep the SSE2 kernels: a row is only 16 bytes.
#include "encoder/sad.h"

#include <immintrin.h>

#define ZYC_AVX2 __attribute__((target("avx2")))

namespace {

template <bool kColour>
ZYC_AVX2 inline __m256i Piece(const uint8_t* a, const uint8_t* b, __m256i mask) {
  __m256i x = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a));
  __m256i y = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b));
  if constexpr (kColour) {
    x = _mm256_and_si256(x, mask);
    y = _mm256_and_si256(y, mask);
  }
  return _mm256_sad_epu8(x, y);
}

ZYC_AVX2 inline uint32_t Total(__m256i acc) {
  const __m128i half =
      _mm_add_epi64(_mm256_castsi256_si128(acc), _mm256_extracti128_si256(acc, 1));
  return uint32_t(_mm_cvtsi128_si32(half) + _mm_cvtsi128_si32(_mm_srli_si128(half, 8)));
}

template <int kSize, bool kColour>
ZYC_AVX2 uint32_t SadAvx2(const uint8_t* cur, const uint8_t* ref, uint32_t stride,
                          uint32_t limit) {
  const __m256i mask = _mm256_set1_epi32(0x00FFFFFF);
  constexpr int kPieces = kSize / 8;  // 32-byte pieces in a row
  constexpr int kRowsPerCheck = kSize == 16 ? 4 : kSize;
  __m256i acc = _mm256_setzero_si256();
  for (int y0 = 0; y0 < kSize; y0 += kRowsPerCheck) {
    for (int y = y0; y < y0 + kRowsPerCheck; ++y) {
      const uint8_t* a = cur + size_t(y) * stride;
      const uint8_t* b = ref + size_t(y) * stride;
      for (int p = 0; p < kPieces; ++p) {
        acc = _mm256_add_epi64(acc, Piece<kColour>(a + p * 32, b + p * 32, mask));
      }
    }
    if (kRowsPerCheck != kSize && y0 + kRowsPerCheck < kSize) {
      const uint32_t sum = Total(acc);
      if (sum >= limit) return sum;
    }
  }
  return Total(acc);
}

}  // namespace

bool zycSadAvx2(zycSadKernels* kernels) {
  if (!zycSadSse2(kernels)) return false;
  kernels->all[1] = SadAvx2<8, false>;
  kernels->all[2] = SadAvx2<16, false>;
  kernels->colour[1] = SadAvx2<8, true>;
  kernels->colour[2] = SadAvx2<16, true>;
  kernels->simd = true;
  return true;
}

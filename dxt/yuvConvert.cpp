#include "dxt/yuvConvert.h"

#include <cstring>

#include "base/cpuFeatures.h"

#if !defined(ZYL_NO_SIMD) && defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define ZYC_YUV_AVX2 1
#endif

uint32_t zycYuvPixel(uint8_t b, uint8_t g, uint8_t r) {
  const uint32_t t = 401u * b + 2065u * g + 1052u * r;
  const uint32_t y = (t + 0x10800u) >> 12;
  const uint32_t u = (8312025u * b - 2363u * t + 0x80800000u) >> 24;
  const uint32_t v = (10507932u * r - 2987u * t + 0x80800000u) >> 24;
  return u | y << 8 | v << 16 | 0xFF000000u;
}

namespace {

void ConvertPlain(const uint8_t* source, uint8_t* destination, uint32_t pixelCount) {
  for (uint32_t i = 0; i < pixelCount; ++i, source += 4, destination += 4) {
    const uint32_t w = zycYuvPixel(source[0], source[1], source[2]);
    destination[0] = uint8_t(w);
    destination[1] = uint8_t(w >> 8);
    destination[2] = uint8_t(w >> 16);
    destination[3] = 255;
  }
}

#ifdef ZYC_YUV_AVX2
// Eight pixels at a time with the same 32-bit arithmetic: vpmulld keeps the low 32 bits of
// each product, as the plain code's unsigned products do.
__attribute__((target("avx2"))) void ConvertAvx2(const uint8_t* source, uint8_t* destination,
                                                 uint32_t pixelCount) {
  const __m256i byte = _mm256_set1_epi32(0xFF);
  const __m256i yRound = _mm256_set1_epi32(0x10800);
  const __m256i uvRound = _mm256_set1_epi32(int32_t(0x80800000u));
  const __m256i alpha = _mm256_set1_epi32(int32_t(0xFF000000u));
  uint32_t i = 0;
  for (; i + 8 <= pixelCount; i += 8) {
    const __m256i w = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(source + size_t(i) * 4));
    const __m256i b = _mm256_and_si256(w, byte);
    const __m256i g = _mm256_and_si256(_mm256_srli_epi32(w, 8), byte);
    const __m256i r = _mm256_and_si256(_mm256_srli_epi32(w, 16), byte);
    const __m256i t = _mm256_add_epi32(
        _mm256_add_epi32(_mm256_mullo_epi32(b, _mm256_set1_epi32(401)),
                         _mm256_mullo_epi32(g, _mm256_set1_epi32(2065))),
        _mm256_mullo_epi32(r, _mm256_set1_epi32(1052)));
    const __m256i y = _mm256_srli_epi32(_mm256_add_epi32(t, yRound), 12);
    const __m256i u = _mm256_srli_epi32(
        _mm256_add_epi32(_mm256_sub_epi32(_mm256_mullo_epi32(b, _mm256_set1_epi32(8312025)),
                                          _mm256_mullo_epi32(t, _mm256_set1_epi32(2363))),
                         uvRound),
        24);
    const __m256i v = _mm256_srli_epi32(
        _mm256_add_epi32(_mm256_sub_epi32(_mm256_mullo_epi32(r, _mm256_set1_epi32(10507932)),
                                          _mm256_mullo_epi32(t, _mm256_set1_epi32(2987))),
                         uvRound),
        24);
    const __m256i out = _mm256_or_si256(
        _mm256_or_si256(u, _mm256_slli_epi32(y, 8)), _mm256_or_si256(_mm256_slli_epi32(v, 16), alpha));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(destination + size_t(i) * 4), out);
  }
  ConvertPlain(source + size_t(i) * 4, destination + size_t(i) * 4, pixelCount - i);
}
#endif

}  // namespace

void zycConvertToYuvPlain(const uint8_t* source, uint8_t* destination, uint32_t pixelCount) {
  ConvertPlain(source, destination, pixelCount);
}

void zycConvertToYuv(const uint8_t* source, uint8_t* destination, uint32_t pixelCount) {
#ifdef ZYC_YUV_AVX2
  if (zycCpuHasAvx2()) {
    ConvertAvx2(source, destination, pixelCount);
    return;
  }
#endif
  ConvertPlain(source, destination, pixelCount);
}

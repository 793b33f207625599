// AVX2 kernel of the plane coder's SAD tables: vmpsadbw gives eight SADs of a 4-byte target row
// against eight consecutive offsets of a reference row in each 128-bit lane, so one instruction
// covers 16 offsets of one row and eight cover a whole row of the table. Only called when the
// processor has AVX2; the function carries the target itself.
#include "mpmc/planeKernels.h"

#if !defined(ZYL_NO_SIMD) && defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>

#include <cstring>

#define ZYC_AVX2 __attribute__((target("avx2")))

namespace {

ZYC_AVX2 inline __m256i Lanes(const uint8_t* low, const uint8_t* high) {
  return _mm256_inserti128_si256(
      _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(low))),
      _mm_loadu_si128(reinterpret_cast<const __m128i*>(high)), 1);
}

}  // namespace

ZYC_AVX2 void zycSadTable4x4Avx2(const uint8_t* target, int32_t targetStride, const uint8_t* ref,
                                 int32_t refStride, uint16_t* out) {
  __m256i rows[4];
  for (int32_t j = 0; j < 4; ++j) {
    int32_t v;
    std::memcpy(&v, target + j * targetStride, 4);
    rows[j] = _mm256_set1_epi32(v);
  }
  for (int32_t dy = 0; dy < 32; ++dy) {
    __m256i first = _mm256_setzero_si256(), second = _mm256_setzero_si256();
    for (int32_t j = 0; j < 4; ++j) {
      const uint8_t* r = ref + (dy + j) * refStride;
      first = _mm256_add_epi16(first, _mm256_mpsadbw_epu8(Lanes(r, r + 8), rows[j], 0));
      second = _mm256_add_epi16(second, _mm256_mpsadbw_epu8(Lanes(r + 16, r + 24), rows[j], 0));
    }
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + dy * 32), first);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + dy * 32 + 16), second);
  }
}

#endif

#include "dxt/baseColourDxt.h"

#include <emmintrin.h>

uint32_t zycBaseColourAssignSse2(const uint8_t pixels[64], uint32_t mask, const int palette[4][3],
                                 uint8_t indices[16]) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i weights = _mm_setr_epi16(4, 16, 1, 0, 4, 16, 1, 0);
  __m128i entry[4];
  for (int e = 0; e < 4; ++e) {
    entry[e] = _mm_setr_epi16(short(palette[e][0]), short(palette[e][1]), short(palette[e][2]), 0,
                              short(palette[e][0]), short(palette[e][1]), short(palette[e][2]), 0);
  }
  __m128i total = zero;
  for (int group = 0; group < 4; ++group) {
    // Four pixels as 16-bit lanes, two pixels a register.
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pixels + 16 * group));
    const __m128i low = _mm_unpacklo_epi8(bytes, zero);
    const __m128i high = _mm_unpackhi_epi8(bytes, zero);
    __m128i error[4];
    for (int e = 0; e < 4; ++e) {
      const __m128i dl = _mm_sub_epi16(low, entry[e]);
      const __m128i dh = _mm_sub_epi16(high, entry[e]);
      // madd gives (4 d0^2 + 16 d1^2, d2^2) per pixel; add the two halves.
      __m128i sl = _mm_madd_epi16(dl, _mm_mullo_epi16(dl, weights));
      __m128i sh = _mm_madd_epi16(dh, _mm_mullo_epi16(dh, weights));
      sl = _mm_add_epi32(sl, _mm_srli_epi64(sl, 32));
      sh = _mm_add_epi32(sh, _mm_srli_epi64(sh, 32));
      error[e] = _mm_castps_si128(
          _mm_shuffle_ps(_mm_castsi128_ps(sl), _mm_castsi128_ps(sh), _MM_SHUFFLE(2, 0, 2, 0)));
    }
    __m128i best = error[0], index = zero;
    for (int e = 1; e < 4; ++e) {
      const __m128i less = _mm_cmplt_epi32(error[e], best);
      best = _mm_or_si128(_mm_and_si128(less, error[e]), _mm_andnot_si128(less, best));
      index = _mm_or_si128(_mm_and_si128(less, _mm_set1_epi32(e)), _mm_andnot_si128(less, index));
    }
    const uint32_t groupMask = mask >> (4 * group) & 15;
    const __m128i counts = _mm_cmpgt_epi32(
        _mm_and_si128(_mm_set1_epi32(int(groupMask)), _mm_setr_epi32(1, 2, 4, 8)), zero);
    best = _mm_and_si128(best, counts);
    index = _mm_and_si128(index, counts);
    total = _mm_add_epi32(total, best);
    alignas(16) uint32_t lanes[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(lanes), index);
    for (int k = 0; k < 4; ++k) indices[4 * group + k] = uint8_t(lanes[k]);
  }
  total = _mm_add_epi32(total, _mm_shuffle_epi32(total, _MM_SHUFFLE(1, 0, 3, 2)));
  total = _mm_add_epi32(total, _mm_shuffle_epi32(total, _MM_SHUFFLE(2, 3, 0, 1)));
  return uint32_t(_mm_cvtsi128_si32(total));
}

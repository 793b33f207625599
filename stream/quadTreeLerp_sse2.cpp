#include "stream/quadTreeLerp.h"

#include <emmintrin.h>

#include "base/byteIo.h"

// The four channels (the pad byte too, which stays 255) in the 32-bit lanes of one register.
// d is a multiple of 2 for shifts up to 15, so d / 2 is the arithmetic shift by one.
void zycQuadTreeLerpSse2(uint32_t from, uint32_t to, uint32_t shift, uint32_t count, uint8_t* dst,
                         ptrdiff_t stride) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i a = _mm_unpacklo_epi16(_mm_unpacklo_epi8(_mm_cvtsi32_si128(int(from)), zero), zero);
  const __m128i b = _mm_unpacklo_epi16(_mm_unpacklo_epi8(_mm_cvtsi32_si128(int(to)), zero), zero);
  const __m128i step =
      _mm_sra_epi32(_mm_slli_epi32(_mm_sub_epi32(b, a), 16), _mm_cvtsi32_si128(int(shift)));
  __m128i value = _mm_add_epi32(_mm_slli_epi32(a, 16), _mm_srai_epi32(step, 1));
  for (uint32_t k = 0; k < count; ++k, dst += stride) {
    __m128i word = _mm_srli_epi32(value, 16);
    word = _mm_packs_epi32(word, word);
    word = _mm_packus_epi16(word, word);
    zycStore32(dst, uint32_t(_mm_cvtsi128_si32(word)));
    value = _mm_add_epi32(value, step);
  }
}

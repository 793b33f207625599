// The fast kind's distances: four code vectors at a time, one SSE lane each, summing the 48
// components in order exactly as the plain kind does.
#include "vq/VQCodebook.h"

#if defined(__SSE__) && !defined(ZYL_NO_SIMD)
#include <xmmintrin.h>

bool vqDistancesSse(const float* interleaved, uint32_t size, const float* vector, float* out) {
  for (uint32_t group = 0; group < size; group += 4) {
    const float* g = interleaved + size_t(group) * kVqComponents;
    __m128 sum = _mm_setzero_ps();
    for (uint32_t c = 0; c < kVqComponents; ++c) {
      const __m128 d = _mm_sub_ps(_mm_load_ps(g + 4 * c), _mm_set1_ps(vector[c]));
      sum = _mm_add_ps(sum, _mm_mul_ps(d, d));
    }
    _mm_storeu_ps(out + group, sum);
  }
  return true;
}

#else

bool vqDistancesSse(const float*, uint32_t, const float*, float*) { return false; }

#endif

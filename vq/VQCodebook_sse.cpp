// The fast kind's distances: four code vectors at a time, one SSE lane each, summing the 48
// components in order exactly as the plain kind does.
#include "vq/VQCodebook.h"

#include <xmmintrin.h>

namespace {

void DistancesSse(const VQCodebook& book, const float* vector, float* out) {
  const float* interleaved = book.interleaved;
  for (uint32_t group = 0; group < book.size; group += 4) {
    const float* g = interleaved + size_t(group) * kVqComponents;
    __m128 sum = _mm_setzero_ps();
    for (uint32_t c = 0; c < kVqComponents; ++c) {
      const __m128 d = _mm_sub_ps(_mm_load_ps(g + 4 * c), _mm_set1_ps(vector[c]));
      sum = _mm_add_ps(sum, _mm_mul_ps(d, d));
    }
    _mm_storeu_ps(out + group, sum);
  }
}

uint32_t NearestSse(const VQCodebook& book, const float* vector, uint32_t hint,
                    float* outDistance) {
  const float* interleaved = book.interleaved;
  const double* lowerBounds = book.lowerBounds;
  const uint32_t size = book.size;
  // The hint's distance first, summed in the same order as every other.
  float best;
  {
    const float* g = interleaved + size_t(hint / 4) * kVqComponents * 4;
    __m128 sum = _mm_setzero_ps();
    for (uint32_t c = 0; c < kVqComponents; ++c) {
      const __m128 d = _mm_sub_ps(_mm_load_ps(g + 4 * c), _mm_set1_ps(vector[c]));
      sum = _mm_add_ps(sum, _mm_mul_ps(d, d));
    }
    alignas(16) float lanes[4];
    _mm_store_ps(lanes, sum);
    best = lanes[hint % 4];
  }
  uint32_t bestIndex = hint;
  for (uint32_t group = 0; group < size; group += 4) {
    if (lowerBounds && vqBoundExcludes(lowerBounds[group], best) &&
        vqBoundExcludes(lowerBounds[group + 1], best) && vqBoundExcludes(lowerBounds[group + 2], best) &&
        vqBoundExcludes(lowerBounds[group + 3], best))
      continue;
    const float* g = interleaved + size_t(group) * kVqComponents;
    __m128 sum = _mm_setzero_ps();
    const __m128 limit = _mm_set1_ps(best);
    uint32_t c = 0;
    // Give up on the four once all partial sums pass the best.
    for (uint32_t stop = 8; stop <= kVqComponents; stop += 8) {
      for (; c < stop; ++c) {
        const __m128 d = _mm_sub_ps(_mm_load_ps(g + 4 * c), _mm_set1_ps(vector[c]));
        sum = _mm_add_ps(sum, _mm_mul_ps(d, d));
      }
      if (_mm_movemask_ps(_mm_cmple_ps(sum, limit)) == 0) break;
    }
    if (c < kVqComponents) continue;
    alignas(16) float lanes[4];
    _mm_store_ps(lanes, sum);
    for (uint32_t k = 0; k < 4; ++k) {
      const uint32_t i = group + k;
      if (lanes[k] < best || (lanes[k] == best && i < bestIndex)) {
        best = lanes[k];
        bestIndex = i;
      }
    }
  }
  *outDistance = best;
  return bestIndex;
}

}  // namespace

bool vqCodebookSse(vqCodebookKernels* kernels) {
  kernels->distances = DistancesSse;
  kernels->nearest = NearestSse;
  kernels->simd = true;
  return true;
}

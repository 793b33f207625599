// k-means codebook, its sort and its colour key.
#include "vq/VQCodebook.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "base/consoleLog.h"
#include "base/cpuFeatures.h"

namespace {

// Means of the three channels of a vector; a sum of 16 floats is exact in 64 bits.
void vqChannelMeans(const float* v, double means[3]) {
  for (int ch = 0; ch < 3; ++ch) {
    double sum = 0.0;
    for (int p = 0; p < 16; ++p) sum += v[3 * p + ch];
    means[ch] = sum * 0.0625;
  }
}

template <typename T>
T* alignedZeros(size_t count) {
  const size_t bytes = (count * sizeof(T) + 15) & ~size_t(15);
  T* p = static_cast<T*>(std::aligned_alloc(16, bytes ? bytes : 16));
  std::memset(p, 0, bytes ? bytes : 16);
  return p;
}

}  // namespace

VQCodebook::VQCodebook(uint32_t n, bool useSse) : size(n) {
  ZYC_ASSERT(n % 4 == 0 && n > 0, "VQCodebook::VQCodebook", "Internal error.\n");
  vectors = alignedZeros<float>(size_t(n) * kVqComponents);
  sums = alignedZeros<float>(size_t(n) * kVqComponents);
  worstVectors = alignedZeros<float>(size_t(n) * kVqComponents);
  worstDistances = alignedZeros<float>(n);
  counts = alignedZeros<uint32_t>(n);
  distances = alignedZeros<float>(n);
  interleaved = alignedZeros<float>(size_t(n) * kVqComponents);
  channelMeans = alignedZeros<double>(size_t(n) * 4);
  lowerBounds = alignedZeros<double>(n);
  vqCodebookChoose(&kernels, useSse);
}

VQCodebook::~VQCodebook() {
  std::free(vectors);
  std::free(sums);
  std::free(worstVectors);
  std::free(worstDistances);
  std::free(counts);
  std::free(distances);
  std::free(interleaved);
  std::free(channelMeans);
  std::free(lowerBounds);
}

void VQCodebook::setVector(uint32_t i, const float* source) {
  float* row = vectors + size_t(i) * kVqComponents;
  if (row != source) std::memmove(row, source, kVqComponents * sizeof(float));
  float* group = interleaved + size_t(i / 4) * kVqComponents * 4 + i % 4;
  for (uint32_t c = 0; c < kVqComponents; ++c) group[c * 4] = row[c];
  vqChannelMeans(row, channelMeans + size_t(i) * 4);
}

void VQCodebook::init() {
  float row[kVqComponents];
  for (uint32_t i = 0; i < size; ++i) {
    const float grey = float(double(i) * 255.0 / double(size - 1));
    for (uint32_t c = 0; c < kVqComponents; ++c) row[c] = grey;
    setVector(i, row);
  }
}

void VQCodebook::computeDistances(const float* vector) {
  kernels.distances(*this, vector, distances);
}

uint32_t VQCodebook::nearest(const float* vector, float* outDistance, uint32_t hint) {
  double means[3];
  vqChannelMeans(vector, means);
  uint32_t closest = 0;
  for (uint32_t i = 0; i < size; ++i) {
    const double* m = channelMeans + size_t(i) * 4;
    const double d0 = means[0] - m[0], d1 = means[1] - m[1], d2 = means[2] - m[2];
    lowerBounds[i] = 16.0 * (d0 * d0 + d1 * d1 + d2 * d2);
    if (lowerBounds[i] < lowerBounds[closest]) closest = i;
  }
  // Without a hint the search starts from the code vector of the closest means.
  if (hint >= size) hint = closest;
  return kernels.nearest(*this, vector, hint, outDistance);
}

uint32_t VQCodebook::nearestExhaustive(const float* vector, float* outDistance) {
  computeDistances(vector);
  uint32_t best = 0;
  float bestDistance = distances[0];
  for (uint32_t i = 1; i < size; ++i) {
    if (distances[i] < bestDistance) {
      bestDistance = distances[i];
      best = i;
    }
  }
  *outDistance = bestDistance;
  return best;
}

uint32_t VQCodebook::add(const float* vector, uint32_t hint) {
  float d;
  const uint32_t i = nearest(vector, &d, hint);
  if (d > worstDistances[i]) {
    worstDistances[i] = d;
    std::memcpy(worstVectors + size_t(i) * kVqComponents, vector, kVqComponents * sizeof(float));
  }
  float* sum = sums + size_t(i) * kVqComponents;
  for (uint32_t c = 0; c < kVqComponents; ++c) sum[c] += vector[c];
  counts[i] += 1;
  return i;
}

void VQCodebook::update() {
  usedVectors = 0;
  updatedVectors = 0;
  for (uint32_t i = 0; i < size; ++i) {
    if (counts[i] == 0) continue;
    ++usedVectors;
    float* mean = sums + size_t(i) * kVqComponents;
    const float scale = 1.0f / float(counts[i]);
    for (uint32_t c = 0; c < kVqComponents; ++c) mean[c] *= scale;
    if (vqDistance(mean, vectors + size_t(i) * kVqComponents) > kVqUpdateThreshold) {
      setVector(i, mean);
      ++updatedVectors;
    }
  }
  for (uint32_t i = 0; i < size; ++i) {
    if (counts[i] != 0) continue;
    uint32_t worst = 0;
    for (uint32_t j = 1; j < size; ++j)
      if (worstDistances[j] > worstDistances[worst]) worst = j;
    setVector(i, worstVectors + size_t(worst) * kVqComponents);
    worstDistances[worst] = 0.0f;
  }
  const size_t rows = size_t(size) * kVqComponents;
  std::memset(sums, 0, rows * sizeof(float));
  std::memset(worstVectors, 0, rows * sizeof(float));
  std::memset(counts, 0, size * sizeof(uint32_t));
  std::memset(distances, 0, size * sizeof(float));
  std::memset(worstDistances, 0, size * sizeof(float));
}

uint32_t VQCodebook::train(const float* trainingVectors, uint32_t count, bool verbose) {
  init();
  uint32_t rounds = 0;
  std::vector<uint32_t> last(count, kNoHint);
  do {
    for (uint32_t k = 0; k < count; ++k)
      last[k] = add(trainingVectors + size_t(k) * kVqComponents, last[k]);
    update();
    ++rounds;
    if (verbose)
      zycLog("Updated Vectors: %lu, used Vectors: %lu\n", (unsigned long)updatedVectors,
             (unsigned long)usedVectors);
  } while (updatedVectors != 0);
  return rounds;
}

namespace {

void DistancesPlain(const VQCodebook& book, const float* vector, float* out) {
  for (uint32_t i = 0; i < book.size; ++i)
    out[i] = vqDistance(book.vectors + size_t(i) * kVqComponents, vector);
}

uint32_t NearestPlain(const VQCodebook& book, const float* vector, uint32_t hint,
                      float* outDistance) {
  const float* vectors = book.vectors;
  const double* lowerBounds = book.lowerBounds;
  const uint32_t size = book.size;
  uint32_t bestIndex = hint;
  float best = vqDistance(vectors + size_t(hint) * kVqComponents, vector);
  for (uint32_t i = 0; i < size; ++i) {
    if (i == hint || (lowerBounds && vqBoundExcludes(lowerBounds[i], best))) continue;
    const float* row = vectors + size_t(i) * kVqComponents;
    float sum = 0.0f;
    uint32_t c = 0;
    // Sum in the order of vqDistance; give up once the partial sum passes the best.
    for (uint32_t stop = 12; stop <= kVqComponents && !(sum > best); stop += 12) {
      for (; c < stop; ++c) {
        const float d = row[c] - vector[c];
        sum += d * d;
      }
    }
    if (c < kVqComponents) continue;
    if (sum < best || (sum == best && i < bestIndex)) {
      best = sum;
      bestIndex = i;
    }
  }
  *outDistance = best;
  return bestIndex;
}

}  // namespace

void vqCodebookPlain(vqCodebookKernels* kernels) {
  kernels->distances = DistancesPlain;
  kernels->nearest = NearestPlain;
  kernels->simd = false;
}

#ifdef ZYL_NO_SIMD
// A build of plain kernels only has no SSE set to fill.
bool vqCodebookSse(vqCodebookKernels*) { return false; }
#endif

void vqCodebookChoose(vqCodebookKernels* kernels, bool allowSimd) {
  vqCodebookPlain(kernels);
  if (allowSimd && zycCpuHasSse()) vqCodebookSse(kernels);
}

void vqSortAscending(const float* keys, uint32_t count, uint32_t* order) {
  // Least significant digit radix sort over the float bits made monotonic; each pass is
  // stable, so equal keys keep their order.
  std::vector<uint32_t> bits(count), other(count), keysOther(count);
  std::vector<uint32_t> sortedKeys(count);
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t b;
    std::memcpy(&b, keys + i, 4);
    sortedKeys[i] = (b & 0x80000000u) ? ~b : (b | 0x80000000u);
    order[i] = i;
  }
  for (int shift = 0; shift < 32; shift += 8) {
    uint32_t histogram[257] = {};
    for (uint32_t i = 0; i < count; ++i) ++histogram[((sortedKeys[i] >> shift) & 255) + 1];
    for (int d = 0; d < 256; ++d) histogram[d + 1] += histogram[d];
    for (uint32_t i = 0; i < count; ++i) {
      const uint32_t slot = histogram[(sortedKeys[i] >> shift) & 255]++;
      keysOther[slot] = sortedKeys[i];
      other[slot] = order[i];
    }
    for (uint32_t i = 0; i < count; ++i) {
      sortedKeys[i] = keysOther[i];
      order[i] = other[i];
    }
  }
}

void vqColourHvs(uint8_t b0, uint8_t b1, uint8_t b2, float* hue, float* value,
                 float* saturation) {
  const float a = b0 * (1.0f / 255.0f), b = b1 * (1.0f / 255.0f), c = b2 * (1.0f / 255.0f);
  const float max = std::fmax(a, std::fmax(b, c));
  const float min = std::fmin(a, std::fmin(b, c));
  *value = max;
  *saturation = max == 0.0f ? 0.0f : 1.0f - min / max;
  float h = 0.0f;
  if (max != min) {
    if (max == a) {
      h = (b - c) * 60.0f / (max - min);
      h -= 360.0f * std::floor(h / 360.0f);
    } else if (max == b) {
      h = (c - a) * 60.0f / (max - min) + 120.0f;
    } else {
      h = (a - b) * 60.0f / (max - min) + 240.0f;
    }
  }
  *hue = h / 360.0f;
}

float vqColourKey(const uint8_t pixels[48]) {
  float hueSum = 0.0f, valueSum = 0.0f, saturationSum = 0.0f;
  for (int p = 0; p < 16; ++p) {
    float h, v, s;
    vqColourHvs(pixels[3 * p], pixels[3 * p + 1], pixels[3 * p + 2], &h, &v, &s);
    hueSum += h;
    valueSum += v;
    saturationSum += s;
  }
  const float averageHue = hueSum * 0.0625f;
  const float averageValue = valueSum * 0.0625f;
  const float averageSaturation = saturationSum * 0.0625f;
  return (averageSaturation * 2.0f + averageHue) * 2.0f + averageValue;
}

// k-means clustering of 48-component vectors (4x4 pixels of three samples, floats 0 to 255)
// with a fixed number of code vectors, the sort that orders a finished codebook and its colour
// key. Two kinds with one behaviour: the fast kind walks the code vectors four at a time in
// SSE registers, the plain kind loops over them one by one. Both sum a distance over the 48
// components in the same order, so they give the same distances to the last bit.
#pragma once

#include <cstdint>

constexpr uint32_t kVqComponents = 48;

struct VQCodebook;

// The codebook's two kernels, plain beside SSE, in a table as the motion search keeps its
// zycSadKernels. Both kinds sum a distance over the 48 components in the same order, so they
// give the same distances to the last bit.
// Distances from `vector` to every code vector, into `out`.
typedef void (*vqDistancesFn)(const VQCodebook& book, const float* vector, float* out);
// Nearest code vector with the pruned search (the lower number on a tie), starting from `hint`;
// `book.lowerBounds[i]` is at most the distance to code vector i, and a code vector whose bound
// passes the best so far by more than the float sum's rounding is not summed at all.
typedef uint32_t (*vqNearestFn)(const VQCodebook& book, const float* vector, uint32_t hint,
                                float* outDistance);

struct vqCodebookKernels {
  vqDistancesFn distances = nullptr;
  vqNearestFn nearest = nullptr;
  bool simd = false;
};

void vqCodebookPlain(vqCodebookKernels* kernels);
// Fills the SSE kernels (four code vectors at a time from the interleaved layout); false (and
// nothing changed) in a build without SIMD.
bool vqCodebookSse(vqCodebookKernels* kernels);
// The SSE kernels when `allowSimd` and the processor has SSE, else the plain ones.
void vqCodebookChoose(vqCodebookKernels* kernels, bool allowSimd);
// A move of the mean smaller than or equal to this squared distance is not applied.
constexpr float kVqUpdateThreshold = 2.55f;

struct VQCodebook {
  // `size` must be a multiple of 4 (trap otherwise). `useSse` picks the fast kind where the
  // build and the processor have it.
  VQCodebook(uint32_t size, bool useSse);
  ~VQCodebook();
  VQCodebook(const VQCodebook&) = delete;
  VQCodebook& operator=(const VQCodebook&) = delete;

  // Spreads the code vectors on the grey line: vector i is i * 255 / (n - 1) everywhere.
  void init();
  // One training step: the vector joins its nearest code vector. `hint` (a guess of the
  // nearest, such as the vector's code vector of the last round) only saves time. Returns the
  // code vector joined.
  uint32_t add(const float* vector, uint32_t hint = kNoHint);
  // Closes a round: moves the used vectors to their means when they moved by more than the
  // threshold, makes unused ones jump to the worst-served members, clears the round.
  void update();
  // Number of the nearest code vector (the lower number on a tie) and its squared distance.
  // Stops summing a code vector's distance once it passes the best so far, which can't change
  // the result: partial sums of squares only grow.
  uint32_t nearest(const float* vector, float* outDistance, uint32_t hint = kNoHint);
  // The same by the full distances to all code vectors into `distances`, then one scan.
  uint32_t nearestExhaustive(const float* vector, float* outDistance);
  static constexpr uint32_t kNoHint = 0xFFFFFFFFu;
  // init, then rounds of add over `count` vectors and update until no vector moves. Prints
  // "Updated Vectors: %lu, used Vectors: %lu\n" after each round when `verbose`. Returns the
  // number of rounds.
  uint32_t train(const float* trainingVectors, uint32_t count, bool verbose);

  // Copies row `i` from `source` into the code vectors (also keeps the fast layout current).
  void setVector(uint32_t i, const float* source);

  float* vectors = nullptr;         // size rows of 48
  float* sums = nullptr;            // size rows of 48
  float* worstVectors = nullptr;    // size rows of 48
  float* worstDistances = nullptr;  // size
  uint32_t* counts = nullptr;       // size
  uint32_t size = 0;
  float* distances = nullptr;       // size
  uint32_t usedVectors = 0;
  uint32_t updatedVectors = 0;

  vqCodebookKernels kernels;
  // The fast kind's copy of the code vectors, four at a time component by component:
  // interleaved[(i / 4) * 192 + c * 4 + i % 4] = vectors[i * 48 + c].
  float* interleaved = nullptr;
  // Channel means of each code vector, [i * 4 + channel], exact in 64-bit floats, and the
  // scratch of the lower bounds they give: 16 times the squared difference of the means, summed
  // over the channels, is at most the distance.
  double* channelMeans = nullptr;
  double* lowerBounds = nullptr;

 private:
  void computeDistances(const float* vector);
};

// Squared distance of two 48-component vectors, summed in component order in float.
inline float vqDistance(const float* a, const float* b) {
  float sum = 0.0f;
  for (uint32_t c = 0; c < kVqComponents; ++c) {
    const float d = a[c] - b[c];
    sum += d * d;
  }
  return sum;
}

// True when a code vector with this lower bound of its distance can't be nearer than, nor as
// near as, `best`: a float sum of 48 squares is within 3e-6 of the exact value.
inline bool vqBoundExcludes(double lowerBound, float best) {
  return lowerBound * (1.0 - 1e-5) > double(best);
}

// Stable ascending sort of `count` floats: order[k] is the number of the k-th smallest. The
// keys are left in place.
void vqSortAscending(const float* keys, uint32_t count, uint32_t* order);

// Hue, value and saturation of one pixel of bytes b0, b1, b2, each 0 to 1.
void vqColourHvs(uint8_t b0, uint8_t b1, uint8_t b2, float* hue, float* value,
                 float* saturation);
// Colour key of a 4x4 vector of 3-byte pixels: (avgSat * 2 + avgHue) * 2 + avgValue.
float vqColourKey(const uint8_t pixels[48]);

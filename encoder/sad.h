// Sums of absolute differences between a square of the current picture and a square of a
// reference, both 4 bytes a pixel. The plain kernels are the reference; the SSE2 and AVX2
// kernels give the same results whenever the result is below the caller's limit. The encoder
// picks one set at Begin and keeps it in a zycSadKernels.
#pragma once

#include <cstddef>
#include <cstdint>

// A kernel compares a size x size square at `cur` with one at `ref`, rows `stride` bytes apart.
// It returns the exact sum when that sum is below `limit`; otherwise any value >= `limit` (a
// kernel may stop early once the limit is reached). The "all" kernels add up all four bytes of
// every pixel; the "colour" kernels the first three only (U, Y, V), leaving alpha out.
typedef uint32_t (*zycSadFn)(const uint8_t* cur, const uint8_t* ref, uint32_t stride,
                             uint32_t limit);

// Compares the square at `cur` with the square at `refs[f] + offset` for every bit f of `mask`,
// lowest first, as a loop over the colour kernel does: each comparison is limited by *error as
// it stands, a sum below it becomes *error and its f *fade, and the loop ends once *error is 0.
// Returns true when some fade was taken.
typedef bool (*zycFadeSadFn)(const uint8_t* cur, const uint8_t* const refs[16], ptrdiff_t offset,
                             uint32_t stride, uint32_t mask, uint32_t* error, uint32_t* fade);

struct zycSadKernels {
  zycSadFn all[3] = {};     // sizes 4, 8, 16
  zycSadFn colour[3] = {};  // sizes 4, 8, 16
  // Where set, the loop over fades in one piece; where null, the caller loops over `colour`.
  zycFadeSadFn fades[3] = {};
  bool simd = false;
};

// The level of a block size: 4 -> 0, 8 -> 1, 16 -> 2.
inline int zycSizeLevel(int32_t size) { return size == 4 ? 0 : size == 8 ? 1 : 2; }

void zycSadPlain(zycSadKernels* kernels);
// Fills the SSE2 kernels; false (and nothing changed) in a build without SIMD.
bool zycSadSse2(zycSadKernels* kernels);
// Fills the SSE2 kernels, then the AVX2 kernels of sizes 8 and 16 over them; false (and
// nothing changed) in a build without SIMD. Only for a processor with AVX2 (zycCpuHasAvx2).
bool zycSadAvx2(zycSadKernels* kernels);
// The fastest set that the processor runs when `allowSimd`: AVX2 when it has it, else SSE2
// when it has that, else plain.
void zycSadChoose(zycSadKernels* kernels, bool allowSimd);

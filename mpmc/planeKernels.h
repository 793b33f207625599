// The plane coder's kernel sets: the level-0 SAD tables and their best entries, the moved blocks'
// errors of the motion and affine searches and their changes after an atom, the blocks' estimated
// gains and the 64-filter bank, plain and with SSE2 or AVX2, in a table as the motion search keeps
// its zycSadKernels. Every set gives the plain results bit for bit; which one runs is chosen once
// per job from the processor's features.
#pragma once

#include <cstdint>

#include "mpmc/mcProcOptimized.h"
#include "mpmc/mpProcOptimized.h"

struct zycPlaneKernels {
  zycSadTableFn sadTable4x4 = zycSadTable4x4Plain;
  zycBestEntry16Fn bestEntry16 = zycBestEntry16Plain;
  zycBestEntry32Fn bestEntry32 = zycBestEntry32Plain;
  zycMovedErrorFn motionError = zycMotionErrorPlain;
  zycMovedErrorFn affineError = zycAffineErrorPlain;
  zycMovedDeltaFn motionDelta = zycMotionDeltaPlain;
  zycMovedDeltaFn affineDelta = zycAffineDeltaPlain;
  zycMotionEstimateFn motionEstimate = zycMotionEstimatePlain;
  zycAffineEstimateFn affineEstimate = zycAffineEstimatePlain;
  zycFilterBankFn filterBank = zycFilterBankPlain;
  bool simd = false;
};

void zycPlaneKernelsPlain(zycPlaneKernels* kernels);
// Fills the SSE2 kernels; false (and nothing changed) in a build without SIMD.
bool zycPlaneKernelsSse2(zycPlaneKernels* kernels);
// Fills the SSE2 kernels, then the AVX2 ones over them (the deltas and the 16-bit best entry stay
// SSE2); false (and nothing changed) in a build without SIMD. Only for a processor with AVX2.
bool zycPlaneKernelsAvx2(zycPlaneKernels* kernels);
// The fastest set that the processor runs when `allowSimd`: AVX2 when it has it, else SSE2 when
// it has that, else plain.
void zycPlaneKernelsChoose(zycPlaneKernels* kernels, bool allowSimd);

// The set the plane coder runs, part of its module state: the fastest, chosen by
// mpmcafBeginJob; a test or benchmark may put another in after that.
extern zycPlaneKernels planeKernels;

// Defined only in builds with SIMD.
void zycSadTable4x4Sse2(const uint8_t* target, int32_t targetStride, const uint8_t* ref,
                        int32_t refStride, uint16_t* out);
void zycSadTable4x4Avx2(const uint8_t* target, int32_t targetStride, const uint8_t* ref,
                        int32_t refStride, uint16_t* out);
int32_t zycMotionErrorSse2(const uint8_t* o, int32_t oStride, const int32_t* mp, int32_t mpStride,
                           const int32_t* r, int32_t rStride, int32_t size, int32_t a, int32_t b);
int32_t zycAffineErrorSse2(const uint8_t* o, int32_t oStride, const int32_t* mp, int32_t mpStride,
                           const int32_t* r, int32_t rStride, int32_t size, int32_t a, int32_t b);
int32_t zycMotionDeltaSse2(const uint8_t* o, int32_t oStride, const int32_t* now, int32_t nowStride,
                           const int32_t* before, int32_t beforeStride, const int32_t* r,
                           int32_t rStride, int32_t columns, int32_t rows, int32_t a, int32_t b);
int32_t zycAffineDeltaSse2(const uint8_t* o, int32_t oStride, const int32_t* now, int32_t nowStride,
                           const int32_t* before, int32_t beforeStride, const int32_t* r,
                           int32_t rStride, int32_t columns, int32_t rows, int32_t a, int32_t b);
int32_t zycMotionErrorAvx2(const uint8_t* o, int32_t oStride, const int32_t* mp, int32_t mpStride,
                           const int32_t* r, int32_t rStride, int32_t size, int32_t a, int32_t b);
int32_t zycAffineErrorAvx2(const uint8_t* o, int32_t oStride, const int32_t* mp, int32_t mpStride,
                           const int32_t* r, int32_t rStride, int32_t size, int32_t a, int32_t b);
int32_t zycMotionEstimateAvx2(const int32_t* r0, const int32_t* r1, int32_t fx, const int32_t* window,
                              const int32_t* mc, const int32_t* target, const int32_t* error, int32_t count);
int32_t zycAffineEstimateAvx2(const int32_t* r, int32_t a, int32_t b, const int32_t* window,
                              const int32_t* mc, const int32_t* target, const int32_t* error, int32_t count);
int32_t zycBestEntry16Sse2(const uint16_t* table);
int32_t zycBestEntry32Sse2(const uint32_t* table);
int32_t zycBestEntry32Avx2(const uint32_t* table);
void zycFilterBankSse2(const zycFilterArea& area, const int16_t* dict);
void zycFilterBankAvx2(const zycFilterArea& area, const int16_t* dict);
// The bank's two passes with SSE2: the horizontal filter `h` over the area's rows and 8 rows
// more into firstPass; then the vertical filter `v` over firstPass, columns xFrom onwards,
// taking its response where it is stronger than the best so far, with index `filter`.
void zycFilterFirstPassSse2(const zycFilterArea& area, const int16_t* h);
void zycFilterSecondPassSse2(const zycFilterArea& area, const int16_t* v, uint16_t filter, int32_t xFrom);

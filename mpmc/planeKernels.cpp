#include "mpmc/planeKernels.h"

#include "base/cpuFeatures.h"

zycPlaneKernels planeKernels;

void zycPlaneKernelsPlain(zycPlaneKernels* kernels) { *kernels = zycPlaneKernels(); }

bool zycPlaneKernelsSse2(zycPlaneKernels* kernels) {
#ifndef ZYL_NO_SIMD
  zycPlaneKernelsPlain(kernels);
  kernels->sadTable4x4 = zycSadTable4x4Sse2;
  kernels->filterBank = zycFilterBankSse2;
  kernels->motionError = zycMotionErrorSse2;
  kernels->affineError = zycAffineErrorSse2;
  kernels->motionDelta = zycMotionDeltaSse2;
  kernels->affineDelta = zycAffineDeltaSse2;
  kernels->bestEntry16 = zycBestEntry16Sse2;
  kernels->bestEntry32 = zycBestEntry32Sse2;
  kernels->simd = true;
  return true;
#else
  (void)kernels;
  return false;
#endif
}

bool zycPlaneKernelsAvx2(zycPlaneKernels* kernels) {
#ifndef ZYL_NO_SIMD
  zycPlaneKernelsSse2(kernels);
  kernels->sadTable4x4 = zycSadTable4x4Avx2;
  kernels->filterBank = zycFilterBankAvx2;
  kernels->motionError = zycMotionErrorAvx2;
  kernels->affineError = zycAffineErrorAvx2;
  kernels->motionEstimate = zycMotionEstimateAvx2;
  kernels->affineEstimate = zycAffineEstimateAvx2;
  kernels->bestEntry32 = zycBestEntry32Avx2;
  return true;
#else
  (void)kernels;
  return false;
#endif
}

void zycPlaneKernelsChoose(zycPlaneKernels* kernels, bool allowSimd) {
  zycPlaneKernelsPlain(kernels);
  if (!allowSimd) return;
  if (zycCpuHasAvx2() && zycPlaneKernelsAvx2(kernels)) return;
  if (zycCpuHasSse2()) zycPlaneKernelsSse2(kernels);
}

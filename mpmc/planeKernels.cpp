#include "mpmc/planeKernels.h"

#include "base/cpuFeatures.h"

bool zycSelectPlaneKernels(zycPlaneKernelSet set) {
  zycSadTable4x4 = zycSadTable4x4Plain;
  zycFilterBank = zycFilterBankPlain;
  zycMotionError = zycMotionErrorPlain;
  zycAffineError = zycAffineErrorPlain;
  zycMotionDelta = zycMotionDeltaPlain;
  zycAffineDelta = zycAffineDeltaPlain;
  zycMotionEstimate = zycMotionEstimatePlain;
  zycAffineEstimate = zycAffineEstimatePlain;
  zycBestEntry16 = zycBestEntry16Plain;
  zycBestEntry32 = zycBestEntry32Plain;
#if !defined(ZYL_NO_SIMD) && defined(__x86_64__)
  if (set == kPlaneKernelsSse2 && zycCpuHasSse2()) {
    zycSadTable4x4 = zycSadTable4x4Sse2;
    zycFilterBank = zycFilterBankSse2;
    zycMotionError = zycMotionErrorSse2;
    zycAffineError = zycAffineErrorSse2;
    zycMotionDelta = zycMotionDeltaSse2;
    zycAffineDelta = zycAffineDeltaSse2;
    zycBestEntry16 = zycBestEntry16Sse2;
    zycBestEntry32 = zycBestEntry32Sse2;
    return true;
  }
  if (set == kPlaneKernelsAvx2 && zycCpuHasAvx2()) {
    zycSadTable4x4 = zycSadTable4x4Avx2;
    zycFilterBank = zycFilterBankAvx2;
    zycMotionError = zycMotionErrorAvx2;
    zycAffineError = zycAffineErrorAvx2;
    zycMotionEstimate = zycMotionEstimateAvx2;
    zycAffineEstimate = zycAffineEstimateAvx2;
    zycMotionDelta = zycMotionDeltaSse2;
    zycAffineDelta = zycAffineDeltaSse2;
    zycBestEntry16 = zycBestEntry16Sse2;
    zycBestEntry32 = zycBestEntry32Avx2;
    return true;
  }
#endif
  return set == kPlaneKernelsPlain;
}

zycPlaneKernelSet zycBestPlaneKernels() {
#if !defined(ZYL_NO_SIMD) && defined(__x86_64__)
  if (zycCpuHasAvx2()) return kPlaneKernelsAvx2;
  if (zycCpuHasSse2()) return kPlaneKernelsSse2;
#endif
  return kPlaneKernelsPlain;
}

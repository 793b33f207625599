#include "dxt/dxtKernels.h"

#include "base/cpuFeatures.h"
#include "dxt/baseColourDxt.h"
#include "dxt/fastDxt.h"

void zycDxtPlain(zycDxtKernels* kernels) {
  kernels->fastDxt = zycFastDxtPlain;
  kernels->baseColourAssign = zycBaseColourAssignPlain;
  kernels->simd = false;
}

bool zycDxtSse2(zycDxtKernels* kernels) {
#ifndef ZYL_NO_SIMD
  kernels->fastDxt = zycFastDxtSse2;
  kernels->baseColourAssign = zycBaseColourAssignSse2;
  kernels->simd = true;
  return true;
#else
  (void)kernels;
  return false;
#endif
}

void zycDxtChoose(zycDxtKernels* kernels, bool allowSimd) {
  zycDxtPlain(kernels);
  if (allowSimd && zycCpuHasSse2()) zycDxtSse2(kernels);
}

const zycDxtKernels& zycDxtBest() {
  static const zycDxtKernels best = [] {
    zycDxtKernels kernels;
    zycDxtChoose(&kernels, true);
    return kernels;
  }();
  return best;
}

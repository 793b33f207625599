#include "encoder/sad.h"

#include <cstdlib>

#include "base/cpuFeatures.h"

namespace {

template <int kSize, int kBytes>
uint32_t SadPlain(const uint8_t* cur, const uint8_t* ref, uint32_t stride, uint32_t) {
  uint32_t sum = 0;
  for (int y = 0; y < kSize; ++y) {
    const uint8_t* a = cur + size_t(y) * stride;
    const uint8_t* b = ref + size_t(y) * stride;
    for (int x = 0; x < kSize; ++x) {
      for (int c = 0; c < kBytes; ++c) sum += uint32_t(std::abs(int(a[x * 4 + c]) - int(b[x * 4 + c])));
    }
  }
  return sum;
}

}  // namespace

void zycSadPlain(zycSadKernels* kernels) {
  kernels->all[0] = SadPlain<4, 4>;
  kernels->all[1] = SadPlain<8, 4>;
  kernels->all[2] = SadPlain<16, 4>;
  kernels->colour[0] = SadPlain<4, 3>;
  kernels->colour[1] = SadPlain<8, 3>;
  kernels->colour[2] = SadPlain<16, 3>;
  for (zycFadeSadFn& f : kernels->fades) f = nullptr;
  kernels->simd = false;
}

#ifdef ZYL_NO_SIMD
// A build of plain kernels only has no SSE2 or AVX2 set to fill.
bool zycSadSse2(zycSadKernels*) { return false; }
bool zycSadAvx2(zycSadKernels*) { return false; }
#endif

void zycSadChoose(zycSadKernels* kernels, bool allowSimd) {
  zycSadPlain(kernels);
  if (!allowSimd) return;
  if (zycCpuHasAvx2() && zycSadAvx2(kernels)) return;
  if (zycCpuHasSse2()) zycSadSse2(kernels);
}

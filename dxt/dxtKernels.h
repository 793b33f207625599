// The kernels of the DXT1 back ends that have an SSE2 twin, in one table chosen by processor
// features, as the motion search keeps its zycSadKernels: the plain kernels are the reference
// and the SSE2 ones write the same bytes.
#pragma once

#include <cstdint>

// A whole level of "DXTC" 5 (see zycFastDxtPlain).
typedef void (*zycFastDxtFn)(const uint8_t* pixels, uint32_t width, uint32_t height,
                             uint8_t* blocks);
// The base-colour search's assignment of pixels to palette entries (see
// zycBaseColourAssignPlain).
typedef uint32_t (*zycBaseColourAssignFn)(const uint8_t pixels[64], uint32_t mask,
                                          const int palette[4][3], uint8_t indices[16]);

struct zycDxtKernels {
  zycFastDxtFn fastDxt = nullptr;
  zycBaseColourAssignFn baseColourAssign = nullptr;
  bool simd = false;
};

void zycDxtPlain(zycDxtKernels* kernels);
// Fills the SSE2 kernels; false (and nothing changed) in a build without SIMD.
bool zycDxtSse2(zycDxtKernels* kernels);
// The fastest set that the processor runs when `allowSimd`: SSE2 when it has it, else plain.
void zycDxtChoose(zycDxtKernels* kernels, bool allowSimd);
// The fastest set, chosen at the first call; a constant of the processor from then on.
const zycDxtKernels& zycDxtBest();

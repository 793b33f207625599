// The block decoder: turns the tree, motion, colour, fade and table streams of one frame and
// the previous picture into the next picture. One logic in six routines: 32, 24 and 16 bits a
// pixel, each with colour blocks from DXT1 words or from ready table blocks. Bit-exact. The
// 32-bit routines copy and fade squares with the kernel set named by the state's `kernels`:
// plain loops and tables, SSE2, or AVX2; all give the same pictures.
#pragma once

#include <cstdint>

struct zycFrameDecoder;

// The routines work on the decoder state: `src`, `dst`, the stream positions, `treeBits`,
// `fadeHalf`, the stop and resume words. They trust their streams and check nothing.
void zycDecodeBlocksDxt32(zycFrameDecoder& decoder);
void zycDecodeBlocksDxt24(zycFrameDecoder& decoder);
void zycDecodeBlocksDxt16(zycFrameDecoder& decoder);
void zycDecodeBlocksTable32(zycFrameDecoder& decoder);
void zycDecodeBlocksTable24(zycFrameDecoder& decoder);
void zycDecodeBlocksTable16(zycFrameDecoder& decoder);

// Kernel sets of the 32-bit routines, slowest first.
enum : uint8_t { kBlockKernelsPlain = 0, kBlockKernelsSse2 = 1, kBlockKernelsAvx2 = 2 };

// The fastest kernel set that this build and this processor have; Setup picks it.
uint8_t zycBestBlockKernels();

// The 32-bit routine of the DXT1 path, or with `tablePath` of the table path, on AVX2
// kernels. False, with nothing done, when the build has no AVX2 set (zycHasBlockKernelsAvx2);
// the caller checks the processor.
bool zycDecodeBlocks32Avx2(zycFrameDecoder& decoder, bool tablePath);
bool zycHasBlockKernelsAvx2();

// The four palette entries of a DXT1 block as 32-bit pixel words (low field in bits 0-7,
// middle in 8-15, high in 16-23, 0 above), YUV-converted when the state's `yuv` is set.
void zycDxt1Palette32(const zycFrameDecoder& decoder, uint32_t color0, uint32_t color1,
                      uint32_t palette[4]);

// The block decoder: turns the tree, motion, colour, fade and table streams of one frame and
// the previous picture into the next picture. One logic in six routines: 32, 24 and 16 bits a
// pixel, each with colour blocks from DXT1 words or from ready table blocks. Bit-exact.
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

// The four palette entries of a DXT1 block as 32-bit pixel words (low field in bits 0-7,
// middle in 8-15, high in 16-23, 0 above), YUV-converted when the state's `yuv` is set.
void zycDxt1Palette32(const zycFrameDecoder& decoder, uint32_t color0, uint32_t color1,
                      uint32_t palette[4]);

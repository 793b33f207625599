// The base-colour search DXT1 encoder ("DXTC" 6, and the pair matching of the still-image
// coder). Per 4x4 block it starts from the pixels with the greatest and the smallest weighted
// square 4 (b0^2 + 4 b1^2) + b2^2, then refines the two base colours by least squares on the
// weighted error 4 d0^2 + 16 d1^2 + d2^2, keeping whichever pair measures better. Search, no
// state.
#pragma once

#include <cstdint>

// Compresses a picture of `components` (3 or 4) bytes a pixel, rows packed, into DXT1 blocks
// in raster order, ceil(width / 4) x ceil(height / 4) of them, 8 bytes each: colour 0, colour
// 1 (little-endian 5-6-5, pixel byte 0 in the top five bits), then the index word, pixel 0 in
// the low bits. Blocks at the right and bottom edges are clipped: only pixels inside count.
// Blocks always have colour 0 > colour 1 (four-colour mode), or equal colours and all indices 0.
void zycCompressDxtn(int components, int width, int height, const uint8_t* pixels,
                     uint8_t* blocks);

// One block: `pixels` holds 16 pixels of 4 bytes (only the first three count), rows top first;
// bit k of `mask` says pixel k counts (mask 0 gives colour 0, colour 0, indices 0).
void zycBaseColourBlock(const uint8_t pixels[64], uint32_t mask, uint8_t block[8]);

// The two start colours of a block as 5-6-5 words (before ordering).
void zycBaseColourStartPair(const uint8_t pixels[64], uint32_t mask, uint16_t* first,
                            uint16_t* second);

// The weighted error of the counting pixels of a block against the colour pair (c0, c1) with
// the search's own palette: entries c0, c1, (2 c0 + c1) / 3 and (c0 + 2 c1) / 3 per channel,
// the thirds taken as x * 0x55555556 >> 32; each pixel takes its best entry. The pair is
// ordered first, as the encoder orders it; equal colours give the one-colour error.
uint32_t zycBaseColourPairError(const uint8_t pixels[64], uint32_t mask, uint16_t c0,
                                uint16_t c1);

// The kernel of the search: each counting pixel of a block (16 pixels of 4 bytes, only the first
// three count) takes the first of the four palette entries (channel values 0 to 255) with the
// smallest 4 d0^2 + 16 d1^2 + d2^2; pixels outside `mask` get index 0 and add nothing. Returns
// the summed error. The SSE2 kernel gives the same indices and sum as the plain one.
uint32_t zycBaseColourAssignPlain(const uint8_t pixels[64], uint32_t mask, const int palette[4][3],
                                  uint8_t indices[16]);
#if !defined(ZYL_NO_SIMD)
uint32_t zycBaseColourAssignSse2(const uint8_t pixels[64], uint32_t mask, const int palette[4][3],
                                 uint8_t indices[16]);
#endif

// The fixed-point YUV conversion of the block encoder: every block error, the source picture in
// YUV and the DXT1 previews are measured in it. Pixels are stored as the bytes U, Y, V, alpha.
// Bit-exact: the encoder's choices depend on every value. No state.
#pragma once

#include <cstdint>

// The pixel (b, g, r) as a little-endian word: U in byte 0, Y in byte 1, V in byte 2, 255 in
// byte 3. All arithmetic is on 32-bit unsigned integers with logical shifts:
//   T = 401 b + 2065 g + 1052 r
//   Y = (T + 0x10800) >> 12
//   U = (8312025 b - 2363 T + 0x80800000) >> 24
//   V = (10507932 r - 2987 T + 0x80800000) >> 24
uint32_t zycYuvPixel(uint8_t b, uint8_t g, uint8_t r);

// Converts `pixelCount` pixels of 4 bytes B, G, R, (any) into U, Y, V, 255. `source` and
// `destination` may be the same buffer. Eight pixels at a time with AVX2 where the processor
// has it; the same bytes as the plain loop below in every case.
void zycConvertToYuv(const uint8_t* source, uint8_t* destination, uint32_t pixelCount);
void zycConvertToYuvPlain(const uint8_t* source, uint8_t* destination, uint32_t pixelCount);

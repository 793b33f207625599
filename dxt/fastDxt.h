// The real-time min/max DXT1 encoder ("DXTC" 5): per 4x4 block the inset bounding box of the
// pixels gives the two colours, and each pixel takes the nearest of the four palette entries by
// the sum of absolute differences. Search, no state. The SSE2 kernel gives the same bytes as
// the plain one.
#pragma once

#include <cstdint>

// `pixels`: width x height pixels of 4 bytes, rows packed; byte 0 goes to the high five bits of
// the 5-6-5 colours, byte 1 to the middle six, byte 2 to the low five. width and height are
// multiples of 4. `blocks` receives (width / 4) x (height / 4) blocks of 8 bytes, raster order.
void zycFastDxtPlain(const uint8_t* pixels, uint32_t width, uint32_t height, uint8_t* blocks);
#if !defined(ZYL_NO_SIMD)
void zycFastDxtSse2(const uint8_t* pixels, uint32_t width, uint32_t height, uint8_t* blocks);
#endif

// The kernel of zycDxtBest.
void zycFastDxt(const uint8_t* pixels, uint32_t width, uint32_t height, uint8_t* blocks);

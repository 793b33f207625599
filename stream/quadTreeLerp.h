// The one interpolation step of the quad-tree reader, for leaves and seam ramps: `count` pixels
// from `from` towards `to` (32-bit words B, G, R, 255, B in the low byte), `shift` = log2 of
// the distance between the two. Per channel, with d = ((to - from) * 65536) >> shift, the first
// pixel is (from * 65536 + d / 2) >> 16 and each next one d further, in 16.16 fixed point.
// Pixel k goes to dst + k * stride. Bit-exact; the SSE2 kernel writes the same bytes as the
// plain one for every shift up to 15 and count up to 1 << shift, all the reader asks.
#pragma once

#include <cstddef>
#include <cstdint>

void zycQuadTreeLerpPlain(uint32_t from, uint32_t to, uint32_t shift, uint32_t count, uint8_t* dst,
                          ptrdiff_t stride);
#if !defined(ZYL_NO_SIMD) && defined(__x86_64__)
#define ZYL_QUAD_TREE_SSE2 1
void zycQuadTreeLerpSse2(uint32_t from, uint32_t to, uint32_t shift, uint32_t count, uint8_t* dst,
                         ptrdiff_t stride);
#endif

// The best kernel the machine has; every x86-64 processor has SSE2.
inline void zycQuadTreeLerp(uint32_t from, uint32_t to, uint32_t shift, uint32_t count,
                            uint8_t* dst, ptrdiff_t stride) {
#ifdef ZYL_QUAD_TREE_SSE2
  zycQuadTreeLerpSse2(from, to, shift, count, dst, stride);
#else
  zycQuadTreeLerpPlain(from, to, shift, count, dst, stride);
#endif
}

// Fixed tables of the frame decoder: motion vectors, thirds, tone curves, YUV conversion and
// clamps. Bit-exact.
#pragma once

#include <cstdint>

// The vectors that one-byte motion indices select, as (dx, dy), ordered by growing distance.
extern const int8_t kSmallMotionTable[256][2];

constexpr int kLargeMotionCount = 4096;

// The vectors of two-byte motion indices, as (dx, dy): for d from 0 to 2048, dy from -32 to
// 31, dx from -32 to 31, every (dx, dy) with dx * dx + dy * dy == d in that order.
void zycFillLargeMotionTable(int8_t table[kLargeMotionCount][2]);

// thirds[i] = (i + 1) / 3, truncated.
void zycFillThirds(uint8_t thirds[768]);

// Tone curves of the 16 fade levels: 0 darkens by 40%, 7 by 5%, 8 brightens by 5%, 15 by 40%.
void zycFillTone8(uint8_t tone8[16][256]);
// The same curves on 5-bit fields (result as a 5-bit value) and 6-bit fields (result already
// standing at bits 5-10 of an R5G6B5 word).
void zycFillTone5(uint8_t tone5[16][32]);
void zycFillTone6(uint32_t tone6[16][64]);

// Fixed-point YUV to RGB tables, entries for 0 to 255.
void zycFillYuvTables(int32_t Ytable[256], int32_t CrToR[256], int32_t CbToB[256],
                      int32_t CrToG[256], int32_t CbToG[256]);

// Clamp tables over -277 to 534, indexed by v + 277: clamp to 0..255, and the same grey as an
// R5G6B5 word (0 below 0, 65535 above 255).
void zycFillClamp(uint8_t clampTable[812]);
void zycFillClamp565(uint32_t clamp565[812]);

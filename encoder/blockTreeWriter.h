// The byte layout of a block tree frame's items: packed opcodes behind the flags byte, the
// colour item gathered from the DXT1 levels, and the packed fade levels. Bit-exact.
#pragma once

#include <cstdint>

struct zycBlock;

// Packs the opcodes at opcodes[1..length-1] four to a byte behind the flags byte, first opcode
// in bits 0-1, in place. `length` counts the flags byte. Returns the new length,
// ((length + 2) >> 2) + 1. High bits of the last byte that hold no opcode are 0.
uint32_t zycPackOpcodes(uint8_t* opcodes, uint32_t length);

// Packs 4-bit levels two to a byte in place, entry i in the low half of byte i / 2 for even i,
// the high half for odd i. Returns (length + 1) >> 1.
uint32_t zycPackFades(uint8_t* fades, uint32_t length);

// The colour item of `count` blocks: for block i of size s at (x, y), the DXT1 block number
// (y / s) * (paddedWidth / s) + x / s of the level of s; its first four bytes go to word i, its
// last four to word count + i. `out` receives 8 x count bytes.
void zycGatherColourItem(const zycBlock* const* blocks, uint32_t count,
                         const uint8_t* const levels[3], uint32_t paddedWidth, uint8_t* out);

// The frame flags of a block tree frame.
uint8_t zycBlockTreeFlags(uint32_t motionBytes, uint32_t dxtBlocks, uint32_t fadeBytes,
                          uint32_t pFrameFormat, bool hasSound);

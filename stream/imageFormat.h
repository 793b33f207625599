// The headers of the two images that frames carry: the still image of a key frame (both
// formats) and the table-block image of a ZYL0 P-frame's table item. Their writer and every
// reader go through these. Bit-exact: a change here changes files.
#pragma once

#include <cstdint>

#include "stream/zylFormat.h"

// Still image: this header, then a bit stream of 32-bit words, the surface table at
// `surfaceOffset` and the codebook (DXT1 blocks) at `codebookOffset`. Offsets count from the
// image's first byte. Byte 11 is a pad, written 0.
struct zycStillImageHeader {
  uint32_t magic = kStillImageMagic;
  uint32_t tableBytes = 0;  // the decoder's block table, a multiple of 48
  uint8_t imageVersion = kStillImageVersion;
  uint8_t surfaceBits = 0;  // width of a surface index
  uint8_t vqBits = 0;       // width of a codebook index
  uint32_t width = 0;       // u16: the rounded picture width
  uint32_t height = 0;      // u16
  uint32_t surfaceOffset = 0;
  uint32_t codebookCount = 0;
  uint32_t codebookOffset = 0;
};

// True when the four bytes at `in` are the still image magic.
bool zycHasStillImageMagic(const uint8_t* in);
void zycStoreStillImageHeader(const zycStillImageHeader& header,
                              uint8_t out[kStillImageHeaderBytes]);
zycStillImageHeader zycLoadStillImageHeader(const uint8_t in[kStillImageHeaderBytes]);

// Table-block image: this header, then `blockCount` indices of `indexBits` bits in 32-bit words,
// then `newCount` new entries (DXT1 blocks) at `newOffset`. Byte 3 is a pad, written 0.
struct zycTableImageHeader {
  uint8_t marker = 0;  // anything but 0: the frame's blocks are not decoded
  uint8_t reset = 0;   // non-zero: the block table's write position goes back to 0
  uint8_t indexBits = 0;
  uint32_t tableBytes = 0;   // the decoder's block table, a multiple of 48
  uint32_t tableOrigin = 0;  // byte position in the table of the entry index 0 means
  uint32_t blockCount = 0;
  uint32_t newCount = 0;
  uint32_t newOffset = 0;
};

void zycStoreTableImageHeader(const zycTableImageHeader& header,
                              uint8_t out[kTableImageHeaderBytes]);
zycTableImageHeader zycLoadTableImageHeader(const uint8_t in[kTableImageHeaderBytes]);

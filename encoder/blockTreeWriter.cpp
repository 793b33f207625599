#include "encoder/blockTreeWriter.h"

#include <cstring>

#include "encoder/motionSearch.h"
#include "encoder/sad.h"
#include "stream/zylFormat.h"

uint32_t zycPackOpcodes(uint8_t* opcodes, uint32_t length) {
  const uint32_t symbols = length - 1;
  const uint32_t packed = (symbols + 3) >> 2;
  for (uint32_t j = 0; j < packed; ++j) {
    uint8_t byte = 0;
    for (uint32_t k = 0; k < 4; ++k) {
      uint32_t i = j * 4 + k;
      if (i < symbols) byte |= uint8_t((opcodes[1 + i] & 3) << (2 * k));
    }
    opcodes[1 + j] = byte;
  }
  return ((length + 2) >> 2) + 1;
}

uint32_t zycPackFades(uint8_t* fades, uint32_t length) {
  const uint32_t packed = (length + 1) >> 1;
  for (uint32_t j = 0; j < packed; ++j) {
    uint8_t low = fades[2 * j] & 15;
    uint8_t high = 2 * j + 1 < length ? uint8_t(fades[2 * j + 1] & 15) : 0;
    fades[j] = uint8_t(low | high << 4);
  }
  return packed;
}

void zycGatherColourItem(const zycBlock* const* blocks, uint32_t count,
                         const uint8_t* const levels[3], uint32_t paddedWidth, uint8_t* out) {
  for (uint32_t i = 0; i < count; ++i) {
    const zycBlock& b = *blocks[i];
    const uint32_t s = uint32_t(b.size);
    const uint32_t number = (uint32_t(b.y) / s) * (paddedWidth / s) + uint32_t(b.x) / s;
    const uint8_t* block = levels[zycSizeLevel(b.size)] + size_t(number) * 8;
    std::memcpy(out + size_t(i) * 4, block, 4);
    std::memcpy(out + size_t(count + i) * 4, block + 4, 4);
  }
}

uint8_t zycBlockTreeFlags(uint32_t motionBytes, uint32_t dxtBlocks, uint32_t fadeBytes,
                          uint32_t pFrameFormat, bool hasSound) {
  uint8_t flags = kFrameFlagAlways;
  if (motionBytes) flags |= kFrameFlagMotion;
  if (dxtBlocks && pFrameFormat == 0) flags |= kFrameFlagColour;
  if (hasSound) flags |= kFrameFlagSound;
  if (fadeBytes) flags |= kFrameFlagFade;
  if (dxtBlocks && pFrameFormat != 0) flags |= kFrameFlagTable;
  return flags;
}

#include "mpmc/quadTreeWriter.h"

#include <cstring>

#include "stream/quadTreeFormat.h"

void zycQuadTreeWriter::Begin(uint8_t* image, uint32_t nodes) {
  out = image;
  treeField = zycQuadTreeTreeField(nodes);
  bit = 0;
  blocks = 0;
  zycStoreQuadTreeField(treeField, out);
  memset(out + kQuadTreeHeadBytes, 0, treeField);
}

void zycQuadTreeWriter::Node(bool split) {
  if (split) out[kQuadTreeHeadBytes + (bit >> 3)] |= uint8_t(0x80 >> (bit & 7));
  ++bit;
}

void zycQuadTreeWriter::Block(const uint8_t block[8]) {
  memcpy(out + Bytes(), block, kQuadTreeLeafBytes);
  ++blocks;
}

uint32_t zycQuadTreeWriter::Bytes() const {
  return kQuadTreeHeadBytes + treeField + blocks * kQuadTreeLeafBytes;
}

// Writer of quad-tree key-frame images (stream/quadTreeFormat.h): the tree bits and the leaf
// blocks are handed over in depth-first order and land in their two regions. Bit-exact.
#pragma once

#include <cstdint>

struct zycQuadTreeWriter {
  // Starts an image of `nodes` tree bits at `out`: writes L and zeroes the tree and padding.
  void Begin(uint8_t* out, uint32_t nodes);
  // The next node's bit, 1 for a split; bits fill each byte from the most significant down.
  void Node(bool split);
  // The next leaf's DXT1 block.
  void Block(const uint8_t block[8]);
  // Bytes written so far: 2 + L + 8 a block.
  uint32_t Bytes() const;

  uint8_t* out = nullptr;
  uint32_t treeField = 0;  // L
  uint32_t bit = 0;
  uint32_t blocks = 0;
};

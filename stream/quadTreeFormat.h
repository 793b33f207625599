// Layout of a quad-tree key-frame image: a big-endian 16-bit L, the tree bits (one a node in
// depth-first order, most significant bit first, 1 = split), zero padding so that the blocks
// start on a multiple of 4, then one 8-byte DXT1 block a leaf inside the picture. L counts the
// tree bytes and the padding. One root square covers the picture; its side is the power of two
// from 4 up that is at least the picture's larger side. Bit-exact.
#pragma once

#include <cstdint>

constexpr uint32_t kQuadTreeHeadBytes = 2;  // L
constexpr uint32_t kQuadTreeLeafBytes = 8;
constexpr uint32_t kQuadTreeMinSize = 4;  // the smallest square, one DXT1 block straight

// L, big-endian, unlike every other field of the movie.
inline void zycStoreQuadTreeField(uint32_t treeField, uint8_t out[kQuadTreeHeadBytes]) {
  out[0] = uint8_t(treeField >> 8);
  out[1] = uint8_t(treeField);
}
inline uint32_t zycLoadQuadTreeField(const uint8_t in[kQuadTreeHeadBytes]) {
  return uint32_t(in[0]) << 8 | in[1];
}

inline uint32_t zycQuadTreeRootSize(uint32_t width, uint32_t height) {
  const uint32_t side = width > height ? width : height;
  uint32_t rootSize = kQuadTreeMinSize;
  while (rootSize < side) rootSize *= 2;
  return rootSize;
}

// L: the tree bytes for `nodes` bits and the padding after them.
inline uint32_t zycQuadTreeTreeField(uint32_t nodes) {
  const uint32_t treeBytes = (nodes + 7) / 8;
  return (kQuadTreeHeadBytes + treeBytes + 3) / 4 * 4 - kQuadTreeHeadBytes;
}

// Bytes of the whole image.
inline uint32_t zycQuadTreeImageBytes(uint32_t nodes, uint32_t leafBlocks) {
  return kQuadTreeHeadBytes + zycQuadTreeTreeField(nodes) + leafBlocks * kQuadTreeLeafBytes;
}

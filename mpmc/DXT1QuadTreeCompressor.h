// DXT1QuadTreeCompressor: one whole picture under a byte budget as a quad tree whose leaves are
// DXT1 blocks (the layout is in stream/quadTreeFormat.h, the reader in stream/quadTreeReader.h).
// A leaf of any side holds one block made from the square averaged down to 4 x 4 cells. One
// threshold, ErrorMax, decides which squares stay whole; it is searched until the tree's size
// comes to the target. Each square is averaged and compressed at most once per call, however
// many passes the search takes. Search heuristics; the bytes go out through zycQuadTreeWriter.
#pragma once

#include <cstdint>
#include <vector>

struct zycQuadTreeWriter;

class DXT1QuadTreeCompressor {
 public:
  DXT1QuadTreeCompressor() = default;
  virtual ~DXT1QuadTreeCompressor() = default;
  DXT1QuadTreeCompressor(const DXT1QuadTreeCompressor&) = delete;
  DXT1QuadTreeCompressor& operator=(const DXT1QuadTreeCompressor&) = delete;

  // `pixels`: width x height pixels of 3 bytes B, G, R, rows packed. `out` must hold the result
  // (width * height * 8 + 10240 bytes is always enough for a picture padded to multiples of
  // 8); `outSize` receives the bytes written. The result may stay above `targetSize` when even
  // the smallest tree is larger. Prints the target and every pass of the search.
  void compress(const uint8_t* pixels, uint32_t width, uint32_t height, uint32_t targetSize,
                uint8_t* out, uint32_t* outSize);

  uint32_t rootSize = 0;
  const uint8_t* pixels = nullptr;
  uint32_t width = 0;
  uint32_t height = 0;

 private:
  struct Node {
    uint8_t evaluated;  // the fields below are valid (`error` only once `blockDone`)
    uint8_t blockDone;  // `block` holds the DXT1 data
    uint8_t split;      // result of the latest pass
    uint8_t partial;    // the square is not wholly inside the picture
    uint8_t outside;    // its top left corner is outside the picture
    uint8_t block[8];
    uint64_t error;       // squared error of the square as a leaf of flat cells
    uint64_t lowerBound;  // what `error` cannot go below: the spread of the pixels in their cells
  };
  struct Tally {
    uint32_t nodes = 0;
    uint32_t dataBytes = 0;
    uint32_t splits = 0;
  };

  Node& At(uint32_t level, uint32_t i, uint32_t j) { return levels[level][j * levelWide[level] + i]; }
  // Channel sums (R, G, B) of the 16 cells and the sum of all squared channel values; cells
  // outside the picture are left out of `mask` and of the sums.
  void SumCells(uint32_t i, uint32_t j, uint32_t size, uint64_t sums[16][3], uint64_t* squares,
                int* mask) const;
  void Evaluate(Node& node, uint32_t i, uint32_t j, uint32_t size);
  void MakeBlock(Node& node, uint32_t i, uint32_t j, uint32_t size);
  bool IsLeaf(Node& node, uint32_t i, uint32_t j, uint32_t size, uint64_t errorMax);
  Tally Visit(uint32_t level, uint32_t i, uint32_t j, uint32_t size, uint64_t errorMax);
  void Emit(uint32_t level, uint32_t i, uint32_t j, uint32_t size, zycQuadTreeWriter& writer);

  std::vector<std::vector<Node>> levels;
  std::vector<uint32_t> levelWide;
};

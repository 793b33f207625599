#include "mpmc/DXT1QuadTreeCompressor.h"

#include <cstring>

#include "base/consoleLog.h"
#include "dxt/squishFront.h"
#include "mpmc/quadTreeWriter.h"
#include "stream/quadTreeFormat.h"

void DXT1QuadTreeCompressor::SumCells(uint32_t i, uint32_t j, uint32_t size,
                                      uint64_t sums[16][3], uint64_t* squares, int* mask) const {
  const uint32_t c = size / 4, x0 = i * size, y0 = j * size;
  *squares = 0;
  *mask = 0;
  for (uint32_t cell = 0; cell < 16; ++cell) {
    sums[cell][0] = sums[cell][1] = sums[cell][2] = 0;
    const uint32_t cx = x0 + (cell % 4) * c, cy = y0 + (cell / 4) * c;
    if (cx >= width || cy >= height) continue;  // only for a 4-pixel square across the edge
    *mask |= 1 << cell;
    for (uint32_t y = cy; y < cy + c; ++y) {
      const uint8_t* p = pixels + (size_t(y) * width + cx) * 3;
      uint32_t b = 0, g = 0, r = 0, q = 0;
      for (uint32_t x = 0; x < c; ++x, p += 3) {
        b += p[0];
        g += p[1];
        r += p[2];
        q += uint32_t(p[0]) * p[0] + uint32_t(p[1]) * p[1] + uint32_t(p[2]) * p[2];
      }
      sums[cell][0] += r;
      sums[cell][1] += g;
      sums[cell][2] += b;
      *squares += q;
    }
  }
}

// Evaluating a whole square only measures the spread of its pixels around their cell means,
// which bounds `error` from below: the block is made when a pass needs the exact error, that
// is when the bound does not already exceed the threshold. A leaf of 4 pixels is a leaf
// whatever its error, so its block waits until it is written. Each square is averaged and
// compressed at most once all the same.
void DXT1QuadTreeCompressor::Evaluate(Node& node, uint32_t i, uint32_t j, uint32_t size) {
  if (uint64_t(i + 1) * size > width || uint64_t(j + 1) * size > height) {
    node.partial = 1;
    node.outside = uint64_t(i) * size >= width || uint64_t(j) * size >= height;
  } else {
    node.partial = 0;
    node.outside = 0;
    if (size > kQuadTreeMinSize && !node.blockDone) {
      uint64_t sums[16][3], squares;
      int mask;
      SumCells(i, j, size, sums, &squares, &mask);
      // sum (x - mean)^2 = sum x^2 - S^2 / n per cell and channel; S^2 / n rounded up.
      const uint64_t area = uint64_t(size / 4) * (size / 4);
      uint64_t spread = squares;
      for (uint32_t cell = 0; cell < 16; ++cell)
        for (int ch = 0; ch < 3; ++ch) spread -= (sums[cell][ch] * sums[cell][ch] + area - 1) / area;
      node.lowerBound = spread;
    }
  }
  node.evaluated = 1;
}

// The square's 4 x 4 cell averages ((sum + 0.5) / (c * c), truncated) go through squish as one
// DXT1 block; `error` is the squared distance of every source pixel to its cell's decoded pixel.
// A 4-pixel square across the picture's edge is coded from its pixels inside, the others masked.
void DXT1QuadTreeCompressor::MakeBlock(Node& node, uint32_t i, uint32_t j, uint32_t size) {
  const uint64_t area = uint64_t(size / 4) * (size / 4);
  uint64_t sums[16][3], squares;
  int mask;
  SumCells(i, j, size, sums, &squares, &mask);
  uint8_t rgba[64] = {};
  for (uint32_t cell = 0; cell < 16; ++cell) {
    if (!(mask & (1 << cell))) continue;
    for (int ch = 0; ch < 3; ++ch) rgba[4 * cell + ch] = uint8_t((2 * sums[cell][ch] + 1) / (2 * area));
    rgba[4 * cell + 3] = 255;
  }
  zycSquish::CompressMasked(rgba, mask, node.block, zycSquish::kDxt1);
  node.blockDone = 1;
  uint8_t decoded[64];
  zycSquish::Decompress(decoded, node.block, zycSquish::kDxt1);
  // Sum over the cell of (x - d)^2 = sum x^2 - 2 d sum x + n d^2, channel by channel.
  int64_t error = int64_t(squares);
  for (uint32_t cell = 0; cell < 16; ++cell) {
    if (!(mask & (1 << cell))) continue;
    for (int ch = 0; ch < 3; ++ch) {
      const int64_t d = decoded[4 * cell + ch];
      error += int64_t(area) * d * d - 2 * d * int64_t(sums[cell][ch]);
    }
  }
  node.error = uint64_t(error);
}

// A whole square stays a leaf when its error is within the threshold; a square of 4 always.
bool DXT1QuadTreeCompressor::IsLeaf(Node& node, uint32_t i, uint32_t j, uint32_t size,
                                    uint64_t errorMax) {
  if (size == kQuadTreeMinSize) return true;
  if (node.partial) return false;
  if (!node.blockDone) {
    if (node.lowerBound > errorMax) return false;
    MakeBlock(node, i, j, size);
  }
  return node.error <= errorMax;
}

DXT1QuadTreeCompressor::Tally DXT1QuadTreeCompressor::Visit(uint32_t level, uint32_t i,
                                                            uint32_t j, uint32_t size,
                                                            uint64_t errorMax) {
  Node& node = At(level, i, j);
  if (!node.evaluated) Evaluate(node, i, j, size);
  Tally tally;
  tally.nodes = 1;
  node.split = 0;
  if (node.outside) return tally;
  if (IsLeaf(node, i, j, size, errorMax)) {
    tally.dataBytes = kQuadTreeLeafBytes;
    return tally;
  }
  for (uint32_t child = 0; child < 4; ++child) {
    const Tally sub = Visit(level + 1, 2 * i + (child & 1), 2 * j + (child >> 1), size / 2, errorMax);
    tally.nodes += sub.nodes;
    tally.dataBytes += sub.dataBytes;
    tally.splits += sub.splits;
  }
  if (!node.partial) ++tally.splits;
  node.split = 1;
  return tally;
}

void DXT1QuadTreeCompressor::Emit(uint32_t level, uint32_t i, uint32_t j, uint32_t size,
                                  zycQuadTreeWriter& writer) {
  Node& node = At(level, i, j);
  writer.Node(node.split);
  if (node.outside) return;
  if (node.split) {
    for (uint32_t child = 0; child < 4; ++child)
      Emit(level + 1, 2 * i + (child & 1), 2 * j + (child >> 1), size / 2, writer);
    return;
  }
  if (!node.blockDone) MakeBlock(node, i, j, size);
  writer.Block(node.block);
}

void DXT1QuadTreeCompressor::compress(const uint8_t* pixels_, uint32_t width_, uint32_t height_,
                                      uint32_t targetSize, uint8_t* out, uint32_t* outSize) {
  zycLog("DXT1 QuadTree Compression. targetSize:%d\n", int(targetSize));
  pixels = pixels_;
  width = width_;
  height = height_;
  rootSize = zycQuadTreeRootSize(width, height);
  const uint32_t rootW = (width + rootSize - 1) / rootSize;
  const uint32_t rootH = (height + rootSize - 1) / rootSize;
  uint32_t levelCount = 1;
  while ((kQuadTreeMinSize << (levelCount - 1)) < rootSize) ++levelCount;

  levels.assign(levelCount, {});
  levelWide.assign(levelCount, 0);
  for (uint32_t level = 0; level < levelCount; ++level) {
    levelWide[level] = rootW << level;
    levels[level].assign(size_t(rootW << level) * (rootH << level), Node{});
  }

  // ErrorMax strides upward at doubling steps until the tree fits, then bisects between the
  // last threshold that overflowed and the one that fits.
  uint64_t errorMax = 0, lower = 0, step = uint64_t(width) * height / 4;
  bool growing = true;
  Tally tally;
  for (;;) {
    tally = Tally{};
    for (uint32_t j = 0; j < rootH; ++j)
      for (uint32_t i = 0; i < rootW; ++i) {
        const Tally root = Visit(0, i, j, rootSize, errorMax);
        tally.nodes += root.nodes;
        tally.dataBytes += root.dataBytes;
        tally.splits += root.splits;
      }
    const uint32_t size = zycQuadTreeImageBytes(tally.nodes, tally.dataBytes / kQuadTreeLeafBytes);
    zycLog("ErrorMax:%lld   Size:%d\n", static_cast<long long>(errorMax), int(size));
    if (size > targetSize) {
      if (tally.splits == 0) break;  // no merge left
      lower = errorMax;
      errorMax += step;
      if (growing) step *= 2;
    } else {
      if (targetSize - size <= 4) break;
      const uint64_t diff = errorMax - lower;
      if (diff <= 1) break;
      const uint64_t mid = lower + diff / 2;
      step = (errorMax - mid - 1) / 2;
      if (step == 0) step = 1;
      errorMax = mid;
      growing = false;
    }
  }

  zycQuadTreeWriter writer;
  writer.Begin(out, tally.nodes);
  for (uint32_t j = 0; j < rootH; ++j)
    for (uint32_t i = 0; i < rootW; ++i) Emit(0, i, j, rootSize, writer);
  *outSize = writer.Bytes();
  levels.clear();
  levels.shrink_to_fit();
  levelWide.clear();
}

// The block tree of a picture: for every 16, 8 and 4 pixel square the best motion copy, the best
// faded copy and the error of one DXT1 block of its scale; and the two walks that turn the tree
// into lists for one error threshold: one tree symbol (kSymbol*) a byte, the motion indices in
// their file form, one fade level a byte, and the blocks behind them. Search heuristics: the
// encoder's rate loop packs the symbols and fade levels and gathers the colour item with
// blockTreeWriter, and the section packer writes the items.
#pragma once

#include <cstdint>
#include <vector>

#include "base/growableArray.h"
#include "encoder/sad.h"

struct zycBlock {
  int32_t size = 0;
  int32_t x = 0;
  int32_t y = 0;
  uint32_t motionIndex = 0;
  uint32_t motionError = 0;
  uint32_t fadeMotionIndex = 0;
  uint32_t fadeError = 0;
  uint32_t fadeIndex = 0;
  uint32_t dxtError = 0;
  zycBlock* children = nullptr;  // four, or null
};

// The start value of a block's errors: above anything a square of `size` can reach.
inline uint32_t zycErrorStart(int32_t size) { return uint32_t(size * size) * 0x30000u; }
// The start value of errorNext: that of a 16-pixel square.
constexpr uint32_t kErrorNextStart = 16u * 16u * 0x30000u;

// Children are taken four at a time from a pool sized for a full tree under every top block;
// the pool is emptied when the tree of a frame is dropped.
// A part of the pool holds the nodes of a run of top blocks, so that threads searching
// different top blocks take from different parts.
class zycBlockPool {
 public:
  void Allocate(uint32_t topBlocks, int32_t blockMax, int32_t blockMin);
  // A pool over the nodes of top blocks [firstTop, firstTop + count) of this one; it owns
  // nothing and stays valid while this pool keeps its allocation.
  zycBlockPool Part(uint32_t firstTop, uint32_t count) const;
  zycBlock* TakeFour();
  void Reset() { used_ = 0; }

 private:
  std::vector<zycBlock> nodes_;
  zycBlock* first_ = nullptr;
  uint32_t capacity_ = 0;
  uint32_t perTop_ = 0;
  uint32_t used_ = 0;
};

// Sums of the U, Y and V bytes over squares of a picture, from a summed-area table. The sum
// difference of two squares is a lower bound of their sum of absolute differences, which lets the
// search skip a comparison that could not win without changing any result.
class zycBlockSums {
 public:
  void Build(const uint8_t* picture, uint32_t width, uint32_t height);
  uint32_t Sum(int32_t x, int32_t y, int32_t size) const {
    const uint32_t* top = table_.data() + size_t(y) * stride_ + x;
    const uint32_t* bottom = top + size_t(size) * stride_;
    return bottom[size] - bottom[0] - top[size] + top[0];
  }
  bool empty() const { return table_.empty(); }

 private:
  std::vector<uint32_t> table_;
  uint32_t stride_ = 0;
};

// The same sums for the 16 fades of a picture, interleaved so that the 16 sums of one corner
// are one run of 32 bytes. The table holds 16-bit words and wraps: a square of 4 or 8 pixels sums
// to at most 48960, so its sum comes out exact from wrapped corners; a square of 16 is the sum
// of its four squares of 8.
class zycFadeSums {
 public:
  void Build(const uint8_t* const pictures[16], uint32_t width, uint32_t height);
  // The table of rows [drop, drop + kept) of the pictures it was built over, followed by rows
  // [kept, height) of `pictures`, which now start at that first kept row: a band of rows moving
  // down a picture keeps what it had made. Sums of squares come out as from Build.
  void Continue(const uint8_t* const pictures[16], uint32_t width, uint32_t drop, uint32_t kept,
                uint32_t height);
  void Sums(int32_t x, int32_t y, int32_t size, uint32_t out[16]) const;
  // Bit f set when the sum of fade f's square differs from `sum` by less than `limit`: the
  // fades whose comparison could still win.
  uint32_t Candidates(int32_t x, int32_t y, int32_t size, uint32_t sum, uint32_t limit) const;

 private:
  const uint16_t* Corner(int32_t x, int32_t y) const {
    return table_.data() + (size_t(y) * stride_ + x) * 16;
  }
  std::vector<uint16_t> table_;
  uint32_t stride_ = 0;
};

// What one search works on. Pictures are 4 bytes a pixel (U, Y, V, 255), `paddedWidth` x
// `paddedHeight`, rows 4 x `paddedWidth` bytes apart.
struct zycMotionSearch {
  const uint8_t* sourceYuv = nullptr;
  const uint8_t* references[17] = {};
  const uint8_t* dxtPreview[3] = {};
  uint32_t paddedWidth = 0;
  uint32_t paddedHeight = 0;
  const int8_t (*table)[2] = nullptr;  // candidate vectors (dx, dy) in table order
  uint32_t count = 0;                  // candidates tried
  int32_t blockMin = 4;
  bool noFade = false;
  bool searchOff = false;
  bool skipDxtError = false;
  zycSadKernels kernels;
  zycBlockPool* pool = nullptr;
  // With sums of the source and of the references, comparisons that the sums show can't win
  // are skipped; the tree is the same with or without.
  const zycBlockSums* sourceSums = nullptr;
  const zycBlockSums* referenceSums = nullptr;  // references[0]
  const zycFadeSums* fadeSums = nullptr;        // references[1] to [16]
  // The fades, references[1] to [16], and their sums may hold a band of rows only: their row 0
  // is the picture's row `fadeTop`.
  uint32_t fadeTop = 0;

  // Searches a square whose size, x and y are set, and its subtree. Returns 0 when the square
  // has a perfect copy, else the smallest motion error of the square and its subtree.
  uint32_t SearchBlock(zycBlock& block) const;
};

// The arrays that a walk fills: opcodes (first byte reserved for the frame flags), motion
// indices, fade levels, and the blocks behind motion and colour opcodes.
struct zycFrameLists {
  zycGrowableArray<uint8_t> opcodes;
  zycGrowableArray<uint8_t> motionBytes;
  zycGrowableArray<uint8_t> fadeBytes;
  zycGrowableArray<const zycBlock*> motionBlocks;
  zycGrowableArray<const zycBlock*> dxtList;

  bool Reserve(uint32_t entries);
  // Empties all five; opcodes keeps one byte, the flags.
  void Clear();
};

struct zycWalk {
  zycFrameLists* lists = nullptr;
  int32_t blockMin = 4;
  bool motionByte = true;  // false: motion indices are two bytes, low byte first

  // Key frame walk: every leaf is a colour block.
  void KeyBlock(const zycBlock& block, uint32_t threshold, uint32_t& errorNext) const;
  // P-frame walk. Returns 1 when the block came out as one plain copy.
  uint32_t PBlock(const zycBlock& block, uint32_t threshold, uint32_t& errorNext) const;

 private:
  void PushMotion(uint32_t index) const;
};

// Table-block images: their budget, the rounds, and the chain checked against a block table ring
// kept here from the image headers alone, as a player keeps it.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "tests/stream/dxt1Rules.h"
#include "tests/vq/stillTestSupport.h"
#include "vq/VQCodebook.h"
#include "vq/VQSLSQCompressor.h"

namespace {

uint32_t load32(const uint8_t* p) { return uint32_t(p[0]) | p[1] << 8 | p[2] << 16 | uint32_t(p[3]) << 24; }

// The 4x4 blocks (48 bytes each) of a cut of a photograph, in raster order.
std::vector<uint8_t> PhotoBlocks(uint32_t x, uint32_t y, uint32_t width, uint32_t height) {
  const StillPicture p = photoPicture("photo_astronaut_512x512.png", x, y, width, height);
  std::vector<uint8_t> blocks;
  if (p.pixels.empty()) return blocks;
  for (uint32_t by = 0; by < height; by += 4)
    for (uint32_t bx = 0; bx < width; bx += 4)
      for (uint32_t row = 0; row < 4; ++row) {
        const uint8_t* line = &p.pixels[(size_t(by + row) * width + bx) * 3];
        blocks.insert(blocks.end(), line, line + 12);
      }
  return blocks;
}

// A player's block table: a ring of 48-byte entries filled and read from the table images.
struct Ring {
  std::vector<uint8_t> table;
  uint32_t writePos = 0;

  static void Expand(const uint8_t* block, uint8_t* out) {
    const auto palette = dxt1Palette(uint16_t(block[0] | block[1] << 8), uint16_t(block[2] | block[3] << 8),
                                     Thirds::truncated);
    for (int i = 0; i < 16; ++i)
      for (int f = 0; f < 3; ++f) out[3 * i + f] = uint8_t(palette[(block[4 + i / 4] >> (2 * (i % 4))) & 3][f]);
  }

  // The blocks an image means, 48 bytes each.
  std::vector<uint8_t> Read(const std::vector<uint8_t>& image) {
    const uint32_t size = load32(&image[4]), origin = load32(&image[8]);
    const uint32_t count = load32(&image[12]), fresh = load32(&image[16]);
    const uint32_t bits = image[2];
    if (table.size() < size) table.resize(size, 0);
    if (image[1]) writePos = 0;
    for (uint32_t k = 0; k < fresh; ++k) {
      if (writePos + 48 > size) writePos = 0;  // the ring's tail holds whole entries only
      Expand(&image[load32(&image[20]) + 8 * k], &table[writePos]);
      writePos += 48;
    }
    std::vector<uint8_t> out;
    uint64_t position = 0;
    const int64_t entries = size / 48, ahead = (int64_t(size) - origin) / 48;
    for (uint32_t b = 0; b < count; ++b) {
      uint32_t value = 0;
      for (uint32_t i = 0; i < bits; ++i, ++position) {
        const uint32_t word = load32(&image[24 + (position >> 5) * 4]);
        value = value << 1 | ((word >> (31 - (position & 31))) & 1);
      }
      int64_t index = value;
      if (index >= ahead) index -= entries;
      const uint8_t* entry = &table[size_t(int64_t(origin) + index * 48)];
      out.insert(out.end(), entry, entry + 48);
    }
    return out;
  }
};

float Distance(const uint8_t* a, const uint8_t* b) {
  float va[48], vb[48];
  for (int i = 0; i < 48; ++i) {
    va[i] = a[i];
    vb[i] = b[i];
  }
  return vqDistance(va, vb);
}

double SquaredError(const std::vector<uint8_t>& blocks, const std::vector<uint8_t>& decoded) {
  double sum = 0.0;
  for (size_t b = 0; b < blocks.size() / 48; ++b) sum += Distance(&blocks[b * 48], &decoded[b * 48]);
  return sum;
}

// A pan over a photograph in a small ring: the still image's codebook drops out before any
// table, the ring wraps several times, a reset restarts it, and every frame's indices, read
// from a ring kept from the headers alone, mean exactly the vectors the compressor chose.
TEST(TableFrames, ChainFollowsThePlayersRing) {
  VQSLSQCompressor c(true);
  c.verbose = false;
  c.tableLimit = 48 * 400;
  const StillPicture still = photoPicture("photo_astronaut_512x512.png", 0, 0, 64, 64);
  std::vector<uint8_t> image;
  c.compress(still.pixels.data(), 64, 64, 1200, image);
  ASSERT_GT(load32(&image[20]), 0u);
  Ring ring;
  ring.table.assign(c.tableLimit, 0);
  for (uint32_t k = 0; k < load32(&image[20]); ++k)
    Ring::Expand(&image[load32(&image[24]) + 8 * k], &ring.table[k * 48]);
  ring.writePos = load32(&image[20]) * 48;

  bool stillDroppedFirst = false, wrapped = false;
  for (uint32_t f = 1; f <= 12; ++f) {
    const std::vector<uint8_t> blocks = PhotoBlocks(4 * f, 3 * f, 64, 64);
    // Frame 9 restarts the chain, as a key frame made of blocks does.
    const bool reset = f == 9;
    c.compressPFrame(blocks.data(), 256, reset, 1200, image);
    EXPECT_EQ(image[1], reset ? 1 : 0);
    const auto s = c.pFrameStatistics();
    if (reset) {
      // A reset is one round of new vectors only, written from the ring's start.
      EXPECT_EQ(s.oldCount, 0u);
      EXPECT_EQ(s.oldHits, 0u);
      EXPECT_EQ(s.rounds, 1u);
      EXPECT_EQ(load32(&image[8]), 0u);
      EXPECT_EQ(load32(&image[16]), s.newCount);
    }
    EXPECT_EQ(SquaredError(blocks, ring.Read(image)), s.squaredError) << "frame " << f;
    EXPECT_LE(load32(&image[8]), load32(&image[4]));
    const bool stillBefore = c.stillInChain;
    const uint32_t tablesBefore = c.tableCount;
    c.commitPFrame();
    if (stillBefore && !c.stillInChain) stillDroppedFirst = c.tableCount == tablesBefore + 1;
    if (c.droppedBytes > c.tableLimit) wrapped = true;
    EXPECT_EQ(c.ringWritePos, ring.writePos);
  }
  EXPECT_TRUE(stillDroppedFirst);
  EXPECT_TRUE(wrapped);
}

}  // namespace

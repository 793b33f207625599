// The quad-tree image reader on hand-built images: interpolated leaves with their bands and
// corners, seam ramps between leaves of equal and of different sizes, clipped leaves, and the
// refusals of broken images.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

#include "stream/quadTreeLerp.h"
#include "stream/quadTreeReader.h"

namespace {

using Bytes = std::vector<uint8_t>;

// A DXT1 block: two R5G6B5 colours and one index byte repeated for the four rows.
Bytes Block(uint16_t colour0, uint16_t colour1, uint8_t rowIndices) {
  return {uint8_t(colour0), uint8_t(colour0 >> 8), uint8_t(colour1), uint8_t(colour1 >> 8),
          rowIndices, rowIndices, rowIndices, rowIndices};
}
const Bytes kBlack = Block(0, 0, 0);
const Bytes kWhite = Block(0xFFFF, 0xFFFF, 0);
// White, black, 170, 85 in that palette; the row reads 255, 170, 85, 0.
const Bytes kRamp = Block(0xFFFF, 0x0000, 0 | 2 << 2 | 3 << 4 | 1 << 6);

Bytes Image(Bytes tree, const std::vector<Bytes>& blocks) {
  Bytes image = tree;
  for (const Bytes& block : blocks) image.insert(image.end(), block.begin(), block.end());
  return image;
}

struct GreyCase {
  const char* name;
  uint32_t width, height;
  Bytes image;
  std::function<uint8_t(uint32_t x, uint32_t y)> grey;  // the expected picture
};

uint8_t Pick(const std::vector<uint8_t>& row, uint32_t x) { return row[x]; }
const std::vector<GreyCase>& GreyCases() {
  static const std::vector<GreyCase> cases = {
      // One leaf of 8: centres 2 apart, one band pixel each side, corners flat.
      {"leafOf8", 8, 8, Image({0, 2, 0x00, 0}, {kRamp}),
       [](uint32_t x, uint32_t y) {
         const bool edge = y == 0 || y == 7;
         return Pick({uint8_t(edge ? 255 : 233), 233, 191, 148, 106, 63, 21, uint8_t(edge ? 0 : 21)}, x);
       }},
      // One leaf of 16: two band rows and columns on each side, every one of them repeating
      // the nearest interpolated pixel; the 2 x 2 corners take the block's corners.
      {"leafOf16", 16, 16, Image({0, 2, 0x00, 0}, {kRamp}),
       [](uint32_t x, uint32_t y) {
         const std::vector<uint8_t> inner = {244, 244, 244, 223, 201, 180, 159, 138,
                                             116, 95,  74,  53,  31,  10,  10,  10};
         const bool edge = y < 2 || y > 13;
         return edge && x < 2 ? 255 : edge && x > 13 ? 0 : inner[x];
       }},
      // Four leaves of 8, black left of a white right: l = 0, r = 255, m = 127; the ramps put
      // 63 and 191 on the two sides of the seam. The horizontal seam joins equal pixels.
      {"seamOf8", 16, 16, Image({0, 2, 0x80, 0}, {kBlack, kWhite, kBlack, kWhite}),
       [](uint32_t x, uint32_t) { return x < 7 ? 0 : x == 7 ? 63 : x == 8 ? 191 : 255; }},
      // The top left quarter split into four leaves of 4. Above row 8 the seam pixel of the
      // leaf of 4 is l itself and gets no ramp; the right side ramps to 191. Then the
      // horizontal seam at column 7 joins the 4-leaf's 0 with the 63 below it: m = 31, and
      // the row under the seam becomes 31 + 16.
      {"seamOf4And8", 16, 16,
       Image({0, 2, 0xC0, 0x00}, {kBlack, kBlack, kBlack, kBlack, kWhite, kBlack, kWhite}),
       [](uint32_t x, uint32_t y) {
         if (x < 7) return 0;
         if (x > 8) return 255;
         if (x == 8) return 191;
         return y < 8 ? 0 : y == 8 ? 47 : 63;
       }},
      // The bottom right quarter split into four white leaves of 4, the rest black leaves of 8.
      // Each seam between an 8 and a 4 ramps only on the 8's side: its pixel at the seam goes
      // half way to m = 127, 63. The horizontal seam then meets that column at (7, 7) and (7, 8).
      {"seamOf8And4", 16, 16,
       Image({0, 2, 0x88, 0x00}, {kBlack, kBlack, kBlack, kWhite, kWhite, kWhite, kWhite}),
       [](uint32_t x, uint32_t y) {
         if (x >= 8 && y >= 8) return 255;
         if (x == 7 && y == 7) return 15;
         if (x == 7 && y == 8) return 47;
         return (x >= 8 && y == 7) || (x == 7 && y > 8) ? 63 : 0;
       }},
      // 6 x 6 under a root of 8: four leaves of 4, three of them cut by the picture's edge.
      {"clippedLeaves", 6, 6, Image({0, 2, 0x80, 0}, {kBlack, kWhite, kWhite, kBlack}),
       [](uint32_t x, uint32_t y) { return (x < 4) == (y < 4) ? 0 : 255; }},
  };
  return cases;
}

class QuadTreeGrey : public testing::TestWithParam<size_t> {};

TEST_P(QuadTreeGrey, DecodesToTheHandWorkedPicture) {
  const GreyCase& c = GreyCases()[GetParam()];
  zycQuadTreeReader reader;
  ASSERT_TRUE(reader.Setup(c.width, c.height));
  for (uint8_t fill : {0x00, 0x5A}) {
    std::vector<uint8_t> pixels(size_t(c.width) * c.height * 4, fill);
    ASSERT_EQ(reader.Decode(c.image.data(), uint32_t(c.image.size()), c.width, c.height,
                            pixels.data(), c.width * 4),
              nullptr);
    for (uint32_t y = 0; y < c.height; ++y)
      for (uint32_t x = 0; x < c.width; ++x) {
        const uint8_t g = c.grey(x, y);
        const uint8_t* p = &pixels[(size_t(y) * c.width + x) * 4];
        ASSERT_EQ(std::vector<uint8_t>(p, p + 4), (std::vector<uint8_t>{g, g, g, 255}))
            << c.name << " at " << x << "," << y;
      }
  }
  reader.Release();
}

INSTANTIATE_TEST_SUITE_P(HandBuilt, QuadTreeGrey, testing::Range<size_t>(0, 6),
                         [](const testing::TestParamInfo<size_t>& info) {
                           return std::string(GreyCases()[info.param].name);
                         });

TEST(QuadTreeReader, RefusesBrokenImagesByName) {
  struct Broken {
    uint32_t width, height, pitch;
    Bytes image;
    const char* message;
  };
  const Broken cases[] = {
      {8, 8, 32, {0}, "image shorter than its header"},
      {8, 8, 32, {1, 0, 0, 0}, "tree bytes past the image"},
      {8, 8, 32, {0, 0}, "tree bits past L"},
      {8, 8, 32, {0, 2, 0x00, 0}, "too few leaf blocks"},
      {8, 8, 32, Image({0, 2, 0x80, 0}, {kBlack, kBlack, kBlack}), "too few leaf blocks"},
      {8, 8, 32, {0, 2, 0xC0, 0}, "split bit on a 4-pixel square"},
      {12, 12, 48, Image({0, 2, 0x00, 0}, {kBlack}), "leaf across the picture's edge"},
      {8, 4, 32, Image({0, 2, 0x90, 0}, {kBlack, kBlack}), "split bit on a square outside the picture"},
      {32, 16, 128, Image({0, 2, 0x00, 0}, {kBlack}), "picture larger than Setup"},
      {16, 16, 60, Image({0, 2, 0x00, 0}, {kBlack}), "pitch shorter than a row"},
  };
  zycQuadTreeReader reader;
  ASSERT_TRUE(reader.Setup(16, 16));
  std::vector<uint8_t> pixels(32 * 16 * 4);
  for (const Broken& c : cases)
    EXPECT_STREQ(reader.Decode(c.image.data(), uint32_t(c.image.size()), c.width, c.height,
                               pixels.data(), c.pitch),
                 c.message);
  reader.Release();
}

#ifdef ZYL_QUAD_TREE_SSE2
// Every run the reader asks (count = 1 << shift, leaves up to 32768 across), from random pixels.
TEST(QuadTreeReader, Sse2RampsWriteThePlainBytes) {
  std::mt19937 random(7);
  std::vector<uint8_t> plain(4 << 13), sse2(4 << 13);
  for (uint32_t shift = 0; shift <= 13; ++shift)
    for (int n = 0; n < 300; ++n) {
      const uint32_t from = uint32_t(random()) | 0xFF000000u, to = uint32_t(random()) | 0xFF000000u;
      zycQuadTreeLerpPlain(from, to, shift, 1u << shift, plain.data(), 4);
      zycQuadTreeLerpSse2(from, to, shift, 1u << shift, sse2.data(), 4);
      ASSERT_EQ(memcmp(plain.data(), sse2.data(), 4u << shift), 0) << "shift " << shift;
    }
}
#endif

}  // namespace

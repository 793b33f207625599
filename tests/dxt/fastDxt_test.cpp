#include "dxt/fastDxt.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "dxt/dxtKernels.h"
#include "tests/support/imageLoad.h"
#include "tests/support/testMedia.h"

namespace {

// The plain kernels, then the SSE2 ones where this build has them.
std::vector<zycDxtKernels> DxtKernelSets() {
  std::vector<zycDxtKernels> sets(1);
  zycDxtPlain(&sets[0]);
  zycDxtKernels fast;
  if (zycDxtSse2(&fast)) sets.push_back(fast);
  return sets;
}

// Swaps to the red-first order that the encoder hands over.
std::vector<uint8_t> redFirst(const zylTestImage& image) {
  std::vector<uint8_t> out = image.pixels;
  for (size_t i = 0; i < out.size(); i += 4) std::swap(out[i], out[i + 2]);
  return out;
}

}  // namespace

// Block worked out by hand: minimum (40, 60, 50), maximum (200, 100, 80), inset (10, 2, 1),
// colours (190, 98, 79) -> 0xBB09 and (50, 62, 51) -> 0x31E6, palette (189, 97, 74),
// (49, 60, 49), (142, 84, 65), (95, 72, 57).
TEST(FastDxt, InsetColoursAndIndexRuleOnAHandBlock) {
  const uint8_t a[4] = {200, 100, 50, 255}, b[4] = {40, 60, 80, 255};
  const uint8_t c[4] = {140, 85, 65, 255}, d[4] = {95, 72, 57, 255};
  std::vector<uint8_t> pixels;
  const uint8_t* order[16] = {a, b, c, d, a, a, a, a, a, a, a, a, a, a, a, a};
  for (const uint8_t* p : order) pixels.insert(pixels.end(), p, p + 4);
  const uint8_t want[8] = {0x09, 0xBB, 0xE6, 0x31, 0xE4, 0x00, 0x00, 0x00};
  for (const zycDxtKernels& kernels : DxtKernelSets()) {
    uint8_t block[8];
    kernels.fastDxt(pixels.data(), 4, 4, block);
    for (int i = 0; i < 8; ++i) EXPECT_EQ(block[i], want[i]) << "byte " << i;
  }
}

TEST(FastDxt, BlocksInRasterOrderOfTheLevel) {
  // 8x4: left block all black, right block all white.
  std::vector<uint8_t> pixels(8 * 4 * 4, 255);
  for (int y = 0; y < 4; ++y) {
    for (int x = 0; x < 4; ++x) {
      for (int c = 0; c < 3; ++c) pixels[(y * 8 + x) * 4 + c] = 0;
    }
  }
  uint8_t blocks[16];
  zycFastDxt(pixels.data(), 8, 4, blocks);
  EXPECT_EQ(blocks[0] | blocks[1] << 8, 0);
  EXPECT_EQ(blocks[8] | blocks[9] << 8, 0xFFFF);
}

// Photographs, and a picture of full-range noise, low-contrast and saturated blocks.
TEST(FastDxt, SseAndPlainGiveTheSameBlocks) {
  const std::vector<zycDxtKernels> sets = DxtKernelSets();
  if (sets.size() < 2) GTEST_SKIP() << "no SSE2 in this build";
  std::vector<std::vector<uint8_t>> pictures;  // each 256 x 192
  for (const char* name : {"photo_coffee_600x400.png", "photo_astronaut_512x512.png",
                           "photo_flower_2268x1512.png"}) {
    zylTestImage photo;
    ASSERT_TRUE(zylLoadPng(zylMediaPath(name), &photo)) << name;
    pictures.push_back(redFirst(zylCropImage(photo, 0, 0, 256, 192)));
  }
  std::mt19937 random(7);
  std::vector<uint8_t> noise(256 * 192 * 4);
  for (size_t i = 0; i < noise.size(); ++i) {
    const uint32_t r = random();
    const size_t block = (i / 4 % 256) / 4 + (i / 4 / 256) / 4 * 64;
    switch (block % 3) {
      case 0: noise[i] = uint8_t(r); break;
      case 1: noise[i] = uint8_t(120 + r % 9); break;
      default: noise[i] = (r & 1) ? 255 : 0; break;
    }
  }
  pictures.push_back(noise);
  for (size_t k = 0; k < pictures.size(); ++k) {
    std::vector<uint8_t> plain(64 * 48 * 8), sse(64 * 48 * 8, 0xCD);
    sets[0].fastDxt(pictures[k].data(), 256, 192, plain.data());
    sets[1].fastDxt(pictures[k].data(), 256, 192, sse.data());
    EXPECT_EQ(plain, sse) << "picture " << k;
  }
}

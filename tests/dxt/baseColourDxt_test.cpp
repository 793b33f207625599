#include "dxt/baseColourDxt.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "dxt/dxtKernels.h"
#include "tests/stream/dxt1Rules.h"
#include "tests/support/digest.h"
#include "tests/support/imageLoad.h"
#include "tests/support/testMedia.h"

namespace {

uint16_t word16(const uint8_t* p) { return uint16_t(p[0] | p[1] << 8); }
uint32_t word32(const uint8_t* p) { return uint32_t(p[0] | p[1] << 8 | p[2] << 16 | p[3] << 24); }

// The 16 pixels (4 bytes each) of the block at (x, y) of a packed 4-byte picture.
void gather(const zylTestImage& image, uint32_t x, uint32_t y, uint8_t out[64]) {
  for (int k = 0; k < 16; ++k) {
    std::memcpy(out + 4 * k, image.pixels.data() + ((y + k / 4) * image.width + x + k % 4) * 4, 4);
  }
}

// The weighted error of a block as written, each pixel taken at the entry its index names,
// with the search's palette: four-colour mode, thirds truncated.
uint32_t errorAsWritten(const uint8_t pixels[64], uint32_t mask, const uint8_t block[8]) {
  const auto pal = dxt1Palette(word16(block), word16(block + 2), Thirds::truncated);
  const uint32_t indices = word32(block + 4);
  uint32_t total = 0;
  for (int k = 0; k < 16; ++k) {
    if (!(mask >> k & 1)) continue;
    const auto& e = pal[indices >> (2 * k) & 3];
    const int d0 = pixels[4 * k] - e[0], d1 = pixels[4 * k + 1] - e[1], d2 = pixels[4 * k + 2] - e[2];
    total += uint32_t(4 * d0 * d0 + 16 * d1 * d1 + d2 * d2);
  }
  return total;
}

}  // namespace

TEST(BaseColourDxt, NeverWorseThanItsStartPairOnPhotographs) {
  zylTestImage photo;
  ASSERT_TRUE(zylLoadPng(zylMediaPath("photo_astronaut_512x512.png"), &photo));
  const zylTestImage crop = zylCropImage(photo, 128, 64, 128, 128);
  uint64_t startTotal = 0, finalTotal = 0;
  uint32_t digest = kZylDigestStart;  // of every block, as the first working search wrote them
  for (uint32_t y = 0; y < 128; y += 4) {
    for (uint32_t x = 0; x < 128; x += 4) {
      uint8_t pixels[64], block[8];
      gather(crop, x, y, pixels);
      zycBaseColourBlock(pixels, 0xFFFF, block);
      digest = zylDigest(block, sizeof block, digest);
      uint16_t s0, s1;
      zycBaseColourStartPair(pixels, 0xFFFF, &s0, &s1);
      const uint32_t start = zycBaseColourPairError(pixels, 0xFFFF, s0, s1);
      const uint32_t written = errorAsWritten(pixels, 0xFFFF, block);
      const uint16_t c0 = word16(block), c1 = word16(block + 2);
      if (c0 != c1) {
        ASSERT_EQ(written, zycBaseColourPairError(pixels, 0xFFFF, c0, c1)) << x << "," << y;
      }
      ASSERT_LE(zycBaseColourPairError(pixels, 0xFFFF, c0, c1), start) << x << "," << y;
      startTotal += start;
      finalTotal += zycBaseColourPairError(pixels, 0xFFFF, c0, c1);
    }
  }
  // The refinement earns its keep on a real picture.
  EXPECT_LT(finalTotal * 10, startTotal * 9);
  EXPECT_EQ(digest, 60650417u);
}

// A photograph of 66 x 38, its last block column and row clipped: each block is the one of its
// pixels inside the picture, the same from 3 and from 4-byte pixels, and in four-colour order
// or flat with zero indices.
TEST(BaseColourDxt, PictureBlocksCountOnlyPixelsInsideAndAreFourColourOrFlat) {
  zylTestImage photo;
  ASSERT_TRUE(zylLoadPng(zylMediaPath("photo_coffee_600x400.png"), &photo));
  const uint32_t width = 66, height = 38, wide = 17, high = 10;
  const zylTestImage crop = zylCropImage(photo, 260, 180, width, height);
  std::vector<uint8_t> three;
  for (size_t i = 0; i < crop.pixels.size(); i += 4) three.insert(three.end(), &crop.pixels[i], &crop.pixels[i] + 3);
  std::vector<uint8_t> blocks(wide * high * 8), fromThree(wide * high * 8, 1);
  zycCompressDxtn(4, width, height, crop.pixels.data(), blocks.data());
  zycCompressDxtn(3, width, height, three.data(), fromThree.data());
  EXPECT_EQ(fromThree, blocks);
  for (uint32_t by = 0; by < high; ++by) {
    for (uint32_t bx = 0; bx < wide; ++bx) {
      uint8_t pixels[64];
      std::memset(pixels, 0x77, sizeof pixels);  // outside pixels: anything
      uint32_t mask = 0;
      for (uint32_t k = 0; k < 16; ++k) {
        const uint32_t x = bx * 4 + k % 4, y = by * 4 + k / 4;
        if (x >= width || y >= height) continue;
        std::memcpy(pixels + 4 * k, crop.pixels.data() + (y * width + x) * 4, 4);
        mask |= 1u << k;
      }
      uint8_t want[8];
      zycBaseColourBlock(pixels, mask, want);
      const uint8_t* block = blocks.data() + (by * wide + bx) * 8;
      ASSERT_EQ(std::memcmp(want, block, 8), 0) << bx << "," << by;
      ASSERT_GE(word16(block), word16(block + 2)) << bx << "," << by;
      if (word16(block) == word16(block + 2)) {
        ASSERT_EQ(word32(block + 4), 0u) << bx << "," << by;
      }
    }
  }
}

TEST(BaseColourDxt, SseAndPlainAssignmentsAgree) {
  zycDxtKernels plainKernels, sseKernels;
  zycDxtPlain(&plainKernels);
  if (!zycDxtSse2(&sseKernels)) GTEST_SKIP() << "no SSE2 in this build";
  zylTestImage photo;
  ASSERT_TRUE(zylLoadPng(zylMediaPath("photo_coffee_600x400.png"), &photo));
  const zylTestImage crop = zylCropImage(photo, 60, 40, 64, 64);
  uint32_t seed = 12345;
  auto next = [&seed] {
    seed = seed * 1103515245u + 12345u;
    return seed >> 8;
  };
  for (uint32_t y = 0; y < 64; y += 4) {
    for (uint32_t x = 0; x < 64; x += 4) {
      uint8_t pixels[64];
      gather(crop, x, y, pixels);
      for (int trial = 0; trial < 4; ++trial) {
        int palette[4][3];
        for (auto& entry : palette) {
          for (int& c : entry) c = int(next() & 255);
        }
        if (trial == 3) {
          for (int c = 0; c < 3; ++c) palette[2][c] = palette[1][c];  // ties go to the first entry
        }
        const uint32_t mask = trial == 0 ? 0xFFFF : next() & 0xFFFF;
        uint8_t plain[16], sse[16];
        std::memset(sse, 9, sizeof sse);
        const uint32_t plainSum = plainKernels.baseColourAssign(pixels, mask, palette, plain);
        const uint32_t sseSum = sseKernels.baseColourAssign(pixels, mask, palette, sse);
        ASSERT_EQ(plainSum, sseSum) << x << "," << y;
        ASSERT_EQ(std::memcmp(plain, sse, 16), 0) << x << "," << y;
      }
    }
  }
}

#include "dxt/squishFront.h"

#include <gtest/gtest.h>
#include <squish.h>

#include <array>
#include <cstring>
#include <vector>

#include "tests/support/imageLoad.h"
#include "tests/support/testMedia.h"

using namespace zycSquish;

namespace {

// 4x4 blocks of a real photograph, as R, G, B, 255.
std::vector<std::array<uint8_t, 64>> photoBlocks(int count) {
  zylTestImage photo;
  EXPECT_TRUE(zylLoadPng(zylMediaPath("photo_coffee_600x400.png"), &photo));
  std::vector<std::array<uint8_t, 64>> blocks;
  for (int b = 0; b < count && photo.width; ++b) {
    const uint32_t x = 40 + (b * 52) % 520, y = 30 + (b * 36) % 340;
    std::array<uint8_t, 64> block{};
    for (int k = 0; k < 16; ++k) {
      const uint8_t* p = photo.pixels.data() + ((y + k / 4) * photo.width + x + k % 4) * 4;
      block[4 * k] = p[2];
      block[4 * k + 1] = p[1];
      block[4 * k + 2] = p[0];
      block[4 * k + 3] = 255;
    }
    blocks.push_back(block);
  }
  return blocks;
}

}  // namespace

TEST(SquishFront, BlocksEqualSquishCalledWithTranslatedFlagsAndMetric) {
  float perceptual[3] = {0.2126f, 0.7152f, 0.0722f};
  float uniform[3] = {1.0f, 1.0f, 1.0f};
  const struct {
    int oldFlags, newFlags;
    float* metric;
  } cases[] = {
      {kDxt1, squish::kDxt1 | squish::kColourClusterFit, perceptual},
      {kDxt1 | kColourRangeFit | kColourMetricUniform, squish::kDxt1 | squish::kColourRangeFit, uniform},
      {kDxt1 | kColourRangeFit, squish::kDxt1 | squish::kColourRangeFit, perceptual},
      {kDxt1 | kColourClusterFit | kColourMetricUniform, squish::kDxt1 | squish::kColourClusterFit, uniform},
      {kColourIterativeClusterFit | kWeightColourByAlpha,
       squish::kDxt1 | squish::kColourIterativeClusterFit | squish::kWeightColourByAlpha, perceptual},
  };
  const auto blocks = photoBlocks(24);
  ASSERT_EQ(blocks.size(), 24u);
  int metricMatters = 0;
  for (const auto& block : blocks) {
    for (const auto& c : cases) {
      uint8_t viaFront[8], direct[8];
      CompressMasked(block.data(), 0xFFFF, viaFront, c.oldFlags);
      squish::CompressMasked(block.data(), 0xFFFF, direct, c.newFlags, c.metric);
      EXPECT_EQ(std::memcmp(viaFront, direct, 8), 0) << "flags " << c.oldFlags;
    }
    uint8_t a[8], b[8];
    CompressMasked(block.data(), 0xFFFF, a, kDxt1 | kColourRangeFit);
    CompressMasked(block.data(), 0xFFFF, b, kDxt1 | kColourRangeFit | kColourMetricUniform);
    metricMatters += std::memcmp(a, b, 8) != 0;
  }
  // The metric reaches squish: perceptual and uniform weights choose differently somewhere.
  EXPECT_GT(metricMatters, 0);
}

TEST(SquishFront, CompressImageMasksPixelsOutsideOddSizedPictures) {
  const int width = 13, height = 7;
  std::vector<uint8_t> rgba(width * height * 4);
  for (int i = 0; i < width * height; ++i) {
    rgba[4 * i] = uint8_t(i * 7);
    rgba[4 * i + 1] = uint8_t(200 - i);
    rgba[4 * i + 2] = uint8_t(i * i);
    rgba[4 * i + 3] = 255;
  }
  const int blocksWide = (width + 3) / 4, blocksHigh = (height + 3) / 4;
  for (int flags : {kDxt1 | kColourRangeFit | kColourMetricUniform, kDxt1 | kColourRangeFit}) {
    std::vector<uint8_t> image(blocksWide * blocksHigh * 8, 0xAA), byBlock(blocksWide * blocksHigh * 8, 0x55);
    CompressImage(rgba.data(), width, height, image.data(), flags);
    for (int by = 0; by < blocksHigh; ++by) {
      for (int bx = 0; bx < blocksWide; ++bx) {
        uint8_t pixels[64];
        std::memset(pixels, 0x3C, sizeof pixels);
        int mask = 0;
        for (int k = 0; k < 16; ++k) {
          const int x = bx * 4 + k % 4, y = by * 4 + k / 4;
          if (x >= width || y >= height) continue;
          std::memcpy(pixels + 4 * k, &rgba[(y * width + x) * 4], 4);
          mask |= 1 << k;
        }
        CompressMasked(pixels, mask, &byBlock[(by * blocksWide + bx) * 8], flags);
      }
    }
    EXPECT_EQ(image, byBlock) << "flags " << flags;
  }
}

#include "dxt/buildLevels.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "dxt/dxtBackEnds.h"
#include "dxt/yuvConvert.h"
#include "tests/stream/dxt1Rules.h"
#include "tests/support/imageLoad.h"
#include "tests/support/testMedia.h"

namespace {

zylTestImage photoCrop(uint32_t width, uint32_t height, const char* name = "photo_coffee_600x400.png",
                       uint32_t x = 180, uint32_t y = 120) {
  zylTestImage photo;
  EXPECT_TRUE(zylLoadPng(zylMediaPath(name), &photo));
  return zylCropImage(photo, x, y, width, height);
}

std::vector<uint8_t> toYuv(const std::vector<uint8_t>& bgra) {
  std::vector<uint8_t> out(bgra.size());
  zycConvertToYuv(bgra.data(), out.data(), uint32_t(bgra.size() / 4));
  return out;
}

std::vector<uint8_t> redFirst(std::vector<uint8_t> pixels) {
  for (size_t i = 0; i < pixels.size(); i += 4) std::swap(pixels[i], pixels[i + 2]);
  return pixels;
}

// A DXT1 block decoded straight from the rule as 16 pixel words; with `yuv` the fields are Cr,
// Y, Cb and go to RGB by the fixed-point rule.
void decodeIndependently(const uint8_t* block, bool yuv, uint32_t out[16]) {
  const uint16_t c0 = uint16_t(block[0] | block[1] << 8), c1 = uint16_t(block[2] | block[3] << 8);
  const uint32_t indices = uint32_t(block[4] | block[5] << 8 | block[6] << 16 | block[7] << 24);
  for (int p = 0; p < 16; ++p) {
    const uint32_t w = dxt1Word(c0, c1, indices >> (2 * p) & 3);
    out[p] = yuv ? yuvWordOf(w) : w;
  }
}

double psnr(const uint8_t* a, const uint8_t* b, size_t pixelCount) {
  double sum = 0;
  for (size_t i = 0; i < pixelCount; ++i) {
    for (int c = 0; c < 3; ++c) {
      const double d = double(a[4 * i + c]) - double(b[4 * i + c]);
      sum += d * d;
    }
  }
  const double mse = sum / double(pixelCount * 3);
  return mse == 0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 / mse);
}

}  // namespace

TEST(DxtLevels, LevelsAreTheBackEndOnTheBoxShrunkPictures) {
  const uint32_t width = 64, height = 48;
  const zylTestImage crop = photoCrop(width, height);
  // Bands of the picture are shared among threads; the levels are those of whole pictures.
  // Back end 0 (no graphics device) falls back to 3 and leaves 3 in the field for good; a
  // number past the last codes as 3 too.
  for (uint32_t threads : {1u, 3u}) {
    for (uint32_t asked :
         {kDxtBackEndDevice, kDxtBackEndFast, kDxtBackEndBaseColour, kDxtBackEndCount}) {
      const uint32_t backEnd =
          asked == kDxtBackEndDevice || asked == kDxtBackEndCount ? kDxtBackEndSquishRange : asked;
      zycDxtLevels levels;
      levels.Allocate(width, height);
      std::vector<uint8_t> picture = crop.pixels;
      uint32_t field = asked;
      BuildLevels(levels, picture.data(), field, 0, threads);
      EXPECT_EQ(field, asked == kDxtBackEndDevice ? kDxtBackEndSquishRange : asked);
      EXPECT_EQ(levels.blocks[0].size(), 16u * 12 * 8);
      EXPECT_EQ(reinterpret_cast<uintptr_t>(levels.preview[2]) % 16, 0u);
      EXPECT_EQ(picture, crop.pixels);

      const std::vector<uint8_t> swapped = redFirst(crop.pixels);
      std::vector<uint8_t> half(width * height), quarter(width * height / 4);
      zycBoxShrink(swapped.data(), width, height, 2, half.data());
      zycBoxShrink(swapped.data(), width, height, 4, quarter.data());
      std::vector<uint8_t> want[3] = {std::vector<uint8_t>(levels.blocks[0].size()),
                                      std::vector<uint8_t>(levels.blocks[1].size()),
                                      std::vector<uint8_t>(levels.blocks[2].size())};
      zycDxtCompress(backEnd, swapped.data(), width, height, want[0].data());
      zycDxtCompress(backEnd, half.data(), width / 2, height / 2, want[1].data());
      zycDxtCompress(backEnd, quarter.data(), width / 4, height / 4, want[2].data());
      for (int l = 0; l < 3; ++l) {
        EXPECT_EQ(levels.blocks[l], want[l]) << "back end " << backEnd << " level " << l
                                             << " threads " << threads;
      }
    }
  }
}

TEST(DxtLevels, RedSourceByteGoesToTheTopFieldOfTheColours) {
  // A pure red picture (B 0, G 0, R 255): every back end must put 31 in the top five bits of
  // the colour that its indices use, so that the block decodes red.
  std::vector<uint8_t> picture(16 * 16 * 4, 0);
  for (size_t i = 0; i < picture.size(); i += 4) {
    picture[i + 2] = 255;
    picture[i + 3] = 255;
  }
  for (uint32_t backEnd = 0; backEnd < kDxtBackEndCount; ++backEnd) {
    zycDxtLevels levels;
    levels.Allocate(16, 16);
    uint32_t field = backEnd;
    BuildLevels(levels, picture.data(), field, 0);
    for (int l = 0; l < 3; ++l) {
      uint32_t decoded[16];
      zycDecodeLevelBlock(levels, levels.blocks[l].data(), 0, decoded);
      for (uint32_t word : decoded) EXPECT_EQ(word, 0xFF0000u) << "back end " << backEnd << " level " << l;
    }
    // The preview shows red: U 90, Y 81, V 240.
    EXPECT_EQ(levels.preview[0][0], 90);
    EXPECT_EQ(levels.preview[0][1], 81);
    EXPECT_EQ(levels.preview[0][2], 240);
    EXPECT_EQ(levels.preview[2][4 * (16 * 15 + 15) + 2], 240);
  }
}

TEST(DxtLevels, PreviewsAreTheLevelBlocksDecodedAndConverted) {
  const uint32_t width = 48, height = 32;
  const zylTestImage crop = photoCrop(width, height, "photo_astronaut_512x512.png", 200, 150);
  int threeColourBlocks = 0;
  for (uint32_t backEnd : {kDxtBackEndSquishRange, kDxtBackEndBaseColour}) {
    for (uint32_t yuv : {0u, 1u}) {
      zycDxtLevels levels;
      levels.Allocate(width, height);
      std::vector<uint8_t> picture = yuv ? toYuv(crop.pixels) : crop.pixels;
      uint32_t field = backEnd;
      BuildLevels(levels, picture.data(), field, yuv);
      for (int l = 0; l < 3; ++l) {
        const uint32_t step = 4u << l;
        const uint8_t* block = levels.blocks[l].data();
        for (uint32_t by = 0; by < height / step; ++by) {
          for (uint32_t bx = 0; bx < width / step; ++bx, block += 8) {
            uint32_t pixels[16];
            decodeIndependently(block, yuv, pixels);
            threeColourBlocks += (block[0] | block[1] << 8) <= (block[2] | block[3] << 8);
            for (uint32_t p = 0; p < 16; ++p) {
              const uint32_t want = zycYuvPixel(uint8_t(pixels[p]), uint8_t(pixels[p] >> 8), uint8_t(pixels[p] >> 16));
              for (uint32_t v = 0; v < (1u << l); ++v) {
                for (uint32_t u = 0; u < (1u << l); ++u) {
                  const uint32_t x = bx * step + ((p % 4) << l) + u, y = by * step + ((p / 4) << l) + v;
                  const uint8_t* got = levels.preview[l] + (y * width + x) * 4;
                  ASSERT_EQ(uint32_t(got[0] | got[1] << 8 | got[2] << 16 | got[3] << 24), want)
                      << "yuv " << yuv << " level " << l << " at " << x << "," << y;
                }
              }
            }
          }
        }
      }
    }
  }
  // Squish's range fit also makes three-colour blocks: both decoding modes were compared.
  EXPECT_GT(threeColourBlocks, 0);
}

// The picture is handed back as it came, alpha included, and its alpha never reaches a back
// end: a grabber may leave alpha 0, and squish would make such pixels transparent black.
TEST(DxtLevels, EveryBackEndMakesUsableLevelsOfOddPaddedSizesWhateverTheAlpha) {
  // 48 x 80: the quarter level is 12 x 20 pixels, 3 x 5 blocks.
  const uint32_t width = 48, height = 80;
  const zylTestImage crop = photoCrop(width, height);
  const std::vector<uint8_t> sourceYuv = toYuv(crop.pixels);
  for (uint32_t backEnd = 0; backEnd < kDxtBackEndCount; ++backEnd) {
    for (uint32_t yuv : {0u, 1u}) {
      SCOPED_TRACE(testing::Message() << "back end " << backEnd << " yuv " << yuv);
      zycDxtLevels levels, alphaLevels;
      levels.Allocate(width, height);
      alphaLevels.Allocate(width, height);
      std::vector<uint8_t> picture = yuv ? sourceYuv : crop.pixels;
      uint32_t field = backEnd, alphaField = backEnd;
      BuildLevels(levels, picture.data(), field, yuv);
      EXPECT_EQ(levels.blocks[2].size(), 3u * 5 * 8);
      if (yuv == backEnd % 2) {  // each back end once, the two kinds of picture in turn
        for (size_t i = 3; i < picture.size(); i += 4) picture[i] = uint8_t(i * 5);
        const std::vector<uint8_t> before = picture;
        BuildLevels(alphaLevels, picture.data(), alphaField, yuv);
        EXPECT_EQ(picture, before);
        for (int l = 0; l < 3; ++l) EXPECT_EQ(alphaLevels.blocks[l], levels.blocks[l]) << l;
      }
      const double full = psnr(levels.preview[0], sourceYuv.data(), width * height);
      const double half = psnr(levels.preview[1], sourceYuv.data(), width * height);
      const double quarter = psnr(levels.preview[2], sourceYuv.data(), width * height);
      EXPECT_GT(full, 30.0);
      EXPECT_GT(full, half);
      EXPECT_GT(half, quarter);
      EXPECT_GT(quarter, 15.0);
    }
  }
}

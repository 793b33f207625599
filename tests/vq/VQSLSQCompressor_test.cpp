// The still image coder: image blocks of flat, noisy, smooth and real pictures, walked from
// their layout and decoded by the frame decoder.
#include "vq/VQSLSQCompressor.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <string>

#include "tests/vq/stillTestSupport.h"
#include "vq/surfaceLSQSolver.h"

namespace {

uint32_t load32(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | uint32_t(p[3]) << 24; }
uint32_t load16(const uint8_t* p) { return p[0] | p[1] << 8; }

// The image block read from its layout with a reader of its own.
struct WalkedStill {
  bool valid = false;
  uint32_t tableBytes = 0, surfaceBits = 0, vqBits = 0, width = 0, height = 0;
  uint32_t surfaceOffset = 0, codebookCount = 0, codebookOffset = 0;
  std::vector<int> types;  // per block: 1 codebook, 0 surface
  std::vector<uint32_t> surfaceIndex;
  std::vector<uint32_t> codebookIndex;  // four per codebook block
  uint64_t bitsUsed = 0;
};

WalkedStill walkStill(const std::vector<uint8_t>& image) {
  WalkedStill w;
  if (image.size() < 28 || load32(image.data()) != 0x7FED52A5 || image[8] != 3) return w;
  w.tableBytes = load32(&image[4]);
  w.surfaceBits = image[9];
  w.vqBits = image[10];
  w.width = load16(&image[12]);
  w.height = load16(&image[14]);
  w.surfaceOffset = load32(&image[16]);
  w.codebookCount = load32(&image[20]);
  w.codebookOffset = load32(&image[24]);
  uint64_t position = 0;
  auto read = [&](uint32_t bits) {
    uint32_t value = 0;
    for (uint32_t i = 0; i < bits; ++i, ++position) {
      const uint32_t word = load32(&image[28 + (position / 32) * 4]);
      value = value << 1 | ((word >> (31 - position % 32)) & 1);
    }
    return value;
  };
  const uint32_t elements = (w.codebookOffset - w.surfaceOffset) / 36;
  for (uint32_t b = 0; b < w.width / 8 * (w.height / 8); ++b) {
    if ((position + 1 + 4 * 32) / 32 * 4 + 28 > w.surfaceOffset + 16) return w;
    const int type = int(read(1));
    w.types.push_back(type);
    if (type) {
      for (int q = 0; q < 4; ++q) {
        w.codebookIndex.push_back(read(w.vqBits));
        if (w.codebookIndex.back() >= w.codebookCount) return w;
      }
    } else {
      w.surfaceIndex.push_back(read(w.surfaceBits));
      if (w.surfaceIndex.back() >= elements) return w;
    }
  }
  w.bitsUsed = position;
  w.valid = w.surfaceOffset == 28 + (position + 31) / 32 * 4 &&
            (w.codebookOffset - w.surfaceOffset) % 36 == 0 &&
            image.size() == w.codebookOffset + 8 * size_t(w.codebookCount);
  return w;
}

StillPicture noisePicture(uint32_t width, uint32_t height, uint32_t seed) {
  StillPicture p;
  p.width = width;
  p.height = height;
  std::mt19937 random(seed);
  p.pixels.resize(size_t(width) * height * 3);
  for (uint8_t& v : p.pixels) v = uint8_t(random());
  return p;
}

// A smooth gradient with a little noise: one surface fits all of it within the tolerance.
StillPicture gradientPicture(uint32_t width, uint32_t height, uint32_t seed) {
  StillPicture p;
  p.width = width;
  p.height = height;
  std::mt19937 random(seed);
  p.pixels.resize(size_t(width) * height * 3);
  for (uint32_t y = 0; y < height; ++y)
    for (uint32_t x = 0; x < width; ++x)
      for (uint32_t c = 0; c < 3; ++c)
        p.pixels[(size_t(y) * width + x) * 3 + c] = uint8_t(40 + 30 * c + x / 4 + y / 3 + random() % 3);
  return p;
}

void fillBlock(StillPicture& p, uint32_t bx, uint32_t by, uint8_t value) {
  for (uint32_t y = by * 8; y < by * 8 + 8; ++y)
    for (uint32_t x = bx * 8; x < bx * 8 + 8; ++x)
      for (int c = 0; c < 3; ++c) p.pixels[(size_t(y) * p.width + x) * 3 + c] = value;
}

double psnr(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  double sum = 0.0;
  for (size_t i = 0; i < a.size(); ++i) sum += double(a[i] - b[i]) * double(a[i] - b[i]);
  return sum == 0.0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 * double(a.size()) / sum);
}

struct Compressed {
  std::vector<uint8_t> image;
  uint32_t size = 0;
  VQSLSQStatistics stats;
  uint32_t tableLimit = 0;
};

Compressed compress(const StillPicture& p, int32_t target, bool reference = false,
                    uint32_t tableLimit = 230400, bool sse = true) {
  VQSLSQCompressor compressor(sse);
  compressor.verbose = false;
  compressor.referenceGroupSearch = reference;
  compressor.tableLimit = tableLimit;
  Compressed c;
  c.size = compressor.compress(p.pixels.data(), p.width, p.height, target, c.image);
  c.stats = compressor.statistics();
  c.tableLimit = compressor.tableLimit;
  EXPECT_EQ(compressor.imageBlockSize(), c.size);
  EXPECT_EQ(std::memcmp(compressor.imageBlock(), c.image.data(), c.size), 0);
  return c;
}

std::vector<uint8_t> decode(const std::vector<uint8_t>& image) {
  std::vector<uint8_t> pixels;
  EXPECT_TRUE(VQSLSQCompressor::decompress(image.data(), uint32_t(image.size()), pixels));
  return pixels;
}

TEST(VQSLSQCompressor, SmoothBlocksNeedAGroupOfFour) {
  StillPicture three = noisePicture(64, 64, 9);
  fillBlock(three, 1, 1, 90);
  fillBlock(three, 6, 2, 90);
  fillBlock(three, 3, 7, 90);
  const Compressed c3 = compress(three, 5000);
  EXPECT_EQ(c3.stats.slsqBlocks, 0u);
  EXPECT_EQ(c3.stats.surfaceElements, 0u);

  StillPicture four = three;
  fillBlock(four, 7, 7, 90);
  const Compressed c4 = compress(four, 5000);
  EXPECT_EQ(c4.stats.slsqBlocks, 4u);
  EXPECT_EQ(c4.stats.surfaceElements, 1u);
  const WalkedStill w = walkStill(c4.image);
  ASSERT_TRUE(w.valid);
  EXPECT_EQ(w.types[1 * 8 + 1], 0);
  EXPECT_EQ(w.types[2 * 8 + 6], 0);
  EXPECT_EQ(w.types[7 * 8 + 3], 0);
  EXPECT_EQ(w.types[7 * 8 + 7], 0);
  EXPECT_EQ(w.types[0], 1);
  const std::vector<uint8_t> decoded = decode(c4.image);
  for (uint32_t y = 56; y < 64; ++y)
    for (uint32_t x = 56; x < 64; ++x) EXPECT_NEAR(decoded[(y * 64 + x) * 3 + 1], 90, 1);
}

// A ramp that falls by 10 a pixel fits a surface anywhere; far from the origin its constant
// term passes 4096 and can't be stored, so the group is dissolved there.
StillPicture rampColumnPicture(uint32_t column) {
  StillPicture p = noisePicture(416, 32, 13);
  for (uint32_t y = 0; y < 32; ++y)
    for (uint32_t x = column * 8; x < column * 8 + 8; ++x)
      for (int c = 0; c < 3; ++c)
        p.pixels[(size_t(y) * p.width + x) * 3 + c] = uint8_t(240 - 10 * (x - column * 8) - 20 * c);
  return p;
}

TEST(VQSLSQCompressor, GroupWhoseCoefficientsOverflowIsDissolved) {
  {
    // The far ramp column does fit one surface, whose constant term is out of range.
    const StillPicture p = rampColumnPicture(51);
    std::vector<float> samples(p.pixels.begin(), p.pixels.end());
    std::vector<double> powers(SLSQ_MAX_RESOLUTION * kSlsqPowers);
    slsqFillPowers(powers.data());
    const std::vector<int32_t> column = {408, 0, 408, 8, 408, 16, 408, 24};
    float k[6];
    EXPECT_LT(SurfaceLSQSolver::solve(powers.data(), samples.data() + 1, 416, 3, column.data(), 4, k), 2.75f);
    EXPECT_GT(std::fabs(k[0]), 4096.0f);
  }
  const Compressed near = compress(rampColumnPicture(0), 6000);
  EXPECT_EQ(near.stats.slsqBlocks, 4u);
  EXPECT_EQ(near.stats.surfaceElements, 1u);
  const Compressed far = compress(rampColumnPicture(51), 6000);
  EXPECT_EQ(far.stats.slsqBlocks, 0u);
  EXPECT_EQ(far.stats.vqBlocks, 52u * 4);
  // The ramp near the origin decodes as a ramp.
  const std::vector<uint8_t> decoded = decode(near.image);
  for (uint32_t y = 0; y < 32; y += 7)
    for (uint32_t x = 0; x < 8; ++x)
      EXPECT_NEAR(decoded[(y * 416 + x) * 3 + 1], 220 - 10 * int(x), 2) << x << "," << y;
}

// Flat blocks of 100 at the seed (column 0), columns 2, 4 and 16 of the first row; a ramp at
// column 8 that fits the seed alone but not the seed with the far flat block; a flat block with
// a little noise on the second row, whose pair error is the largest, so it is tried last.
StillPicture fallOutPicture() {
  StillPicture p = noisePicture(160, 16, 17);
  for (uint32_t column : {0u, 2u, 4u, 16u}) fillBlock(p, column, 0, 100);
  std::mt19937 random(2);
  for (uint32_t y = 0; y < 16; ++y)
    for (uint32_t x = 0; x < 8; ++x)
      for (int c = 0; c < 3; ++c) {
        if (y < 8) p.pixels[(y * 160 + 64 + x) * 3 + c] = uint8_t(100 + x);
        else p.pixels[(y * 160 + 80 + x) * 3 + c] = uint8_t(98 + random() % 5);
      }
  return p;
}

TEST(VQSLSQCompressor, CandidateThatBreaksTheGroupFallsOutAndTheNextIsTried) {
  const StillPicture p = fallOutPicture();
  std::vector<float> samples(p.pixels.begin(), p.pixels.end());
  std::vector<double> powers(SLSQ_MAX_RESOLUTION * kSlsqPowers);
  slsqFillPowers(powers.data());
  auto fit = [&](std::vector<int32_t> positions) {
    float k[6], largest = 0.0f;
    for (int c = 0; c < 3; ++c)
      largest = std::max(largest, SurfaceLSQSolver::solve(powers.data(), samples.data() + c, 160, 3,
                                                          positions.data(), uint32_t(positions.size() / 2), k));
    return largest;
  };
  const float ramp = fit({0, 0, 64, 0}), noisy = fit({0, 0, 80, 8});
  ASSERT_LT(ramp, 2.75f);                              // the ramp fits the seed...
  ASSERT_GT(fit({0, 0, 128, 0, 16, 0, 32, 0, 64, 0}), 2.75f);  // ...but not the flat group
  ASSERT_GT(noisy, ramp);                              // the noisy block is tried after it
  ASSERT_LT(noisy, 2.75f);

  for (bool reference : {false, true}) {
    const Compressed c = compress(p, 3000, reference);
    const WalkedStill w = walkStill(c.image);
    ASSERT_TRUE(w.valid);
    EXPECT_EQ(c.stats.surfaceElements, 1u);
    EXPECT_EQ(c.stats.slsqBlocks, 5u);
    for (uint32_t block : {0u, 2u, 4u, 16u, 30u}) EXPECT_EQ(w.types[block], 0) << block;
    EXPECT_EQ(w.types[8], 1);
  }
}

TEST(VQSLSQCompressor, PhotographDecodesCloseToItselfNearTheTarget) {
  const StillPicture p = photoPicture("photo_coffee_600x400.png", 200, 100, 128, 96);
  ASSERT_EQ(p.pixels.size(), 128u * 96 * 3);
  for (int32_t target : {2500, 6000}) {
    const Compressed c = compress(p, target);
    const WalkedStill w = walkStill(c.image);
    ASSERT_TRUE(w.valid) << target;
    EXPECT_LE(c.size, uint32_t(target));
    EXPECT_GE(c.size, uint32_t(target) * 8 / 10);
    const std::vector<uint8_t> decoded = decode(c.image);
    EXPECT_GT(psnr(decoded, p.pixels), target > 3000 ? 27.0 : 24.0) << target;
  }
}

// The fast group search and the reference one, and the plain codebook kernels and the SSE ones,
// write the same image.
TEST(VQSLSQCompressor, FastAndReferenceGroupSearchesWriteTheSameImage) {
  std::vector<StillPicture> pictures;
  pictures.push_back(gradientPicture(128, 64, 8));
  pictures.push_back(photoPicture("photo_astronaut_512x512.png", 0, 0, 128, 128, 4));
  pictures.push_back(photoPicture("photo_coffee_600x400.png", 0, 0, 144, 96, 4));
  // A photograph over a gradient: groups of many sizes.
  StillPicture mixed = gradientPicture(128, 96, 2);
  const StillPicture flower = photoPicture("photo_flower_2268x1512.png", 0, 0, 64, 48, 8);
  for (uint32_t y = 0; y < 48; ++y)
    std::memcpy(&mixed.pixels[((y + 24) * 128 + 32) * 3], &flower.pixels[y * 64 * 3], 64 * 3);
  pictures.push_back(mixed);
  pictures.push_back(photoPicture("photo_astronaut_512x512.png", 128, 128, 96, 64, 2));
  uint32_t surfaces = 0;
  for (const StillPicture& p : pictures) {
    ASSERT_FALSE(p.pixels.empty());
    const Compressed fast = compress(p, 3000, false);
    const Compressed reference = compress(p, 3000, true);
    ASSERT_EQ(fast.image, reference.image);
    ASSERT_EQ(compress(p, 3000, false, 230400, false).image, fast.image);
    surfaces += fast.stats.slsqBlocks;
  }
  EXPECT_GT(surfaces, 200u);
}

TEST(VQSLSQCompressor, DecompressRejectsAnotherMagic) {
  std::vector<uint8_t> bytes(64, 0);
  std::vector<uint8_t> pixels;
  EXPECT_FALSE(VQSLSQCompressor::decompress(bytes.data(), uint32_t(bytes.size()), pixels));
  EXPECT_FALSE(VQSLSQCompressor::decompress(bytes.data(), 10, pixels));
}

}  // namespace

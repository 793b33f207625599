// The quad-tree still coder on real photographs, read back by the frame decoder's reader.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "dxt/squishFront.h"
#include "mpmc/DXT1QuadTreeCompressor.h"
#include "stream/quadTreeReader.h"
#include "tests/vq/stillTestSupport.h"

namespace {

// Pictures of 3-byte pixels, B, G, R.
using Picture = StillPicture;

struct Coded {
  std::vector<uint8_t> bytes;
  std::vector<std::pair<long long, int>> passes;  // ErrorMax and size of each printed pass
  std::string head;                               // the first printed line
};

Coded Compress(const Picture& picture, uint32_t target) {
  std::vector<uint8_t> out(size_t(picture.width) * picture.height * 8 + 10240);
  uint32_t outSize = 0;
  testing::internal::CaptureStdout();
  DXT1QuadTreeCompressor compressor;
  compressor.compress(picture.pixels.data(), picture.width, picture.height, target, out.data(),
                      &outSize);
  std::istringstream log(testing::internal::GetCapturedStdout());
  Coded coded;
  out.resize(outSize);
  coded.bytes = out;
  std::getline(log, coded.head);
  for (std::string line; std::getline(log, line);) {
    long long errorMax = -1;
    int size = -1;
    EXPECT_EQ(sscanf(line.c_str(), "ErrorMax:%lld   Size:%d", &errorMax, &size), 2) << line;
    coded.passes.emplace_back(errorMax, size);
  }
  return coded;
}

// Decodes into a picture of `pitch` bytes a row prefilled with `fill`.
std::vector<uint8_t> Decode(const Coded& coded, const Picture& picture, uint8_t fill,
                            uint32_t pitch = 0) {
  if (pitch == 0) pitch = picture.width * 4;
  std::vector<uint8_t> pixels(size_t(pitch) * picture.height, fill);
  zycQuadTreeReader reader;
  EXPECT_TRUE(reader.Setup(picture.width, picture.height));
  const char* problem = reader.Decode(coded.bytes.data(), uint32_t(coded.bytes.size()),
                                      picture.width, picture.height, pixels.data(), pitch);
  EXPECT_EQ(problem, nullptr) << problem;
  reader.Release();
  return pixels;
}

double Psnr(const Picture& picture, const std::vector<uint8_t>& decoded) {
  double sum = 0;
  for (size_t i = 0; i < size_t(picture.width) * picture.height; ++i) {
    EXPECT_EQ(decoded[4 * i + 3], 255);
    for (int c = 0; c < 3; ++c) {
      const double d = double(picture.pixels[3 * i + c]) - decoded[4 * i + c];
      sum += d * d;
    }
  }
  const double mse = sum / (double(picture.width) * picture.height * 3);
  return 10 * std::log10(255.0 * 255.0 / (mse > 1e-9 ? mse : 1e-9));
}

struct PhotoCase {
  const char* name;
  uint32_t x, y, width, height, shrink;
  uint32_t target;
  uint32_t minBytes;  // the search stops within its last bisection step of the target
  double minPsnr;
};

// Sizes from the smallest tree of two levels through a root that overhangs the picture (320 x
// 240 under a 512 root, 328 x 184 padded) to 1280 x 720 (at about a third of its I-frame
// budget at "RATI" 100, which leaves the test fewer blocks to make).
const PhotoCase kPhotos[] = {
    {"photo_astronaut_512x512.png", 0, 0, 8, 8, 64, 30, 12, 15.0},  // 12: the root alone
    {"photo_astronaut_512x512.png", 100, 100, 30, 22, 4, 300, 290, 29.0},  // leaves cut by the edge
    {"photo_coffee_600x400.png", 100, 60, 96, 72, 1, 1200, 1164, 29.5},
    {"photo_coffee_600x400.png", 140, 80, 320, 240, 1, 20000, 19400, 34.0},
    {"photo_flower_2268x1512.png", 40, 60, 328, 184, 4, 12000, 11640, 29.0},
    {"photo_flower_2268x1512.png", 300, 200, 1280, 720, 1, 130000, 126000, 35.0},
};

class QuadTreePhoto : public testing::TestWithParam<PhotoCase> {};

TEST_P(QuadTreePhoto, ComesToItsTargetAndDecodesNearTheSource) {
  const PhotoCase& c = GetParam();
  const Picture picture = photoPicture(c.name, c.x, c.y, c.width, c.height, c.shrink);
  const Coded coded = Compress(picture, c.target);
  EXPECT_EQ(coded.head, "DXT1 QuadTree Compression. targetSize:" + std::to_string(c.target));
  ASSERT_FALSE(coded.passes.empty());
  EXPECT_EQ(coded.passes.back().second, int(coded.bytes.size()));
  EXPECT_LE(coded.bytes.size(), c.target);
  EXPECT_GE(coded.bytes.size(), c.minBytes);
  EXPECT_EQ(coded.bytes.size() % 4, 0u);
  // The picture does not depend on what the buffer held, and nothing is written past a row.
  const uint32_t pitch = c.width * 4 + 36;
  const std::vector<uint8_t> zeros = Decode(coded, picture, 0x00, pitch);
  const std::vector<uint8_t> ones = Decode(coded, picture, 0xA5, pitch);
  for (uint32_t y = 0; y < c.height; ++y) {
    const uint8_t* a = zeros.data() + size_t(y) * pitch;
    const uint8_t* b = ones.data() + size_t(y) * pitch;
    ASSERT_EQ(memcmp(a, b, c.width * 4), 0) << "row " << y;
    for (uint32_t k = c.width * 4; k < pitch; ++k) ASSERT_EQ(b[k], 0xA5) << "written past the row";
  }
  EXPECT_GE(Psnr(picture, Decode(coded, picture, 0)), c.minPsnr);

  // Every block is some leaf's: without the last one the reader runs short. Every shorter
  // prefix of a small image is refused too, each from a buffer of exactly its length, so that
  // the sanitizers see any read past it.
  zycQuadTreeReader reader;
  ASSERT_TRUE(reader.Setup(c.width, c.height));
  std::vector<uint8_t> pixels(size_t(c.width) * c.height * 4);
  EXPECT_STREQ(reader.Decode(coded.bytes.data(), uint32_t(coded.bytes.size() - 1), c.width, c.height,
                             pixels.data(), c.width * 4),
               "too few leaf blocks");
  for (size_t n = 0; c.target <= 2000 && n < coded.bytes.size(); ++n) {
    std::unique_ptr<uint8_t[]> prefix(new uint8_t[n ? n : 1]);
    memcpy(prefix.get(), coded.bytes.data(), n);
    ASSERT_NE(reader.Decode(prefix.get(), uint32_t(n), c.width, c.height, pixels.data(), c.width * 4),
              nullptr)
        << n << " bytes";
  }
  reader.Release();
}

INSTANTIATE_TEST_SUITE_P(Photos, QuadTreePhoto, testing::ValuesIn(kPhotos),
                         [](const testing::TestParamInfo<PhotoCase>& info) {
                           return std::to_string(info.param.width) + "x" +
                                  std::to_string(info.param.height);
                         });

// Nodes and leaves of the smallest tree: only squares across the picture's edge are split.
void SmallestTree(uint32_t x, uint32_t y, uint32_t size, uint32_t width, uint32_t height,
                  uint32_t* nodes, uint32_t* leaves) {
  ++*nodes;
  if (x >= width || y >= height) return;
  if ((x + size <= width && y + size <= height) || size == 4) {
    ++*leaves;
    return;
  }
  for (uint32_t k = 0; k < 4; ++k)
    SmallestTree(x + (k & 1) * size / 2, y + (k >> 1) * size / 2, size / 2, width, height, nodes,
                 leaves);
}

TEST(QuadTreeSearch, StopsWhereTheBudgetLeavesNoChoice) {
  // A budget for the full tree: the first pass, at ErrorMax 0, fits and ends the search.
  const Picture small = photoPicture("photo_coffee_600x400.png", 200, 100, 64, 64, 1);
  const Coded full = Compress(small, 1u << 20);
  ASSERT_EQ(full.passes.size(), 1u);
  EXPECT_EQ(full.passes[0].first, 0);
  EXPECT_EQ(full.bytes.size(), size_t(full.passes[0].second));
  EXPECT_GT(full.bytes.size(), 16u * 16 * 8);  // a photograph leaves nearly every 4x4 leaf

  // A budget below the smallest tree: ErrorMax climbs until no merge is left, and the result
  // is that smallest tree, over the budget.
  const Picture photo = photoPicture("photo_coffee_600x400.png", 0, 0, 320, 240, 1);
  const Coded starved = Compress(photo, 64);
  uint32_t nodes = 0, leaves = 0;
  SmallestTree(0, 0, 512, 320, 240, &nodes, &leaves);
  EXPECT_EQ(starved.bytes.size(), (2 + (nodes + 7) / 8 + 3) / 4 * 4 + 8 * leaves);
  for (size_t k = 1; k < starved.passes.size(); ++k) {
    EXPECT_GT(starved.passes[k].first, starved.passes[k - 1].first);
    EXPECT_GT(starved.passes[k].second, 64);
  }
  Decode(starved, photo, 0);

  // A uniform power-of-two square: the root is a leaf with no error at once, 12 bytes.
  Picture flat{64, 64, std::vector<uint8_t>(64 * 64 * 3)};
  for (size_t i = 0; i < flat.pixels.size(); i += 3) {
    flat.pixels[i] = 132;  // exact in R5G6B5
    flat.pixels[i + 1] = 130;
    flat.pixels[i + 2] = 132;
  }
  const Coded root = Compress(flat, 1000);
  ASSERT_EQ(root.passes.size(), 1u);
  EXPECT_EQ(root.passes[0], std::make_pair(0LL, 12));
  ASSERT_EQ(root.bytes.size(), 12u);
  EXPECT_EQ(std::vector<uint8_t>(root.bytes.begin(), root.bytes.begin() + 4),
            (std::vector<uint8_t>{0, 2, 0, 0}));
  const std::vector<uint8_t> decoded = Decode(root, flat, 0);
  for (size_t i = 0; i < decoded.size(); i += 4)
    ASSERT_EQ(std::vector<uint8_t>(decoded.begin() + i, decoded.begin() + i + 4),
              (std::vector<uint8_t>{132, 130, 132, 255}));
}

// The reader's palette is the one the encoder's error is measured with.
TEST(QuadTreeReader, BlocksDecodeAsSquishDecodesThem) {
  std::mt19937 random(12);
  for (int n = 0; n < 4000; ++n) {
    uint8_t block[8];
    for (uint8_t& byte : block) byte = uint8_t(random());
    if (n % 4 == 0) std::swap(block[0], block[2]);  // both orders of the two colours
    if (n % 8 == 0) memcpy(block + 2, block, 2);    // equal colours
    uint32_t ours[16];
    uint8_t theirs[64];
    zycDecodeQuadTreeBlock(block, ours);
    zycSquish::Decompress(theirs, block, zycSquish::kDxt1);
    for (int i = 0; i < 16; ++i) {
      const uint32_t expected = uint32_t(theirs[4 * i + 2]) | uint32_t(theirs[4 * i + 1]) << 8 |
                                uint32_t(theirs[4 * i]) << 16 | 0xFF000000u;
      ASSERT_EQ(ours[i], expected) << "block " << n << " pixel " << i;
    }
  }
}

}  // namespace

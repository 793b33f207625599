// The decode command's pieces: the colour conversion of its Y4M output, the frame name
// patterns, the WAV header and the option parser.
#include "host/tool/frameWriters.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "host/tool/toolCommon.h"

namespace {

TEST(Y4mColour, Bt601LimitedRangeEndsGreysAndPrimaries) {
  const struct {
    uint8_t r, g, b, y, u, v;
  } cases[] = {{0, 0, 0, 16, 128, 128},
               {255, 255, 255, 235, 128, 128},
               {255, 0, 0, 82, 90, 240},  // red: Cr high, Cb low
               {0, 0, 255, 41, 240, 110}};  // blue: Cb high
  for (const auto& c : cases) {
    uint8_t y, u, v;
    RgbToYuv601(c.r, c.g, c.b, &y, &u, &v);
    EXPECT_EQ(std::vector<int>({y, u, v}), std::vector<int>({c.y, c.u, c.v})) << int(c.r) << "," << int(c.g) << "," << int(c.b);
  }
}

TEST(FramePattern, OneNumberConversionOnly) {
  EXPECT_TRUE(IsFramePattern("frame%04d.png"));
  EXPECT_TRUE(IsFramePattern("%d.png"));
  EXPECT_TRUE(IsFramePattern("100%%_%3d.png"));
  EXPECT_FALSE(IsFramePattern("frame.png"));
  EXPECT_FALSE(IsFramePattern("%d_%d.png"));
  EXPECT_FALSE(IsFramePattern("%s.png"));
  EXPECT_FALSE(IsFramePattern("%n.png"));
  EXPECT_FALSE(IsFramePattern("%999d.png"));
  EXPECT_FALSE(IsFramePattern("frame%"));
}

TEST(Y4mWriter, CropsAndAveragesChromaOverOddEdges) {
  // 3 x 3 pixels of a stride of 4 pixels: the fourth column must not leak into the output.
  uint8_t pixels[3 * 16] = {};
  for (int p = 0; p < 12; ++p) {
    pixels[p * 4 + 0] = uint8_t(p * 20);  // blue
    pixels[p * 4 + 2] = 255;              // red
  }
  const std::string path = ::testing::TempDir() + "zyl_w_" + std::to_string(getpid()) + ".y4m";
  std::string error;
  auto writer = MakeY4mWriter(path, Y4mChroma::k420, 3, 3, 10, 1, &error);
  ASSERT_TRUE(writer) << error;
  ASSERT_TRUE(writer->Write({pixels, 16, 3, 3}));
  ASSERT_TRUE(writer->Finish());
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  const std::string bytes = text.str();
  const size_t header = bytes.find('\n') + 1;
  EXPECT_EQ(bytes.substr(0, header),
            "YUV4MPEG2 W3 H3 F10:1 Ip A1:1 C420jpeg XCOLORRANGE=LIMITED\n");
  ASSERT_EQ(bytes.size(), header + 6 + 9 + 4 + 4);
  EXPECT_EQ(bytes.substr(header, 6), "FRAME\n");
  // Luma of pixel (x, y) is that of red with blue (y * 4 + x) * 20.
  for (int y = 0; y < 3; ++y) {
    for (int x = 0; x < 3; ++x) {
      uint8_t wantY, u, v;
      RgbToYuv601(255, 0, uint8_t((y * 4 + x) * 20), &wantY, &u, &v);
      EXPECT_EQ(uint8_t(bytes[header + 6 + y * 3 + x]), wantY) << x << "," << y;
    }
  }
  // The bottom right chroma sample covers only pixel (2, 2).
  uint8_t y22, u22, v22;
  RgbToYuv601(255, 0, uint8_t(10 * 20), &y22, &u22, &v22);
  EXPECT_EQ(uint8_t(bytes[header + 6 + 9 + 3]), u22);
  EXPECT_EQ(uint8_t(bytes[header + 6 + 9 + 4 + 3]), v22);
  std::remove(path.c_str());
}

TEST(WavWriter, HeaderCarriesTheSizesWrittenAtTheEnd) {
  const std::string path = ::testing::TempDir() + "zyl_w_" + std::to_string(getpid()) + ".wav";
  WavWriter wav;
  ASSERT_TRUE(wav.Open(path, 2, 22050));
  const int16_t samples[6] = {1, -1, 300, -300, 32767, -32768};
  ASSERT_TRUE(wav.Write(samples, 6));
  ASSERT_TRUE(wav.Finish());
  std::stringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  const std::string bytes = text.str();
  ASSERT_EQ(bytes.size(), 44u + 12u);
  auto u32 = [&](size_t at) {
    return uint32_t(uint8_t(bytes[at])) | uint32_t(uint8_t(bytes[at + 1])) << 8 |
           uint32_t(uint8_t(bytes[at + 2])) << 16 | uint32_t(uint8_t(bytes[at + 3])) << 24;
  };
  EXPECT_EQ(bytes.substr(0, 4), "RIFF");
  EXPECT_EQ(u32(4), 36u + 12u);
  EXPECT_EQ(u32(24), 22050u);
  EXPECT_EQ(u32(28), 22050u * 4);
  EXPECT_EQ(u32(40), 12u);
  EXPECT_EQ(uint8_t(bytes[44 + 2]), 0xFF);  // -1, little-endian
  EXPECT_EQ(uint8_t(bytes[44 + 3]), 0xFF);
  EXPECT_EQ(uint8_t(bytes[44 + 8]), 0xFF);  // 32767
  EXPECT_EQ(uint8_t(bytes[44 + 9]), 0x7F);
  EXPECT_EQ(uint8_t(bytes[44 + 10]), 0x00);  // -32768
  EXPECT_EQ(uint8_t(bytes[44 + 11]), 0x80);
  std::remove(path.c_str());
}

TEST(ToolArguments, NumbersAreWholeAndInRange) {
  uint32_t count = 0;
  EXPECT_TRUE(ParseCount("4294967295", &count));
  EXPECT_EQ(count, 4294967295u);
  EXPECT_FALSE(ParseCount("4294967296", &count));
  EXPECT_FALSE(ParseCount("-1", &count));
  EXPECT_FALSE(ParseCount("12a", &count));
  EXPECT_FALSE(ParseCount("", &count));
  int32_t value = 0;
  EXPECT_TRUE(ParseInt("-2147483648", &value));
  EXPECT_EQ(value, -2147483647 - 1);
  EXPECT_FALSE(ParseInt("2147483648", &value));
  EXPECT_TRUE(ParseInt("+7", &value));
  EXPECT_EQ(value, 7);
}

}  // namespace

#include "dxt/yuvConvert.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

struct Yuv {
  int u, y, v;
};

Yuv unpack(uint32_t w) { return {int(w & 255), int(w >> 8 & 255), int(w >> 16 & 255)}; }

}  // namespace

// Values worked out by hand from the fixed-point formulas.
TEST(YuvConversion, BlackWhitePrimariesAndAlphaMatchHandValues) {
  const struct {
    uint8_t b, g, r;
    Yuv want;
  } cases[] = {
      {0, 0, 0, {128, 16, 128}},        // T = 0: Y = 0x10800 >> 12 = 16
      {255, 255, 255, {128, 235, 128}},  // T = 897090
      {255, 0, 0, {240, 41, 110}},       // T = 102255
      {0, 0, 255, {90, 81, 240}},        // T = 268260
      {0, 255, 0, {54, 145, 34}},        // T = 526575
      {10, 200, 30, {70, 126, 67}},
  };
  for (const auto& c : cases) {
    const uint32_t word = zycYuvPixel(c.b, c.g, c.r);
    const Yuv got = unpack(word);
    EXPECT_EQ(word >> 24, 255u);
    EXPECT_EQ(got.u, c.want.u) << int(c.b) << "," << int(c.g) << "," << int(c.r);
    EXPECT_EQ(got.y, c.want.y) << int(c.b) << "," << int(c.g) << "," << int(c.r);
    EXPECT_EQ(got.v, c.want.v) << int(c.b) << "," << int(c.g) << "," << int(c.r);
  }
}

// The converter (eight pixels at a time where the processor has AVX2) gives the plain loop's
// bytes for every colour, whatever the alpha, at every count of pixels left over; the plain
// loop gives each pixel's word with alpha 255, and the converter works in place.
TEST(YuvConversion, FastConverterEqualsThePlainLoopOnEveryColour) {
  std::vector<uint8_t> picture(size_t(1) << 18), fast(picture.size()), plain(picture.size());
  for (uint32_t first = 0; first < (1u << 24); first += 1u << 16) {
    for (uint32_t i = 0; i < (1u << 16); ++i) {
      const uint32_t c = first + i;
      picture[4 * i] = uint8_t(c);
      picture[4 * i + 1] = uint8_t(c >> 8);
      picture[4 * i + 2] = uint8_t(c >> 16);
      picture[4 * i + 3] = uint8_t(c * 7);
    }
    const uint32_t count = (1u << 16) - (first >> 16) % 8;  // tails of 0 to 7 pixels
    zycConvertToYuv(picture.data(), fast.data(), count);
    zycConvertToYuvPlain(picture.data(), plain.data(), count);
    ASSERT_EQ(std::memcmp(fast.data(), plain.data(), size_t(count) * 4), 0) << first;
    if (first == 0) {
      for (uint32_t i = 0; i < count; ++i) {
        const uint32_t w = zycYuvPixel(picture[4 * i], picture[4 * i + 1], picture[4 * i + 2]);
        ASSERT_EQ(std::memcmp(&plain[4 * i], &w, 4), 0) << i;
      }
      zycConvertToYuv(picture.data(), picture.data(), count);
      ASSERT_EQ(std::memcmp(picture.data(), fast.data(), size_t(count) * 4), 0);
    }
  }
}

// The plane stream reader on hand-made streams, and the tables it shares with the coder.
#include "stream/planeReader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "stream/mpmcTables.h"

namespace {

// Most significant bit first, zero padded, as the coder writes.
struct Bits {
  std::vector<uint8_t> bytes;
  int used = 8;
  Bits& Put(uint32_t value, int n) {
    for (int i = n - 1; i >= 0; --i) {
      if (used == 8) {
        bytes.push_back(0);
        used = 0;
      }
      bytes.back() |= static_cast<uint8_t>(((value >> i) & 1u) << (7 - used++));
    }
    return *this;
  }
  // 12-bit count, then the overlapped flags and the overlaps 0..3 of the four sizes.
  Bits& BlockHeader(uint32_t count) { return Put(count, 12).Put(15, 4).Put(0, 1).Put(1, 2).Put(2, 3).Put(3, 4); }
};

std::vector<uint8_t> Decode(const std::vector<uint8_t>& stream, std::vector<uint8_t> plane,
                            uint32_t width, uint32_t height, const char** problem) {
  zycPlaneReader reader;
  EXPECT_TRUE(reader.Setup(width, height));
  *problem = reader.Decode(stream.data(), static_cast<uint32_t>(stream.size()), width, height, plane.data());
  return plane;
}

TEST(PlaneReader, QuantRoundSendsExactHalvesDown) {
  const struct { double v; int32_t rounded; } cases[] = {
      {2.5, 2}, {2.5000001, 3}, {-2.5, -3}, {0.5, 0}, {-0.5, -1}, {3.0, 3}, {-3.0, -3},
      {2.49, 2}, {-2.51, -3}, {65536.0, 65536}, {0.0, 0}};
  for (const auto& c : cases) EXPECT_EQ(quantRound(c.v), c.rounded) << c.v;
}

TEST(PlaneReader, UnchangedPlaneStreamKeepsTheReference) {
  std::vector<uint8_t> reference(32 * 32);
  for (size_t i = 0; i < reference.size(); ++i) reference[i] = static_cast<uint8_t>(i * 7);
  const char* problem = nullptr;
  // Both counts 0: 38 bits.
  const std::vector<uint8_t> stream = {0x00, 0x0F, 0x28, 0xC0, 0x00};
  EXPECT_EQ(Decode(stream, reference, 32, 32, &problem), reference);
  EXPECT_EQ(problem, nullptr);
}

TEST(PlaneReader, HalfPelBlocksAndTheVectorWrap) {
  // A 64 x 16 ramp, 4 * x; a block at (8, 4) moved by (+15.5, 0), then one at (40, 4) whose
  // difference of -63 half pixels is written as +1 and wraps back to -32, that is -16 pixels.
  const uint32_t w = 64, h = 16;
  std::vector<uint8_t> reference(w * h);
  for (uint32_t y = 0; y < h; ++y)
    for (uint32_t x = 0; x < w; ++x) reference[y * w + x] = static_cast<uint8_t>(4 * x);
  Bits bits;
  bits.BlockHeader(2);
  bits.Put(0, 1).Put(18, 7).Put(0, 2).Put(3, 12).Put(0, 1).Put(1, 1);  // 31: 3 in 12 bits, +
  bits.Put(0, 1).Put(26, 7).Put(0, 2).Put(1, 2).Put(0, 1).Put(1, 1);   // +1 wraps to -32
  bits.Put(0, 12);
  const char* problem = nullptr;
  const std::vector<uint8_t> plane = Decode(bits.bytes, reference, w, h, &problem);
  ASSERT_EQ(problem, nullptr) << problem;
  for (uint32_t y : {5u, 6u}) {
    // Inside the window: the average of columns x + 15 and x + 16, (16 x + 250) / 4.
    EXPECT_EQ(plane[y * w + 9], 4 * 9 + 62);
    EXPECT_EQ(plane[y * w + 10], 4 * 10 + 62);
    EXPECT_EQ(plane[y * w + 41], 4 * (41 - 16));
    EXPECT_EQ(plane[y * w + 42], 4 * (42 - 16));
  }
  // On the overlap: weight 55938 of 65536 for the block, the rest for the reference.
  EXPECT_EQ(plane[5 * w + 8], (94 * 55938 + (65536 - 55938) * 32 + 32768) >> 16);
  EXPECT_EQ(plane[0 * w + 9], reference[9]);  // beyond the overlap
}

TEST(PlaneReader, BadStreamsAreRefusedWithAReason) {
  const std::vector<uint8_t> reference(32 * 32, 50);
  const struct { Bits bits; uint32_t width, height; const char* message; } cases[] = {
      {Bits().Put(0, 12).Put(7, 4), 32, 32, "plane stream without overlapped blocks"},
      {Bits().Put(0, 12).Put(15, 4).Put(1, 1), 32, 32, "plane stream with an unknown block overlap"},
      {Bits().BlockHeader(1).Put(0, 1).Put(64, 7), 32, 32, "block outside the plane"},
      {Bits().BlockHeader(1).Put(0, 1).Put(0, 7).Put(0, 2).Put(0, 12), 32, 32, "bad vector code"},
      {Bits().BlockHeader(0).Put(1, 12).Put(0, 22).Put(1, 1).Put(8, 4).Put(0, 4).Put(1, 1).Put(0, 1), 32, 32,
       "bad atom shape"},
      {Bits().BlockHeader(0).Put(1, 12).Put(10, 4).Put(0, 18).Put(0, 1).Put(1, 1).Put(0, 10).Put(0, 8).Put(1, 1).Put(0, 1),
       32, 32, "atom outside the plane"},
      {Bits().BlockHeader(0).Put(2, 12), 32, 32, "plane stream ends in the atom header"},
      {Bits().BlockHeader(0), 32, 32, "plane stream ends before the atoms"},
      {Bits().BlockHeader(0).Put(0, 12), 30, 32, "bad plane size"},
      {Bits().BlockHeader(0).Put(0, 12), 64, 32, "plane larger than set up"},
  };
  for (const auto& c : cases) {
    std::vector<uint8_t> plane = reference;
    zycPlaneReader reader;
    ASSERT_TRUE(reader.Setup(32, 32));
    const char* problem = reader.Decode(c.bits.bytes.data(), static_cast<uint32_t>(c.bits.bytes.size()),
                                        c.width, c.height, plane.data());
    EXPECT_STREQ(problem, c.message);
  }
}

}  // namespace

// The index bit stream: most significant bit first, 32-bit little-endian words.
#include "vq/vqBitStream.h"

#include <gtest/gtest.h>

#include <random>

namespace {

std::vector<uint8_t> bytesOf(const VqBitWriter& writer) {
  std::vector<uint8_t> out(writer.byteSize());
  writer.copyTo(out.data());
  return out;
}

// The first bit goes to the top of a little-endian word, a value crossing a word is split high
// part first, a zero width writes nothing, and the output is padded to whole words.
TEST(VqBitWriter, WritesWordsTopBitFirst) {
  const struct {
    std::vector<std::pair<uint32_t, uint32_t>> puts;  // value, width
    std::vector<uint8_t> bytes;
    uint32_t bits;
  } cases[] = {
      {{{1, 1}, {0b101, 3}}, {0x00, 0x00, 0x00, 0xD0}, 4},
      {{{0, 30}, {0b1011, 4}}, {0x02, 0, 0, 0, 0, 0, 0, 0xC0}, 34},
      {{{0xFFFFFFFF, 0}}, {}, 0},
      {{{0xFFFFFFFF, 0}, {1, 1}, {0xFFFFFFFF, 32}}, {0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x80}, 33},
  };
  for (const auto& c : cases) {
    VqBitWriter writer;
    for (const auto& [value, width] : c.puts) writer.put(value, width);
    EXPECT_EQ(writer.bitCount(), c.bits);
    EXPECT_EQ(writer.byteSize(), c.bytes.size()) << c.bits;
    EXPECT_EQ(bytesOf(writer), c.bytes) << c.bits;
  }
}

}  // namespace

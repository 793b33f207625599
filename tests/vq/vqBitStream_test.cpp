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

TEST(VqBitWriter, FirstBitGoesToTheTopOfALittleEndianWord) {
  VqBitWriter writer;
  writer.put(1, 1);
  writer.put(0b101, 3);
  EXPECT_EQ(bytesOf(writer), (std::vector<uint8_t>{0x00, 0x00, 0x00, 0xD0}));
}

TEST(VqBitWriter, ValueCrossingAWordIsSplitHighPartFirst) {
  VqBitWriter writer;
  writer.put(0, 30);
  writer.put(0b1011, 4);
  EXPECT_EQ(bytesOf(writer), (std::vector<uint8_t>{0x02, 0, 0, 0, 0, 0, 0, 0xC0}));
  EXPECT_EQ(writer.bitCount(), 34u);
}

TEST(VqBitWriter, ZeroWidthWritesNothingAndOutputIsPaddedToWords) {
  VqBitWriter writer;
  writer.put(0xFFFFFFFF, 0);
  EXPECT_EQ(writer.byteSize(), 0u);
  writer.put(1, 1);
  EXPECT_EQ(writer.byteSize(), 4u);
  writer.put(0xFFFFFFFF, 32);
  EXPECT_EQ(writer.byteSize(), 8u);
  EXPECT_EQ(bytesOf(writer), (std::vector<uint8_t>{0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x00, 0x80}));
}

TEST(VqBitReader, ReadsBackWhatTheWriterWrote) {
  std::mt19937 random(7);
  std::vector<std::pair<uint32_t, uint32_t>> values;
  VqBitWriter writer;
  for (int i = 0; i < 2000; ++i) {
    const uint32_t bits = random() % 33;
    const uint32_t value = bits == 32 ? uint32_t(random()) : uint32_t(random()) & ((1u << bits) - 1);
    values.push_back({value, bits});
    writer.put(value, bits);
  }
  const std::vector<uint8_t> bytes = bytesOf(writer);
  VqBitReader reader(bytes.data());
  for (const auto& [value, bits] : values) ASSERT_EQ(reader.get(bits), value) << bits;
  EXPECT_EQ(reader.position(), writer.bitCount());
}

}  // namespace

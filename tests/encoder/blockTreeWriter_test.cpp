#include <gtest/gtest.h>

#include <vector>

#include "encoder/blockTreeWriter.h"

namespace {

// Four symbols a byte from the low bits, behind the flags byte; only the packed bytes are written.
TEST(BlockTreeWriter, OpcodesPackFourToAByteFromTheLowBits) {
  std::vector<uint8_t> ops = {0x55, 0, 1, 2, 3, 3, 2, 1, 0, 2};
  ASSERT_EQ(zycPackOpcodes(ops.data(), uint32_t(ops.size())), 4u);
  EXPECT_EQ(ops, (std::vector<uint8_t>{0x55, 0xE4, 0x1B, 0x02, 3, 3, 2, 1, 0, 2}));
  for (uint32_t symbols = 1; symbols < 40; ++symbols) {
    std::vector<uint8_t> same(symbols + 1, 3);
    const uint32_t packed = (symbols + 3) / 4;
    EXPECT_EQ(zycPackOpcodes(same.data(), symbols + 1), 1 + packed);
    if (packed < symbols) {
      EXPECT_EQ(same[1 + packed], 3) << symbols;
    }
  }
}

TEST(BlockTreeWriter, OddFadeCountLeavesTheHighHalfZero) {
  std::vector<uint8_t> fades = {1, 15, 7, 8, 9};
  ASSERT_EQ(zycPackFades(fades.data(), 5), 3u);
  EXPECT_EQ(fades[0], 0xF1);
  EXPECT_EQ(fades[1], 0x87);
  EXPECT_EQ(fades[2], 0x09);
}

}  // namespace

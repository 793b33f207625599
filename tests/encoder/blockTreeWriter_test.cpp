#include <gtest/gtest.h>

#include <vector>

#include "base/byteIo.h"
#include "encoder/blockTreeWriter.h"
#include "encoder/motionSearch.h"
#include "stream/zylFormat.h"

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

TEST(BlockTreeWriter, ColourItemGathersColourPlaneThenIndexPlane) {
  // Levels of a 32 x 32 picture: level 0 has 8 x 8 blocks, level 1 4 x 4, level 2 2 x 2.
  std::vector<uint8_t> level[3];
  const uint32_t counts[3] = {64, 16, 4};
  for (int l = 0; l < 3; ++l) {
    level[l].resize(counts[l] * 8);
    for (uint32_t b = 0; b < counts[l]; ++b) {
      zycStore32(&level[l][b * 8], 0xC0000000u | uint32_t(l) << 16 | b);
      zycStore32(&level[l][b * 8 + 4], 0x10000000u | uint32_t(l) << 16 | b);
    }
  }
  zycBlock a, b, c;
  a.size = 16; a.x = 16; a.y = 16;  // level 2, block 3
  b.size = 4;  b.x = 12; b.y = 8;   // level 0, block 2 * 8 + 3 = 19
  c.size = 8;  c.x = 8;  c.y = 24;  // level 1, block 3 * 4 + 1 = 13
  const zycBlock* list[3] = {&a, &b, &c};
  const uint8_t* levels[3] = {level[0].data(), level[1].data(), level[2].data()};
  std::vector<uint8_t> item(24);
  zycGatherColourItem(list, 3, levels, 32, item.data());
  EXPECT_EQ(zycLoad32(&item[0]), 0xC0020003u);
  EXPECT_EQ(zycLoad32(&item[4]), 0xC0000013u);
  EXPECT_EQ(zycLoad32(&item[8]), 0xC001000Du);
  EXPECT_EQ(zycLoad32(&item[12]), 0x10020003u);
  EXPECT_EQ(zycLoad32(&item[16]), 0x10000013u);
  EXPECT_EQ(zycLoad32(&item[20]), 0x1001000Du);
}


}  // namespace

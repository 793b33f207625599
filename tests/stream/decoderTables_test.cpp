// The decoder's fixed tables against values worked out by hand and by their defining rules.
#include "stream/decoderTables.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>
#include <tuple>
#include <utility>
#include <vector>

#include "tests/stream/dxt1Rules.h"

TEST(MotionTables, SmallTableHasDistinctVectorsInGrowingDistance) {
  std::set<std::pair<int, int>> seen;
  int previous = 0;
  for (int i = 0; i < 256; ++i) {
    const int dx = kSmallMotionTable[i][0], dy = kSmallMotionTable[i][1];
    EXPECT_TRUE(seen.insert({dx, dy}).second) << "entry " << i;
    const int d = dx * dx + dy * dy;
    EXPECT_GE(d, previous) << "entry " << i;
    previous = d;
    EXPECT_GE(dx, -32);
    EXPECT_LT(dx, 32);
    EXPECT_GE(dy, -32);
    EXPECT_LT(dy, 32);
  }
}

TEST(MotionTables, SmallTableSpotEntries) {
  const int expected[][3] = {{0, 0, 0},     {1, 0, -1},     {4, 0, 1},      {8, 1, 1},
                             {53, 4, 1},    {68, -5, 0},    {100, -1, -7},  {128, -7, 6},
                             {200, 2, -20}, {254, 25, -32}, {255, -32, -32}};
  for (const auto& e : expected) {
    EXPECT_EQ(kSmallMotionTable[e[0]][0], e[1]) << "entry " << e[0];
    EXPECT_EQ(kSmallMotionTable[e[0]][1], e[2]) << "entry " << e[0];
  }
}

TEST(MotionTables, LargeTableOrdersTheWholeSquareByDistanceThenRowThenColumn) {
  static int8_t table[kLargeMotionCount][2];
  zycFillLargeMotionTable(table);
  std::vector<std::tuple<int, int, int>> order;
  for (int dy = -32; dy < 32; ++dy)
    for (int dx = -32; dx < 32; ++dx) order.emplace_back(dx * dx + dy * dy, dy, dx);
  std::sort(order.begin(), order.end());
  ASSERT_EQ(order.size(), 4096u);
  for (int i = 0; i < 4096; ++i) {
    ASSERT_EQ(table[i][0], std::get<2>(order[i])) << "entry " << i;
    ASSERT_EQ(table[i][1], std::get<1>(order[i])) << "entry " << i;
  }
  EXPECT_EQ(table[1][0], 0);
  EXPECT_EQ(table[1][1], -1);
  EXPECT_EQ(table[4095][0], -32);
  EXPECT_EQ(table[4095][1], -32);
}

// Every entry of the three tone curves against the fade rule; the short curves work on the
// widened 5 and 6-bit fields and keep their top bits in place.
TEST(DecoderTables, ToneCurvesFollowTheFadeRuleOnWidenedFields) {
  uint8_t tone8[16][256], tone5[16][32];
  uint32_t tone6[16][64];
  zycFillTone8(tone8);
  zycFillTone5(tone5);
  zycFillTone6(tone6);
  for (int level = 0; level < 16; ++level) {
    for (int v = 0; v < 256; ++v) ASSERT_EQ(tone8[level][v], tone(level, v)) << level << " " << v;
    for (uint32_t v = 0; v < 32; ++v)
      ASSERT_EQ(tone5[level][v], tone(level, widen5(v)) >> 3) << level << " " << v;
    for (uint32_t v = 0; v < 64; ++v)
      ASSERT_EQ(tone6[level][v], uint32_t(tone(level, widen6(v)) & 0xFC) * 8) << level << " " << v;
  }
  EXPECT_EQ(tone8[0][255], 153);  // 40% darker
  EXPECT_EQ(tone8[15][0], 102);   // 40% towards white
  EXPECT_EQ(tone6[0][63], 152u * 8);
}

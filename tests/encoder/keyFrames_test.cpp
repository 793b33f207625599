#include <gtest/gtest.h>

#include <vector>

#include "encoder/keyFrames.h"
#include "encoder/motionSearch.h"

namespace {

TEST(KeyFrames, ChangedCountsTopBlocksAboveTheMotionLimit) {
  std::vector<zycBlock> top(8);
  top[0].motionError = kChangedMotionError;      // not above
  top[1].motionError = kChangedMotionError + 1;  // above
  top[2].motionError = 0x3000000;
  EXPECT_DOUBLE_EQ(zycChangedPercent(top.data(), 8), 25.0);
}

TEST(KeyFrames, PlanForcesListedFramesAndInhibitsStrictlyInside) {
  const uint32_t listed[] = {7, 40};
  zylKeyframeRange second{30, 50, nullptr, 0, nullptr};
  zylKeyframeRange first{0, 10, listed, 2, &second};
  EXPECT_TRUE(zycWalkKeyPlan(&first, 7).forced);
  EXPECT_TRUE(zycWalkKeyPlan(&first, 7).inhibited);
  EXPECT_FALSE(zycWalkKeyPlan(&first, 10).inhibited);  // `last` itself is outside
  EXPECT_FALSE(zycWalkKeyPlan(&first, 30).inhibited);
  EXPECT_TRUE(zycWalkKeyPlan(&first, 31).inhibited);
  // Listed in one node and strictly inside another: forced wins.
  zycKeyPlanVerdict both = zycWalkKeyPlan(&first, 40);
  EXPECT_TRUE(both.forced && both.inhibited);
  EXPECT_TRUE(zycIsKeyFrame(0.0, 0.0, 3.0f, both.forced, both.inhibited));
}

// Small changes never make a key frame; a hard cut too soon after the last stays a P-frame; an
// inhibited frame is not key unless forced.
TEST(KeyFrames, ChangeDistanceAndPlanDecide) {
  const struct {
    double changed, seconds;
    bool forced, inhibited, key;
  } cases[] = {{4.9, 100.0, false, false, false}, {5.0, 3.0, false, false, true},
               {20.0, 2.9, false, false, false}, {90.0, 1.0, false, false, false},
               {90.0, 3.0, false, false, true},  {90.0, 30.0, false, true, false},
               {90.0, 1.0, true, true, true}};
  for (const auto& c : cases) {
    EXPECT_EQ(zycIsKeyFrame(c.changed, c.seconds, 3.0f, c.forced, c.inhibited), c.key)
        << c.changed << "% after " << c.seconds;
  }
}

}  // namespace

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

TEST(KeyFrames, SmallChangesNeverMakeAKeyFrame) {
  EXPECT_FALSE(zycIsKeyFrame(4.9, 100.0, 3.0f, false, false));
  EXPECT_TRUE(zycIsKeyFrame(5.0, 3.0, 3.0f, false, false));
  EXPECT_FALSE(zycIsKeyFrame(20.0, 2.9, 3.0f, false, false));
}

TEST(KeyFrames, AHardCutTooSoonStaysAPFrame) {
  EXPECT_FALSE(zycIsKeyFrame(90.0, 1.0, 3.0f, false, false));
  EXPECT_TRUE(zycIsKeyFrame(90.0, 3.0, 3.0f, false, false));
  EXPECT_FALSE(zycIsKeyFrame(90.0, 30.0, 3.0f, false, true));
  EXPECT_TRUE(zycIsKeyFrame(90.0, 1.0, 3.0f, true, true));
}

}  // namespace

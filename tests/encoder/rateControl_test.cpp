#include <gtest/gtest.h>

#include "encoder/motionSearch.h"
#include "encoder/rateControl.h"

namespace {

zycBudget Budget2000() {
  zycBudget b;
  b.compressionSize = 2000;
  b.iRat = double(0.2f);
  b.iDmp = 1.0f;
  b.timeScale = 1000000;
  b.frameDuration = 40000;  // 25 frames a second
  return b;
}

TEST(RateControl, FrameBudgetsFromTheChangeAndTheCredit) {
  struct Case {
    double changed;
    int32_t credit;
    int32_t wanted;
  };
  // A = 2000, F = 0.2, 25 frames a second: K = 10000, the slack share 400.
  const Case cases[] = {
      {3.0, 10, 2010},     {3.0, 1000, 2400},  // savings, up to the share
      {3.0, 0, 2000},      {25.0, -1, 1600},   // a debt costs the share
      {30.0, 5, 10000},    {30.0, -5, 5000},   // a scene change: K, halved by a debt
      {50.0, -5, 10000},                       // unless half the picture changed
  };
  for (const Case& c : cases) {
    zycBudget b = Budget2000();
    b.credit = c.credit;
    EXPECT_EQ(b.PFrameSize(c.changed), c.wanted) << c.changed << "% changed, credit " << c.credit;
  }
  EXPECT_EQ(Budget2000().KeyFrameSize(), 10000);
}

// A forced last key frame, paid for over N frames: A = 1000 gives K = 5000 and a share of 200,
// so each frame gives up 4200 / N, unless that leaves 70% of A or less.
TEST(RateControl, ALastKeyFrameIsPaidForByEveryFrameDownToSeventyPercent) {
  const std::pair<uint32_t, int32_t> cases[] = {{0, 1000}, {13, 1000}, {14, 1000}, {15, 720}};
  for (const auto& [frames, size] : cases) {
    zycBudget b;
    b.Open({1000, 0, 0, 0, 0, 1, frames}, false);
    EXPECT_EQ(b.compressionSize, size) << frames << " frames";
  }
}

// From 0 the next error is taken as it is. Otherwise coeff grows with the distance above the
// size and pct with two thirds of it: far above, the threshold grows by pct percent; on a tiny
// threshold it adds the size ratio instead; near the size it takes the step times coeff. A
// budget of 0 divides by 1.
TEST(RateControl, ConvergenceStepOfEachBranch) {
  const struct {
    uint32_t errorMax, errorNext;
    int32_t size, wanted;
    int branch;
    uint32_t next;
    float coeff;
  } cases[] = {
      {0, 1234, 99999, 1000, 0, 1234, 0.0f},
      {1000, 1010, 3000, 1000, 1, 1479, 98.75f},  // pct 48: 1000 x 1.48, less the float's rounding
      {5, 900, 2000, 1000, 2, 7, 48.75f},         // pct 16: 5 is below 100 / 16 + 1, so + 2
      {1000, 1003, 1010, 1000, 3, 1003, 1.0f},
      {50, 80, 500, 0, 1, 8049, 23750.0f},        // pct a hair under 16000 in float
  };
  for (const auto& c : cases) {
    const zycConvergence r = zycConvergenceStep(c.errorMax, c.errorNext, c.size, c.wanted);
    SCOPED_TRACE(c.errorMax);
    EXPECT_EQ(r.branch, c.branch);
    EXPECT_EQ(r.next, c.next);
    if (c.branch != 0) {
      EXPECT_FLOAT_EQ(r.coeff, c.coeff);
    }
  }
}

TEST(RateLoop, AFrameThatFitsAtZeroEndsAfterOnePass) {
  zycRateLoop loop;
  loop.Start(2000, 2000, 100, 0, 100000);
  EXPECT_FALSE(loop.AfterPass(1500, 700));
  EXPECT_TRUE(loop.stop);
  EXPECT_EQ(loop.passes, 0u);
  EXPECT_EQ(loop.errorMax, 0u);
}

TEST(RateLoop, ErrorMinKeepsTheLoopGoingAlthoughTheFrameFits) {
  zycRateLoop loop;
  loop.Start(2000, 2000, 100, 500, 100000);
  ASSERT_TRUE(loop.AfterPass(1500, 700));
  EXPECT_EQ(loop.errorMax, 700u);  // from 0 the convergence takes errorNext
  ASSERT_FALSE(loop.AfterPass(1200, 900));
  EXPECT_EQ(loop.passes, 1u);
}

TEST(RateLoop, TwentyOneEqualSizesAboveTheTargetStopTheFirstPhase) {
  zycRateLoop loop;
  loop.Start(1000, 1000, 1, 0, 100000);
  uint32_t passes = 0;
  while (!loop.stop && passes < 100) {
    ASSERT_TRUE(loop.AfterPass(5000, loop.errorMax + 7));
    ++passes;
  }
  // The first pass sets prevSize; 21 repeats follow.
  EXPECT_EQ(passes, 22u);
  EXPECT_EQ(loop.stagnantDicotomie, 21u);
}

TEST(RateLoop, NoErrorLeftEndsTheSecondPhase) {
  zycRateLoop loop;
  loop.Start(1000, 1000, 1, 0, 100000);
  loop.stop = true;
  loop.errorMax = 400;
  EXPECT_FALSE(loop.AfterPass(5000, kErrorNextStart));
}

TEST(RateLoop, BeginsLoopConvergesUntilTheFrameFits) {
  zycRateLoop loop;
  loop.StartConverging(1000, 1000, 0, 100000);
  ASSERT_TRUE(loop.AfterPass(3000, 40));
  EXPECT_EQ(loop.errorMax, 40u);
  ASSERT_TRUE(loop.AfterPass(2000, 45));
  EXPECT_GT(loop.errorMax, 45u);
  EXPECT_FALSE(loop.AfterPass(900, 300));
  EXPECT_EQ(loop.passes, 2u);
}

}  // namespace

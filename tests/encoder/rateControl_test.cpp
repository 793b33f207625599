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

TEST(RateControl, ConvergenceFromZeroTakesTheNextError) {
  zycConvergence c = zycConvergenceStep(0, 1234, 99999, 1000);
  EXPECT_EQ(c.next, 1234u);
  EXPECT_EQ(c.branch, 0);
}

TEST(RateControl, ConvergenceGrowsByAPercentageWhenFarAbove) {
  // size 3000, wanted 1000: coeff = (1975 / 1000) x 50 = 98.75; pct = (2000 - 1000) x 48 / 1000.
  zycConvergence c = zycConvergenceStep(1000, 1010, 3000, 1000);
  EXPECT_EQ(c.branch, 1);
  EXPECT_FLOAT_EQ(c.coeff, 98.75f);
  EXPECT_NEAR(c.pct, 48.0f, 0.001f);
  EXPECT_EQ(c.next, 1479u);  // 1000 x 1.48, less the float's rounding
}

TEST(RateControl, ConvergenceTakesTheStepWhenNearTheSize) {
  // size just above the target: coeff 1, pct 8; the step to the next error is small.
  zycConvergence c = zycConvergenceStep(1000, 1003, 1010, 1000);
  EXPECT_EQ(c.branch, 3);
  EXPECT_FLOAT_EQ(c.coeff, 1.0f);
  EXPECT_EQ(c.next, 1003u);
}

TEST(RateControl, ConvergenceOnATinyThresholdAddsTheSizeRatio) {
  // pct = 16, so e = 5 is below 100 / pct + 1 = 7.25, but the step is larger than pct percent.
  zycConvergence c = zycConvergenceStep(5, 900, 2000, 1000);
  EXPECT_EQ(c.branch, 2);
  EXPECT_EQ(c.increment, 2u);
  EXPECT_EQ(c.next, 7u);
}

TEST(RateControl, ConvergenceWithZeroBudgetStaysFinite) {
  zycConvergence c = zycConvergenceStep(50, 80, 500, 0);
  EXPECT_GT(c.next, 50u);
  EXPECT_LT(c.next, 0x40000000u);
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

TEST(RateLoop, ErrorLimitZeroStopsAfterTheFirstPassWhateverTheSize) {
  zycRateLoop loop;
  loop.Start(2000, 2000, 100, 0, 0);
  EXPECT_FALSE(loop.AfterPass(90000, 10));
  EXPECT_EQ(loop.passes, 0u);
}

TEST(RateLoop, StepsUpThenBisectsToTheLastFit) {
  zycRateLoop loop;
  loop.Start(1000, 1000, 1, 0, 100000);  // step 20
  // A made-up frame whose size falls by 10 bytes per unit of threshold from 1500.
  auto sizeAt = [](uint32_t t) { return int32_t(t >= 150 ? 0 : 1500 - 10 * int32_t(t)); };
  uint32_t guard = 0;
  while (loop.AfterPass(sizeAt(loop.errorMax), loop.errorMax + 1) && ++guard < 100) {
  }
  EXPECT_LT(guard, 100u);
  EXPECT_TRUE(loop.stop);
  // The bracket closes on 50, the first threshold that fits.
  EXPECT_EQ(loop.errorMax, 50u);
  EXPECT_LE(sizeAt(loop.errorMax), 1000);
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

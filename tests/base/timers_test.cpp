#include "base/timers.h"

#include <gtest/gtest.h>

#include <string>

namespace {

const char kReportHead[] =
    "------------------------------------------------------\n"
    "Detailed statistics (Total time since begining in min:sec:ms)\n";

std::string Report(double divider) {
  testing::internal::CaptureStdout();
  TimerReport(divider);
  return testing::internal::GetCapturedStdout();
}

void SetTime(int slot, uint64_t microseconds, uint32_t calls) {
  TimerSlot(slot).totalMicroseconds = microseconds;
  TimerSlot(slot).calls = calls;
}

TEST(TimerReport, SlotsNeverUsedPrintNothingButTheHead) {
  TimerReset();
  EXPECT_EQ(Report(1), kReportHead);
}

// Names are drawn as a tree under the slot they belong to.
TEST(TimerReport, PrintsMinutesSecondsAndHandPaddedMilliseconds) {
  TimerReset();
  SetTime(kTimerCompressor, 61234567, 3);     // 1 min 1 s 234.6 ms
  SetTime(kTimerDxt1Compression, 5000, 1);    // 5 ms
  SetTime(kTimerQuantizeCompress, 42000, 2);  // 42 ms
  SetTime(kTimerBackupZip, 7000, 1);          // 7 ms
  SetTime(kTimerDeflateEnd, 2001000, 4);      // 2 s 1 ms
  SetTime(kTimerGeneric3, 3599999000ull, 1);  // 59 min 59 s 999 ms
  EXPECT_EQ(Report(1), std::string(kReportHead) +
                           "  1:01:0235 for ZYL Compressor (3.0 calls)\n"
                           "  0:00:0005 for    +- DXT1 Compression (1.0 calls)\n"
                           "  0:00:0042 for    `- Quantize & Compress the data (2.0 calls)\n"
                           "  0:00:0007 for       +- Backup the zip (1.0 calls)\n"
                           "  0:02:0001 for       `- deflateEnd() (4.0 calls)\n"
                           " 59:59:0999 for Generic Timer 3 (1.0 calls)\n");
}

TEST(TimerReport, HandPaddingKeepsItsPrefixWhenRoundingAddsADigit) {
  TimerReset();
  SetTime(kTimerNext, 9600, 1);    // 9.6 ms: below 10, printed as 10 behind "000"
  SetTime(kTimerQuantize, 99700, 1);  // 99.7 ms: below 100, printed as 100 behind "00"
  SetTime(kTimerSaveBlock, 1000000, 1);  // exactly one second: 0 ms
  EXPECT_EQ(Report(1), std::string(kReportHead) +
                           "  0:00:00010 for `- Next() (1.0 calls)\n"
                           "  0:00:00100 for       +- Quantize (1.0 calls)\n"
                           "  0:01:0000 for       +- Save block (1.0 calls)\n");
}

TEST(TimerReport, DividerScalesTimesCallsAndSums) {
  TimerReset();
  SetTime(kTimerBuildMotionVector, 84000, 3);  // 84 ms / 2 = 42 ms
  TimerAddValue(kTimerGeneric0, 2);
  TimerAddValue(kTimerGeneric0, 5);
  EXPECT_EQ(Report(2), std::string(kReportHead) +
                           "  0:00:0042 for    +- BuildMotionVector() (1.5 calls)\n"
                           "Generic Timer 0: 4, max 5, maxmax 5\n");
}

TEST(TimerValues, SumsAndMaximaPrintForNonZeroSumsOnly) {
  TimerReset();
  TimerAddValue(kTimerSaveOffset, 7);
  TimerAddValue(kTimerSaveOffset, 3);
  TimerAddValue(kTimerBackupZip, 0);
  EXPECT_EQ(Report(1), std::string(kReportHead) + "      +- Save offset: 10, max 7, maxmax 7\n");
}

TEST(TimerValues, MaxmaxSurvivesALaterReset) {
  TimerReset();
  TimerAddValue(kTimerGeneric1, 9);
  TimerReset();
  EXPECT_EQ(TimerSlot(kTimerGeneric1).sum, 0u);
  EXPECT_EQ(TimerSlot(kTimerGeneric1).max, 0u);
  EXPECT_EQ(TimerSlot(kTimerGeneric1).maxmax, 9u);
  TimerAddValue(kTimerGeneric1, 4);
  EXPECT_EQ(Report(1), std::string(kReportHead) + "Generic Timer 1: 4, max 4, maxmax 9\n");
}

TEST(Timers, StartCountsCallsAndResetClearsThem) {
  TimerReset();
  TimerStart(kTimerGeneric2);
  TimerStop(kTimerGeneric2);
  TimerStart(kTimerGeneric2);
  TimerStop(kTimerGeneric2);
  EXPECT_EQ(TimerSlot(kTimerGeneric2).calls, 2u);
  TimerSlot(kTimerGeneric2).totalMicroseconds = 123;
  TimerReset();
  EXPECT_EQ(TimerSlot(kTimerGeneric2).calls, 0u);
  EXPECT_EQ(TimerSlot(kTimerGeneric2).totalMicroseconds, 0u);
}

TEST(Timers, StopWithoutStartMeasuresFromTheOldStart) {
  TimerReset();
  TimerSlot(kTimerGeneric2).startMicroseconds = 0;  // as if started at the clock's origin
  TimerStop(kTimerGeneric2);
  uint64_t first = TimerSlot(kTimerGeneric2).totalMicroseconds;
  EXPECT_GT(first, 0u);
  TimerStop(kTimerGeneric2);
  EXPECT_GE(TimerSlot(kTimerGeneric2).totalMicroseconds, 2 * first);
  EXPECT_EQ(TimerSlot(kTimerGeneric2).calls, 0u);
}

}  // namespace

#include "base/timers.h"

#include "base/clock.h"
#include "base/consoleLog.h"

namespace {

const char* const kTimerNames[kTimerSlotCount] = {
    "ZYL Compressor",
    "`- Next()",
    "   +- DXT1 Compression",
    "   +- BuildMotionVector()",
    "   `- Quantize & Compress the data",
    "      +- Quantize",
    "      +- Backup the zip",
    "      +- Save offset",
    "      +- Save block",
    "      `- deflateEnd()",
    "Generic Timer 0",
    "Generic Timer 1",
    "Generic Timer 2",
    "Generic Timer 3",
};

// Process-wide by design: one job runs at a time and only its thread uses them.
zycTimerSlot gTimers[kTimerSlotCount];
bool gTimersStarted = false;
bool gTimersReset = false;

}  // namespace

const char* TimerName(int slot) { return kTimerNames[slot]; }

zycTimerSlot& TimerSlot(int slot) { return gTimers[slot]; }

void TimerReset() {
  for (zycTimerSlot& timer : gTimers) {
    timer.totalMicroseconds = 0;
    timer.calls = 0;
    timer.sum = 0;
    timer.max = 0;
    if (!gTimersReset) timer.maxmax = 0;
  }
  gTimersReset = true;
}

void TimerStart(int slot) {
  if (!gTimersStarted) {
    gTimersStarted = true;
    TimerReset();
  }
  gTimers[slot].calls += 1;
  gTimers[slot].startMicroseconds = zycClockMicroseconds();
}

void TimerStop(int slot) {
  uint64_t now = zycClockMicroseconds();
  gTimers[slot].totalMicroseconds += now - gTimers[slot].startMicroseconds;
}

void TimerAddValue(int slot, uint32_t value) {
  zycTimerSlot& timer = gTimers[slot];
  timer.sum += value;
  if (value > timer.max) timer.max = value;
  if (value > timer.maxmax) timer.maxmax = value;
}

void TimerReport(double divider) {
  zycLog("------------------------------------------------------\n"
         "Detailed statistics (Total time since begining in min:sec:ms)\n");
  for (int slot = 0; slot < kTimerSlotCount; ++slot) {
    const zycTimerSlot& timer = gTimers[slot];
    if (timer.calls == 0) continue;
    float t = float(double(timer.totalMicroseconds) / divider / 1000.0);
    int s = int(t / 1000.0);
    int minutes = s / 60;
    int seconds = s % 60;
    double ms = t - (minutes * 60 + seconds) * 1000.0;
    double calls = timer.calls / divider;
    // The milliseconds are padded to four places by hand.
    if (ms < 10) {
      zycLog("%3d:%02d:000%.0f for %s (%.1f calls)\n", minutes, seconds, ms, kTimerNames[slot], calls);
    } else if (ms < 100) {
      zycLog("%3d:%02d:00%.0f for %s (%.1f calls)\n", minutes, seconds, ms, kTimerNames[slot], calls);
    } else if (ms < 1000) {
      zycLog("%3d:%02d:0%.0f for %s (%.1f calls)\n", minutes, seconds, ms, kTimerNames[slot], calls);
    } else {
      zycLog("%3d:%02d:%.0f for %s (%.1f calls)\n", minutes, seconds, ms, kTimerNames[slot], calls);
    }
  }
  for (int slot = 0; slot < kTimerSlotCount; ++slot) {
    const zycTimerSlot& timer = gTimers[slot];
    if (timer.sum == 0) continue;
    zycLog("%s: %1.f, max %u, maxmax %u\n", kTimerNames[slot], timer.sum / divider, timer.max,
           timer.maxmax);
  }
}

// Process-wide timers and value counters, printed by the encode job at its end.
//
// Fourteen slots with fixed names drawn as a tree. Each slot accumulates microseconds between
// TimerStart and TimerStop, counts its starts, and has a second family of value counters (sum,
// max, maxmax) under the same name. The slots are plain globals without a lock: one job runs in
// a process and only its thread touches them. TimerReset clears everything but `maxmax`, which
// only the first reset of the process clears.
#pragma once

#include <cstdint>

constexpr int kTimerSlotCount = 14;

enum zycTimerId : int {
  kTimerCompressor = 0,
  kTimerNext = 1,
  kTimerDxt1Compression = 2,
  kTimerBuildMotionVector = 3,
  kTimerQuantizeCompress = 4,
  kTimerQuantize = 5,
  kTimerBackupZip = 6,
  kTimerSaveOffset = 7,
  kTimerSaveBlock = 8,
  kTimerDeflateEnd = 9,
  kTimerGeneric0 = 10,
  kTimerGeneric1 = 11,
  kTimerGeneric2 = 12,
  kTimerGeneric3 = 13,
};

struct zycTimerSlot {
  uint64_t totalMicroseconds;
  uint64_t startMicroseconds;
  uint32_t calls;
  uint32_t sum;
  uint32_t max;
  uint32_t maxmax;
};

// The slot's printed name, leading blanks and tree marks included.
const char* TimerName(int slot);

// The first start of the process resets all slots. Counts a call and notes the clock.
void TimerStart(int slot);
// Adds the time since the slot's last start (a stop without a start uses the old start value).
void TimerStop(int slot);
// Clears times, calls, sums and maxima; `maxmax` only at the first reset of the process.
void TimerReset();
// Prints the report: time lines for slots that were started, value lines for non-zero sums.
// Times and counts are divided by `divider` (the encode job passes 1).
void TimerReport(double divider);

// Value counters: adds `value` to the slot's sum and raises its max and maxmax.
void TimerAddValue(int slot, uint32_t value);

// Direct access to a slot's statistics, for reports built from chosen values.
zycTimerSlot& TimerSlot(int slot);

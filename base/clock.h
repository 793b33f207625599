// The microsecond clock of the encode job and the timers: a monotonic counter read in whole
// microseconds. No state beyond the process's clock.
#pragma once

#include <cstdint>

uint64_t zycClockMicroseconds();

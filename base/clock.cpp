#include "base/clock.h"

#include <ctime>

uint64_t zycClockMicroseconds() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return uint64_t(now.tv_sec) * 1000000u + uint64_t(now.tv_nsec) / 1000u;
}

#include "base/parallel.h"

uint32_t zycThreadsInUse(uint32_t requested) {
  if (requested) return requested;
  const unsigned cores = std::thread::hardware_concurrency();
  return cores ? cores : 1;
}

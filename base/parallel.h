// Work split over threads inside one call: `zycParallelFor(threads, count, job)` runs job(i) for
// every i below `count`, on the caller's thread and up to threads - 1 helper threads that take
// the next index as they become free. The helpers are started for the call and joined before it
// returns, so nothing runs behind the caller's back. Jobs must write disjoint memory; the result
// may not depend on which thread ran which index.
#pragma once

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

// The thread count that 0 ("as many as the machine has cores") stands for; at least 1.
uint32_t zycThreadsInUse(uint32_t requested);

template <typename Job>
void zycParallelFor(uint32_t threads, uint32_t count, const Job& job) {
  if (threads > count) threads = count;
  if (threads <= 1) {
    for (uint32_t i = 0; i < count; ++i) job(i);
    return;
  }
  std::atomic<uint32_t> next{0};
  auto run = [&]() {
    for (uint32_t i = next.fetch_add(1, std::memory_order_relaxed); i < count;
         i = next.fetch_add(1, std::memory_order_relaxed)) {
      job(i);
    }
  };
  std::vector<std::thread> helpers;
  helpers.reserve(threads - 1);
  // A helper that can't be started leaves its share to the others.
  for (uint32_t t = 1; t < threads; ++t) {
    try {
      helpers.emplace_back(run);
    } catch (...) {
      break;
    }
  }
  run();
  for (std::thread& helper : helpers) helper.join();
}

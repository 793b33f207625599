// Affine search of the plane coder: for every block position and size, the least-squares fit
// target ~ a / 256 * reference + b of the co-located reference block, its gain, and the best
// block of each size. Fits are refreshed near what changed in every iteration.
// Search. State: single-instance module state.
#pragma once

#include <cstdint>

#include "mpmc/mpmcSupport.h"

struct afProcOptimized {
  static void init(int32_t width, int32_t height);
  static void release();
  static void initSearchFromProfessorData(Label* mc, Pic* source, Label* mp, const McRect& changedRect);
  static void afSearch();
  static void afSearchMonoThread();

  static int32_t levelBestGain[4];
  static uint32_t levelBestFit[4];  // (b + 256) * 4096 + (a + 1024)
  static int32_t levelBestX[4];
  static int32_t levelBestY[4];
};

// The packed fit of a block from its sums over n pixels: reference, target, reference squared,
// reference times target. 4x4 blocks (n = 16) fall back to the mean when the fit is out of range.
uint32_t zycAffineFit(uint32_t sr, uint32_t st, uint32_t srr, uint32_t srt, uint32_t n);

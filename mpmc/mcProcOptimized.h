// Motion search of the plane coder: SADs of every 4x4 block against every whole-pixel vector
// once per plane, the larger blocks' SADs by adding tables, each block's best vector, and the
// gains near what changed; the best block of each size. Also the application of motion and
// affine blocks through the overlapped windows.
// Search, except applyBlock's reconstruction, which readers repeat bit for bit.
// State: single-instance module state.
#pragma once

#include <cstdint>

#include "mpmc/mpmcSupport.h"

struct mcProcOptimized {
  static void init(int32_t width, int32_t height);
  static void release();
  static void initSearchFromProfessorData(Label* mc, Pic* source, Label* mp, const McRect& changedRect);
  static void mcSearch();
  static void mcSearchMonoThread();

  static int32_t levelBestGain[4];
  static int32_t levelBestVector[4];
  static int32_t levelBestX[4];
  static int32_t levelBestY[4];
};

// SADs of one 4x4 block of `target` against `ref` at the 32 x 32 offsets 0..31 (entry
// dy * 32 + dx); `ref` points 16 rows above and 16 columns left of the block's place.
using zycSadTableFn = void (*)(const uint8_t* target, int32_t targetStride, const uint8_t* ref,
                               int32_t refStride, uint16_t* out);
void zycSadTable4x4Plain(const uint8_t* target, int32_t targetStride, const uint8_t* ref,
                         int32_t refStride, uint16_t* out);
// The kernel in use; the plain one unless a faster one is selected.
extern zycSadTableFn zycSadTable4x4;

// The overlapped windows of the four block sizes, printed as they are made.
void initOmcWindows();
void freeOmcWindows();
extern Label* omcWindows[4];

// Applies `block` to `mc` (with `mp` and `p` given) or estimates its gain (with `mp` null)
// against errorImage and targetImage. Returns the gain; `rect` receives the area touched.
// `label` >= 0 restricts it to pixels of that label in labelMap.
int32_t applyBlock(const McBlock* block, Label* mc, Label* mp, const mpmcParam* p, McRect* rect,
                   int32_t label);

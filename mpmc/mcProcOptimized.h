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

// The first index of the smallest of 1024 table entries (all below 2^31).
using zycBestEntry16Fn = int32_t (*)(const uint16_t* table);
using zycBestEntry32Fn = int32_t (*)(const uint32_t* table);
int32_t zycBestEntry16Plain(const uint16_t* table);
int32_t zycBestEntry32Plain(const uint32_t* table);

// Sum over a size x size block of (o - clamp(mp + m))^2, m the moved pixel: the reference
// pixel r itself for motion, ((a * r) >> 8) + b for the affine map. Rows of each image are
// `stride` elements apart.
using zycMovedErrorFn = int32_t (*)(const uint8_t* o, int32_t oStride, const int32_t* mp,
                                    int32_t mpStride, const int32_t* r, int32_t rStride,
                                    int32_t size, int32_t a, int32_t b);
int32_t zycMotionErrorPlain(const uint8_t* o, int32_t oStride, const int32_t* mp, int32_t mpStride,
                            const int32_t* r, int32_t rStride, int32_t size, int32_t a, int32_t b);
int32_t zycAffineErrorPlain(const uint8_t* o, int32_t oStride, const int32_t* mp, int32_t mpStride,
                            const int32_t* r, int32_t rStride, int32_t size, int32_t a, int32_t b);

// How a moved block's error changes where mpImage changed: the sum over `columns` x `rows`
// pixels of (o - clamp(now + m))^2 - (o - clamp(before + m))^2, m as above.
using zycMovedDeltaFn = int32_t (*)(const uint8_t* o, int32_t oStride, const int32_t* now,
                                    int32_t nowStride, const int32_t* before, int32_t beforeStride,
                                    const int32_t* r, int32_t rStride, int32_t columns, int32_t rows,
                                    int32_t a, int32_t b);
int32_t zycMotionDeltaPlain(const uint8_t* o, int32_t oStride, const int32_t* now, int32_t nowStride,
                            const int32_t* before, int32_t beforeStride, const int32_t* r,
                            int32_t rStride, int32_t columns, int32_t rows, int32_t a, int32_t b);
int32_t zycAffineDeltaPlain(const uint8_t* o, int32_t oStride, const int32_t* now, int32_t nowStride,
                            const int32_t* before, int32_t beforeStride, const int32_t* r,
                            int32_t rStride, int32_t columns, int32_t rows, int32_t a, int32_t b);

// One row of a block's estimated gain, sum of e - (blend - t)^2 over `count` pixels, where the
// block's pixel v is blended with mc by the window: (v * w + (65536 - w) * mc + 32768) >> 16.
// Motion: v = (r0[x] + r0[x + fx] + r1[x] + r1[x + fx] + 2) >> 2. Affine: v = clamp(((a * r) >> 8)
// + b), the blend cut to 16 bits.
using zycMotionEstimateFn = int32_t (*)(const int32_t* r0, const int32_t* r1, int32_t fx,
                                        const int32_t* window, const int32_t* mc, const int32_t* target,
                                        const int32_t* error, int32_t count);
using zycAffineEstimateFn = int32_t (*)(const int32_t* r, int32_t a, int32_t b, const int32_t* window,
                                        const int32_t* mc, const int32_t* target, const int32_t* error,
                                        int32_t count);
int32_t zycMotionEstimatePlain(const int32_t* r0, const int32_t* r1, int32_t fx, const int32_t* window,
                               const int32_t* mc, const int32_t* target, const int32_t* error, int32_t count);
int32_t zycAffineEstimatePlain(const int32_t* r, int32_t a, int32_t b, const int32_t* window,
                               const int32_t* mc, const int32_t* target, const int32_t* error, int32_t count);

// The overlapped windows of the four block sizes, printed as they are made.
void initOmcWindows();
void freeOmcWindows();
extern Label* omcWindows[4];

// Applies `block` to `mc` (with `mp` and `p` given) or estimates its gain (with `mp` null)
// against errorImage and targetImage. Returns the gain; `rect` receives the area touched.
// `label` >= 0 restricts it to pixels of that label in labelMap.
int32_t applyBlock(const McBlock* block, Label* mc, Label* mp, const mpmcParam* p, McRect* rect,
                   int32_t label);

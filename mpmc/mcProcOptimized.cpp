#include "mpmc/mcProcOptimized.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "base/consoleLog.h"
#include "mpmc/planeKernels.h"
#include "stream/mpmcTables.h"

int32_t mcProcOptimized::levelBestGain[4];
int32_t mcProcOptimized::levelBestVector[4];
int32_t mcProcOptimized::levelBestX[4];
int32_t mcProcOptimized::levelBestY[4];

Label* omcWindows[4];

namespace {

constexpr int32_t kRefMargin = 18;
constexpr int32_t kPadMargin = 24;  // paddedRef's margin: searchRange + 8

// Module state.
int32_t width, height, gridW, gridH;
int32_t refStride;
uint8_t* refBytes;     // (width + 36) x (height + 36), margin 18, edges repeated
uint8_t* targetBytes;  // clamp(source - mpImage)
// SAD tables, 1024 entries per block position, kept for the last kRing grid rows of each level
// (one table for level 3): a table is read only to make the next level and its best vector.
constexpr int32_t kRing = 8;
uint16_t* sadTable0;   // level 0
uint32_t* sadTable[4]; // levels 1..3
uint16_t* bestVector[4];
int32_t* gain[4];
int32_t positionsX[4], positionsY[4];
// Per level and grid row: the row's largest gain and the first position holding it, so that the
// selection reads one value a row.
int32_t* rowBestGain[4];
// Per level and position: the block's squared error now, sum of (o - clamp(mc + mp))^2, built
// from the four half-size blocks like the SAD tables.
int32_t* errorSum[4];
// Per level and position: the moved block's error, sum of (o - clamp(mp + m))^2 with m the moved
// pixel. Kept between iterations and corrected only where an atom changed mpImage; mpBefore
// holds mpImage as the last search saw it.
int32_t* movedError[4];
int32_t* mpBefore;
McRect changed;  // the changed rectangle as handed over, clamped
int32_t* rowBestPos[4];

// The row bests of grid rows gy0..gy1 whose gains changed in columns gx0..gx1. A row whose
// best lies outside those columns keeps it unless a changed gain beats it (or equals it
// further left); otherwise the whole row is scanned again.
void RowBests(int32_t k, int32_t gy0, int32_t gy1, int32_t gx0, int32_t gx1) {
  for (int32_t gy = gy0; gy < gy1; ++gy) {
    const int32_t* g = gain[k] + static_cast<size_t>(gy) * positionsX[k];
    int32_t best = rowBestPos[k][gy] - gy * positionsX[k];
    if (best >= gx0 && best < gx1) {
      best = 0;
      for (int32_t gx = 1; gx < positionsX[k]; ++gx)
        if (g[gx] > g[best]) best = gx;
    } else {
      for (int32_t gx = gx0; gx < gx1; ++gx)
        if (g[gx] > g[best] || (g[gx] == g[best] && gx < best)) best = gx;
    }
    rowBestGain[k][gy] = g[best];
    rowBestPos[k][gy] = gy * positionsX[k] + best;
  }
}
McRect work;  // aligned to 4
Label *mcIn, *mpIn;
Pic* sourceIn;

void ErrorSums(int32_t k, int32_t xs, int32_t xe, int32_t ys, int32_t ye) {
  for (int32_t y = ys; y < ye; y += 4)
    for (int32_t x = xs; x < xe; x += 4) {
      const int32_t pos = (y / 4) * positionsX[k] + x / 4;
      if (k == 0) {
        int32_t e = 0;
        for (int32_t j = 0; j < 4; ++j) {
          const int32_t* mc = mcIn->rows[y + j] + x;
          const int32_t* mp = mpIn->rows[y + j] + x;
          const uint8_t* o = sourceIn->rows[y + j] + x;
          for (int32_t i = 0; i < 4; ++i) {
            const int32_t t = mc[i] + mp[i];
            const int32_t d = o[i] - (t < 0 ? 0 : (t > 255 ? 255 : t));
            e += d * d;
          }
        }
        errorSum[0][pos] = e;
      } else {
        const int32_t half = 1 << (k - 1), stride = positionsX[k - 1];
        const int32_t child = (y / 4) * stride + x / 4;
        const int32_t* c = errorSum[k - 1];
        errorSum[k][pos] = c[child] + c[child + half] + c[child + half * stride] + c[child + half * stride + half];
      }
    }
}


// First entry with the lowest value.
template <typename T>
int32_t BestEntry(const T* table) {
  int32_t best = 0;
  T lowest = table[0];
  for (int32_t i = 1; i < 1024; ++i)
    if (table[i] < lowest) {
      lowest = table[i];
      best = i;
    }
  return best;
}

// Gain of moving the reference at whole-pixel (dx, dy) into the block at (x, y), no window:
// the block's error now less its moved error, which is found in full on a plane's first search
// and corrected after an atom by the pixels the atom changed.
int32_t PositionGain(int32_t k, int32_t pos, int32_t x, int32_t y, int32_t size, int32_t vector) {
  const int32_t dx = (vector & 31) - 16, dy = (vector >> 5) - 16;
  if (lastMethod == 0) {
    movedError[k][pos] = planeKernels.motionError(
        sourceIn->rows[y] + x, width, mpIn->rows[y] + x, mpIn->width,
        paddedRef->rows[y + dy + kPadMargin] + x + dx + kPadMargin, paddedRef->width, size, 256, 0);
  } else if (lastMethod == 2) {
    const int32_t x0 = std::max(x, changed.x0), x1 = std::min(x + size, changed.x1);
    const int32_t y0 = std::max(y, changed.y0), y1 = std::min(y + size, changed.y1);
    const int32_t delta =
        x0 < x1 && y0 < y1 ? planeKernels.motionDelta(
                                 sourceIn->rows[y0] + x0, width, mpIn->rows[y0] + x0, mpIn->width,
                                 mpBefore + static_cast<size_t>(y0) * width + x0, width,
                                 paddedRef->rows[y0 + dy + kPadMargin] + x0 + dx + kPadMargin,
                                 paddedRef->width, x1 - x0, y1 - y0, 256, 0)
                           : 0;
    movedError[k][pos] += delta;
  }
  return errorSum[k][pos] - movedError[k][pos];
}

// mpBefore takes mpImage's values where the last search's rectangle changed them.
void KeepMpBefore() {
  const McRect r = lastMethod == 0 ? McRect{0, 0, width, height} : changed;
  if (lastMethod != 0 && lastMethod != 2) return;  // blocks leave mpImage as it was
  for (int32_t y = r.y0; y < r.y1; ++y)
    std::memcpy(mpBefore + static_cast<size_t>(y) * width + r.x0, mpIn->rows[y] + r.x0,
                static_cast<size_t>(r.x1 - r.x0) * sizeof(int32_t));
}

// The SAD tables of one grid row of level 0, for the whole width, and their best vectors.
void LevelZeroRow(int32_t gy) {
  const int32_t y = gy * 4;
  const bool lastSingle = width % 8 != 0;
  uint16_t* ring = sadTable0 + static_cast<size_t>(gy % kRing) * gridW * 1024;
  for (int32_t x = 0; x < width; x += 4) {
    uint16_t* table = ring + static_cast<size_t>(x / 4) * 1024;
    planeKernels.sadTable4x4(
        targetBytes + static_cast<size_t>(y) * width + x, width,
        refBytes + static_cast<size_t>(y + kRefMargin - 16) * refStride + x + kRefMargin - 16,
        refStride, table);
    int32_t best = planeKernels.bestEntry16(table);
    // The single-block pass of the last column records the entry after the best one.
    if (lastSingle && x + 4 == width) best = std::min(best + 1, 1023);
    bestVector[0][gy * gridW + x / 4] = static_cast<uint16_t>(best);
  }
}

// The tables of one grid row of level k from four tables of level k - 1 at half the block's
// size apart, and their best vectors.
void LargerRow(int32_t k, int32_t gy) {
  const int32_t half = 1 << (k - 1);
  const int32_t stride = positionsX[k - 1];
  uint32_t* ring = k == 3 ? sadTable[3] : sadTable[k] + static_cast<size_t>(gy % kRing) * positionsX[k] * 1024;
  for (int32_t gx = 0; gx < positionsX[k]; ++gx) {
    uint32_t* out = k == 3 ? ring : ring + static_cast<size_t>(gx) * 1024;
    if (k == 1) {
      const uint16_t* a = sadTable0 + (static_cast<size_t>(gy % kRing) * stride + gx) * 1024;
      const uint16_t* b = a + 1024;
      const uint16_t* c = sadTable0 + (static_cast<size_t>((gy + 1) % kRing) * stride + gx) * 1024;
      const uint16_t* d = c + 1024;
      // Formed in 16 bits, stored in 32.
      for (int32_t i = 0; i < 1024; ++i) out[i] = static_cast<uint16_t>(a[i] + b[i] + c[i] + d[i]);
    } else {
      const uint32_t* a = sadTable[k - 1] + (static_cast<size_t>(gy % kRing) * stride + gx) * 1024;
      const uint32_t* b = a + static_cast<size_t>(half) * 1024;
      const uint32_t* c = sadTable[k - 1] + (static_cast<size_t>((gy + half) % kRing) * stride + gx) * 1024;
      const uint32_t* d = c + static_cast<size_t>(half) * 1024;
      for (int32_t i = 0; i < 1024; ++i) out[i] = a[i] + b[i] + c[i] + d[i];
    }
    bestVector[k][gy * positionsX[k] + gx] = static_cast<uint16_t>(planeKernels.bestEntry32(out));
  }
}

// Every table of the plane, row by row: a level's row is made as soon as the rows of the level
// below that it adds up exist, so that only the last kRing rows of each level are kept.
void AllTables() {
  for (int32_t r = 0; r < gridH + 7; ++r) {
    if (r < gridH) LevelZeroRow(r);
    for (int32_t k = 1; k < 4; ++k) {
      const int32_t gy = r - ((1 << k) - 1);
      if (gy >= 0 && gy < positionsY[k]) LargerRow(k, gy);
    }
  }
}

}  // namespace

int32_t zycBestEntry16Plain(const uint16_t* table) { return BestEntry(table); }
int32_t zycBestEntry32Plain(const uint32_t* table) { return BestEntry(table); }

int32_t zycMotionErrorPlain(const uint8_t* o, int32_t oStride, const int32_t* mp, int32_t mpStride,
                            const int32_t* r, int32_t rStride, int32_t size, int32_t, int32_t) {
  int32_t e = 0;
  for (int32_t j = 0; j < size; ++j, o += oStride, mp += mpStride, r += rStride)
    for (int32_t i = 0; i < size; ++i) {
      const int32_t d = o[i] - Clamp255(mp[i] + r[i]);
      e += d * d;
    }
  return e;
}

int32_t zycAffineErrorPlain(const uint8_t* o, int32_t oStride, const int32_t* mp, int32_t mpStride,
                            const int32_t* r, int32_t rStride, int32_t size, int32_t a, int32_t b) {
  int32_t e = 0;
  for (int32_t j = 0; j < size; ++j, o += oStride, mp += mpStride, r += rStride)
    for (int32_t i = 0; i < size; ++i) {
      const int32_t d = o[i] - Clamp255(mp[i] + ((a * r[i]) >> 8) + b);
      e += d * d;
    }
  return e;
}

namespace {

template <bool kAffine>
int32_t MovedDelta(const uint8_t* o, int32_t oStride, const int32_t* now, int32_t nowStride,
                   const int32_t* before, int32_t beforeStride, const int32_t* r, int32_t rStride,
                   int32_t columns, int32_t rows, int32_t a, int32_t b) {
  int32_t delta = 0;
  for (int32_t j = 0; j < rows; ++j, o += oStride, now += nowStride, before += beforeStride, r += rStride)
    for (int32_t i = 0; i < columns; ++i) {
      const int32_t m = kAffine ? ((a * r[i]) >> 8) + b : r[i];
      const int32_t e1 = o[i] - Clamp255(now[i] + m), e0 = o[i] - Clamp255(before[i] + m);
      delta += e1 * e1 - e0 * e0;
    }
  return delta;
}

}  // namespace

int32_t zycMotionDeltaPlain(const uint8_t* o, int32_t oStride, const int32_t* now, int32_t nowStride,
                            const int32_t* before, int32_t beforeStride, const int32_t* r,
                            int32_t rStride, int32_t columns, int32_t rows, int32_t a, int32_t b) {
  return MovedDelta<false>(o, oStride, now, nowStride, before, beforeStride, r, rStride, columns, rows, a, b);
}

int32_t zycAffineDeltaPlain(const uint8_t* o, int32_t oStride, const int32_t* now, int32_t nowStride,
                            const int32_t* before, int32_t beforeStride, const int32_t* r,
                            int32_t rStride, int32_t columns, int32_t rows, int32_t a, int32_t b) {
  return MovedDelta<true>(o, oStride, now, nowStride, before, beforeStride, r, rStride, columns, rows, a, b);
}

int32_t zycMotionEstimatePlain(const int32_t* r0, const int32_t* r1, int32_t fx, const int32_t* window,
                               const int32_t* mc, const int32_t* target, const int32_t* error, int32_t count) {
  int32_t g = 0;
  for (int32_t x = 0; x < count; ++x) {
    const int32_t v = (r0[x] + r0[x + fx] + r1[x] + r1[x + fx] + 2) >> 2;
    const int32_t blended = (v * window[x] + (65536 - window[x]) * mc[x] + 32768) >> 16;
    const int32_t d = blended - target[x];
    g += error[x] - d * d;
  }
  return g;
}

int32_t zycAffineEstimatePlain(const int32_t* r, int32_t a, int32_t b, const int32_t* window,
                               const int32_t* mc, const int32_t* target, const int32_t* error, int32_t count) {
  int32_t g = 0;
  for (int32_t x = 0; x < count; ++x) {
    const int32_t v = Clamp255(((a * r[x]) >> 8) + b);
    const int32_t blended = static_cast<int16_t>((v * window[x] + (65536 - window[x]) * mc[x] + 32768) >> 16);
    const int32_t d = blended - target[x];
    g += error[x] - d * d;
  }
  return g;
}

void zycSadTable4x4Plain(const uint8_t* target, int32_t targetStride, const uint8_t* ref,
                         int32_t refStride, uint16_t* out) {
  for (int32_t dy = 0; dy < 32; ++dy) {
    for (int32_t dx = 0; dx < 32; ++dx) {
      uint32_t sad = 0;
      for (int32_t j = 0; j < 4; ++j) {
        const uint8_t* t = target + j * targetStride;
        const uint8_t* r = ref + (dy + j) * refStride + dx;
        for (int32_t i = 0; i < 4; ++i) sad += static_cast<uint32_t>(std::abs(t[i] - r[i]));
      }
      out[dy * 32 + dx] = static_cast<uint16_t>(sad);
    }
  }
}

void mcProcOptimized::init(int32_t w, int32_t h) {
  ZYC_ASSERT(w % param.MV_START_BLOCK_SIZE == 0, "mcProcOptimized::init",
             "width(%d) must be a multiple of MV_START_BLOCK_SIZE(%d)\n", w, param.MV_START_BLOCK_SIZE);
  ZYC_ASSERT(h % param.MV_START_BLOCK_SIZE == 0, "mcProcOptimized::init",
             "height(%d) must be a multiple of MV_START_BLOCK_SIZE(%d)\n", h, param.MV_START_BLOCK_SIZE);
  width = w;
  height = h;
  gridW = w / 4;
  gridH = h / 4;
  refStride = w + 2 * kRefMargin;
  // 64 bytes beyond the last row: the fast SAD kernels read whole 16-byte pieces.
  refBytes = static_cast<uint8_t*>(mpmcAlloc(static_cast<size_t>(refStride) * (h + 2 * kRefMargin) + 64));
  targetBytes = static_cast<uint8_t*>(mpmcAlloc(static_cast<size_t>(w) * h));
  mpBefore = static_cast<int32_t*>(mpmcAlloc(static_cast<size_t>(w) * h * sizeof(int32_t)));
  for (int32_t k = 0; k < 4; ++k) {
    positionsX[k] = std::max(gridW - (1 << k) + 1, 0);
    positionsY[k] = std::max(gridH - (1 << k) + 1, 0);
    const size_t positions = std::max<size_t>(static_cast<size_t>(positionsX[k]) * positionsY[k], 1);
    const size_t ringTables = k == 3 ? 1 : std::max<size_t>(static_cast<size_t>(positionsX[k]) * kRing, 1);
    if (k == 0)
      sadTable0 = static_cast<uint16_t*>(mpmcAlloc(ringTables * 1024 * sizeof(uint16_t), 64));
    else
      sadTable[k] = static_cast<uint32_t*>(mpmcAlloc(ringTables * 1024 * sizeof(uint32_t), 64));
    bestVector[k] = static_cast<uint16_t*>(mpmcAlloc(positions * sizeof(uint16_t), 64));
    gain[k] = static_cast<int32_t*>(mpmcAlloc(positions * sizeof(int32_t), 64));
    std::memset(bestVector[k], 0, positions * sizeof(uint16_t));
    std::memset(gain[k], 0, positions * sizeof(int32_t));
    errorSum[k] = static_cast<int32_t*>(mpmcAlloc(positions * sizeof(int32_t), 64));
    movedError[k] = static_cast<int32_t*>(mpmcAlloc(positions * sizeof(int32_t), 64));
    std::memset(movedError[k], 0, positions * sizeof(int32_t));
    std::memset(errorSum[k], 0, positions * sizeof(int32_t));
    const size_t rows = std::max<size_t>(positionsY[k], 1);
    rowBestGain[k] = static_cast<int32_t*>(mpmcAlloc(rows * sizeof(int32_t)));
    rowBestPos[k] = static_cast<int32_t*>(mpmcAlloc(rows * sizeof(int32_t)));
    std::memset(rowBestGain[k], 0, rows * sizeof(int32_t));
    for (size_t r = 0; r < rows; ++r) rowBestPos[k][r] = static_cast<int32_t>(r) * positionsX[k];
  }
}

void mcProcOptimized::release() {
  for (int32_t k = 3; k >= 0; --k) {
    mpmcFree(errorSum[k]);
    errorSum[k] = nullptr;
    mpmcFree(movedError[k]);
    movedError[k] = nullptr;
    mpmcFree(rowBestPos[k]);
    mpmcFree(rowBestGain[k]);
    rowBestPos[k] = rowBestGain[k] = nullptr;
    mpmcFree(gain[k]);
    mpmcFree(bestVector[k]);
    if (k == 0)
      mpmcFree(sadTable0);
    else
      mpmcFree(sadTable[k]);
    gain[k] = nullptr;
    bestVector[k] = nullptr;
    sadTable[k] = nullptr;
  }
  sadTable0 = nullptr;
  mpmcFree(mpBefore);
  mpBefore = nullptr;
  mpmcFree(targetBytes);
  mpmcFree(refBytes);
  targetBytes = refBytes = nullptr;
}

void mcProcOptimized::initSearchFromProfessorData(Label* mc, Pic* source, Label* mp,
                                                  const McRect& changedRect) {
  ZYC_ASSERT(mc->width == width, "mcProcOptimized::initSearchFromProfessorData",
             "width(%d) different for specified LABEL width (%d)\n", width, mc->width);
  ZYC_ASSERT(mc->height == height, "mcProcOptimized::initSearchFromProfessorData",
             "height(%d) different for specified LABEL height (%d)\n", height, mc->height);
  ZYC_ASSERT(source->width == width, "mcProcOptimized::initSearchFromProfessorData",
             "width(%d) different for specified IMAGE width (%d)\n", width, source->width);
  ZYC_ASSERT(source->height == height, "mcProcOptimized::initSearchFromProfessorData",
             "height(%d) different for specified IMAGE height (%d)\n", height, source->height);
  ZYC_ASSERT(mp->width >= width, "mcProcOptimized::initSearchFromProfessorData",
             "width for specified LABEL (%d) too small compared to width (%d)\n", mp->width, width);
  ZYC_ASSERT(mp->height >= height, "mcProcOptimized::initSearchFromProfessorData",
             "height for specified LABEL (%d) too small compared to height (%d)\n", mp->height, height);
  mcIn = mc;
  mpIn = mp;
  sourceIn = source;
  mpmcSearchRects(changedRect, width, height, &work, &changed);
  mpmcTargetBytes(source, mp, changedRect, width, targetBytes);
  if (changedRect.x0 == 0 && changedRect.y0 == 0 && changedRect.x1 == width &&
      changedRect.y1 == height) {
    for (int32_t j = 0; j < height + 2 * kRefMargin; ++j) {
      const int32_t* src = paddedRef->rows[kPadMargin + std::clamp(j - kRefMargin, 0, height - 1)] + kPadMargin;
      uint8_t* out = refBytes + static_cast<size_t>(j) * refStride;
      for (int32_t i = 0; i < refStride; ++i) out[i] = static_cast<uint8_t>(src[std::clamp(i - kRefMargin, 0, width - 1)]);
    }
  }
}

void mcProcOptimized::mcSearch() {
  ZYC_ASSERT((work.x1 - work.x0) % 4 == 0, "mcProcOptimized::mcSearch", "Invalid internal state\n");
  mcSearchMonoThread();
}

void mcProcOptimized::mcSearchMonoThread() {
  if (lastMethod == 0) AllTables();
  ErrorSums(0, work.x0, work.x1, work.y0, work.y1);
  for (int32_t y = work.y0; y < work.y1; y += 4)
    for (int32_t x = work.x0; x < work.x1; x += 4) {
      const int32_t pos = (y / 4) * gridW + x / 4;
      gain[0][pos] = PositionGain(0, pos, x, y, 4, bestVector[0][pos]);
    }
  RowBests(0, work.y0 / 4, work.y1 / 4, work.x0 / 4, work.x1 / 4);
  for (int32_t k = 1; k < 4; ++k) {
    const int32_t size = 4 << k;
    const int32_t xs = std::max(work.x0 - size + 4, 0), xe = std::min(width - size + 4, work.x1);
    const int32_t ys = std::max(work.y0 - size + 4, 0), ye = std::min(height - size + 4, work.y1);
    if (xs >= xe || ys >= ye) continue;
    ErrorSums(k, xs, xe, ys, ye);
    for (int32_t y = ys; y < ye; y += 4)
      for (int32_t x = xs; x < xe; x += 4) {
        const int32_t pos = (y / 4) * positionsX[k] + x / 4;
        gain[k][pos] = PositionGain(k, pos, x, y, size, bestVector[k][pos]);
      }
    RowBests(k, ys / 4, ye / 4, xs / 4, xe / 4);
  }
  KeepMpBefore();
  for (int32_t k = 0; k < 4; ++k) {
    const int32_t count = positionsX[k] * positionsY[k];
    if (count == 0) {
      levelBestGain[k] = INT_MIN;
      levelBestVector[k] = 16 * 32 + 16;
      levelBestX[k] = levelBestY[k] = 0;
      continue;
    }
    // The first position in raster order with the largest gain.
    int32_t best = rowBestPos[k][0];
    for (int32_t gy = 1; gy < positionsY[k]; ++gy)
      if (rowBestGain[k][gy] > gain[k][best]) best = rowBestPos[k][gy];
    levelBestGain[k] = gain[k][best];
    levelBestVector[k] = bestVector[k][best];
    levelBestX[k] = (best % positionsX[k]) * 4;
    levelBestY[k] = (best / positionsX[k]) * 4;
  }
}

void initOmcWindows() {
  for (int32_t k = 0; k < 4; ++k) {
    const int32_t n = zycOmcWindowSize[k];
    double axis[zycOmcWindowMax];
    zycOmcWindowAxis(k, axis);
    for (int32_t i = 0; i < n; ++i) zycLog("init_omc_window: %f\n", axis[i]);
    omcWindows[k] = allocLabel(n, n);
    int32_t values[zycOmcWindowMax * zycOmcWindowMax];
    zycOmcWindow(k, values);
    for (int32_t j = 0; j < n; ++j) std::memcpy(omcWindows[k]->rows[j], values + j * n, n * sizeof(int32_t));
  }
}

void freeOmcWindows() {
  for (int32_t k = 0; k < 4; ++k) {
    free_label(omcWindows[k]);
    omcWindows[k] = nullptr;
  }
}

int32_t applyBlock(const McBlock* block, Label* mc, Label* mp, const mpmcParam* p, McRect* rect,
                   int32_t label) {
  const int32_t k = block->size == 4 ? 0 : block->size == 8 ? 1 : block->size == 16 ? 2 : 3;
  const int32_t ov = zycOmcOverlap[k];
  const Label* window = omcWindows[k];
  const int32_t w = mc->width, h = mc->height;
  const int32_t x0 = std::max(block->x - ov, 0), y0 = std::max(block->y - ov, 0);
  const int32_t x1 = std::min(block->x + block->size + ov, w);
  const int32_t y1 = std::min(block->y + block->size + ov, h);
  *rect = {x0, y0, x1, y1};
  const bool applying = mp != nullptr && p != nullptr;
  const int32_t padW = paddedRef->width, padH = paddedRef->height;
  int32_t ix = 0, iy = 0, fx = 0, fy = 0;
  if (block->type == 0) {
    const int32_t hx = quantRound(block->dx * 2.0), hy = quantRound(block->dy * 2.0);
    ix = hx >> 1;
    iy = hy >> 1;
    fx = hx & 1;
    fy = hy & 1;
  }
  int32_t g = 0;
  // The estimate over all pixels of a block whose reads stay inside paddedRef, as the loop below
  // computes it, in tight loops: mcImage holds blends of pixels, 0..255, so 32 bits suffice.
  if (!applying && label < 0 &&
      (block->type != 0 || (y0 + kPadMargin + iy >= 0 && y1 - 1 + kPadMargin + iy + fy < padH &&
                            x0 + kPadMargin + ix >= 0 && x1 - 1 + kPadMargin + ix + fx < padW))) {
    for (int32_t y = y0; y < y1; ++y) {
      const int32_t* wrow = window->rows[y - (block->y - ov)] - (block->x - ov);
      const int32_t* c = mc->rows[y];
      const int32_t* t = targetImage->rows[y];
      const int32_t* e = errorImage->rows[y];
      if (block->type == 0) {
        const int32_t* r0 = paddedRef->rows[y + kPadMargin + iy] + kPadMargin + ix;
        const int32_t* r1 = paddedRef->rows[y + kPadMargin + iy + fy] + kPadMargin + ix;
        g += planeKernels.motionEstimate(r0 + x0, r1 + x0, fx, wrow + x0, c + x0, t + x0, e + x0,
                                         x1 - x0);
      } else {
        const int32_t* r = paddedRef->rows[y + kPadMargin] + kPadMargin;
        g += planeKernels.affineEstimate(r + x0, block->a, block->b, wrow + x0, c + x0, t + x0,
                                         e + x0, x1 - x0);
      }
    }
    return g;
  }
  for (int32_t y = y0; y < y1; ++y) {
    const int32_t* wrow = window->rows[y - (block->y - ov)] - (block->x - ov);
    int32_t* c = mc->rows[y];
    const int32_t ry = y + kPadMargin + iy;
    if (block->type == 0 && (ry < 0 || ry >= padH)) continue;
    const int32_t ry1 = std::min(ry + fy, padH - 1);
    for (int32_t x = x0; x < x1; ++x) {
      if (label >= 0 && labelMap->rows[y][x] != label) continue;
      int32_t v;
      if (block->type == 0) {
        const int32_t rx = x + kPadMargin + ix;
        if (rx < 0 || rx >= padW) continue;
        const int32_t rx1 = std::min(rx + fx, padW - 1);
        const int32_t* r0 = paddedRef->rows[ry];
        const int32_t* r1 = paddedRef->rows[ry1];
        v = (r0[rx] + r0[rx1] + r1[rx] + r1[rx1] + 2) / 4;
      } else {
        const int32_t r = paddedRef->rows[y + kPadMargin][x + kPadMargin];
        v = Clamp255(((block->a * r) >> 8) + block->b);
      }
      const int64_t weight = wrow[x];
      int32_t blended = static_cast<int32_t>((v * weight + (65536 - weight) * c[x] + 32768) >> 16);
      if (block->type != 0) blended = static_cast<int16_t>(blended);
      if (applying) {
        const int32_t t = mp->rows[y][x];
        const int32_t o = sourcePic.rows[y][x];
        const int32_t e0 = o - Clamp255(c[x] + t), e1 = o - Clamp255(blended + t);
        g += e0 * e0 - e1 * e1;
        c[x] = blended;
      } else {
        const int32_t d = blended - targetImage->rows[y][x];
        g += errorImage->rows[y][x] - d * d;
      }
    }
  }
  return g;
}

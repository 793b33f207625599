#include "mpmc/mcProcOptimized.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "base/consoleLog.h"
#include "stream/mpmcTables.h"

int32_t mcProcOptimized::levelBestGain[4];
int32_t mcProcOptimized::levelBestVector[4];
int32_t mcProcOptimized::levelBestX[4];
int32_t mcProcOptimized::levelBestY[4];

zycSadTableFn zycSadTable4x4 = zycSadTable4x4Plain;
Label* omcWindows[4];

namespace {

constexpr int32_t kRefMargin = 18;
constexpr int32_t kPadMargin = 24;  // paddedRef's margin: searchRange + 8

// Module state.
int32_t width, height, gridW, gridH;
int32_t refStride;
uint8_t* refBytes;     // (width + 36) x (height + 36), margin 18, edges repeated
uint8_t* targetBytes;  // clamp(source - mpImage)
uint16_t* sadTable0;   // level 0: 1024 entries per position
uint32_t* sadTable[4]; // levels 1..3
uint16_t* bestVector[4];
int32_t* gain[4];
int32_t positionsX[4], positionsY[4];
McRect work;  // aligned to 4
Label *mcIn, *mpIn;
Pic* sourceIn;

inline int32_t Clamp255(int32_t v) { return v < 0 ? 0 : (v > 255 ? 255 : v); }

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

// Gain of moving the reference at whole-pixel (dx, dy) into the block at (x, y), no window.
int32_t PositionGain(int32_t x, int32_t y, int32_t size, int32_t vector) {
  const int32_t dx = (vector & 31) - 16, dy = (vector >> 5) - 16;
  int32_t g = 0;
  for (int32_t j = 0; j < size; ++j) {
    const int32_t* mc = mcIn->rows[y + j] + x;
    const int32_t* mp = mpIn->rows[y + j] + x;
    const uint8_t* o = sourceIn->rows[y + j] + x;
    const int32_t* r = paddedRef->rows[y + j + dy + kPadMargin] + x + dx + kPadMargin;
    for (int32_t i = 0; i < size; ++i) {
      const int32_t e0 = o[i] - Clamp255(mc[i] + mp[i]);
      const int32_t e1 = o[i] - Clamp255(mp[i] + r[i]);
      g += e0 * e0 - e1 * e1;
    }
  }
  return g;
}

void LevelZeroTables() {
  const bool lastSingle = (work.x1 - work.x0) % 8 != 0;
  for (int32_t y = work.y0; y < work.y1; y += 4) {
    for (int32_t x = work.x0; x < work.x1; x += 4) {
      const int32_t pos = (y / 4) * gridW + x / 4;
      uint16_t* table = sadTable0 + static_cast<size_t>(pos) * 1024;
      zycSadTable4x4(targetBytes + static_cast<size_t>(y) * width + x, width,
                     refBytes + static_cast<size_t>(y + kRefMargin - 16) * refStride + x +
                         kRefMargin - 16,
                     refStride, table);
      int32_t best = BestEntry(table);
      // The single-block pass of the last column records the entry after the best one.
      if (lastSingle && x + 4 == work.x1) best = std::min(best + 1, 1023);
      bestVector[0][pos] = static_cast<uint16_t>(best);
    }
  }
}

void LargerTables(int32_t k, int32_t px0, int32_t px1, int32_t py0, int32_t py1) {
  const int32_t half = 1 << (k - 1);  // child offset in grid steps
  for (int32_t gy = py0; gy < py1; ++gy) {
    for (int32_t gx = px0; gx < px1; ++gx) {
      const int32_t pos = gy * positionsX[k] + gx;
      uint32_t* out = sadTable[k] + static_cast<size_t>(pos) * 1024;
      if (k == 1) {
        const uint16_t* a = sadTable0 + static_cast<size_t>(gy * gridW + gx) * 1024;
        const uint16_t* b = a + 1024;
        const uint16_t* c = a + static_cast<size_t>(gridW) * 1024;
        const uint16_t* d = c + 1024;
        for (int32_t i = 0; i < 1024; ++i)
          out[i] = static_cast<uint16_t>(a[i] + b[i] + c[i] + d[i]);
      } else {
        const int32_t stride = positionsX[k - 1];
        const uint32_t* a = sadTable[k - 1] + static_cast<size_t>(gy * stride + gx) * 1024;
        const uint32_t* b = a + static_cast<size_t>(half) * 1024;
        const uint32_t* c = a + static_cast<size_t>(half) * stride * 1024;
        const uint32_t* d = c + static_cast<size_t>(half) * 1024;
        for (int32_t i = 0; i < 1024; ++i) out[i] = a[i] + b[i] + c[i] + d[i];
      }
      bestVector[k][pos] = static_cast<uint16_t>(BestEntry(out));
    }
  }
}

}  // namespace

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
  refBytes = static_cast<uint8_t*>(mpmcAlloc(static_cast<size_t>(refStride) * (h + 2 * kRefMargin)));
  targetBytes = static_cast<uint8_t*>(mpmcAlloc(static_cast<size_t>(w) * h));
  for (int32_t k = 0; k < 4; ++k) {
    positionsX[k] = std::max(gridW - (1 << k) + 1, 0);
    positionsY[k] = std::max(gridH - (1 << k) + 1, 0);
    const size_t positions = std::max<size_t>(static_cast<size_t>(positionsX[k]) * positionsY[k], 1);
    if (k == 0)
      sadTable0 = static_cast<uint16_t*>(mpmcAlloc(positions * 1024 * sizeof(uint16_t), 64));
    else
      sadTable[k] = static_cast<uint32_t*>(mpmcAlloc(positions * 1024 * sizeof(uint32_t), 64));
    bestVector[k] = static_cast<uint16_t*>(mpmcAlloc(positions * sizeof(uint16_t), 64));
    gain[k] = static_cast<int32_t*>(mpmcAlloc(positions * sizeof(int32_t), 64));
    std::memset(bestVector[k], 0, positions * sizeof(uint16_t));
    std::memset(gain[k], 0, positions * sizeof(int32_t));
  }
}

void mcProcOptimized::release() {
  for (int32_t k = 3; k >= 0; --k) {
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
  work.x0 = std::clamp(changedRect.x0 & ~3, 0, width);
  work.y0 = std::clamp(changedRect.y0 & ~3, 0, height);
  work.x1 = std::clamp((changedRect.x1 + 3) & ~3, 0, width);
  work.y1 = std::clamp((changedRect.y1 + 3) & ~3, 0, height);
  for (int32_t y = changedRect.y0; y < changedRect.y1; ++y) {
    const uint8_t* o = source->rows[y];
    const int32_t* m = mp->rows[y];
    uint8_t* t = targetBytes + static_cast<size_t>(y) * width;
    for (int32_t x = changedRect.x0; x < changedRect.x1; ++x) t[x] = static_cast<uint8_t>(Clamp255(o[x] - m[x]));
  }
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
  if (lastMethod == 0) LevelZeroTables();
  for (int32_t y = work.y0; y < work.y1; y += 4)
    for (int32_t x = work.x0; x < work.x1; x += 4) {
      const int32_t pos = (y / 4) * gridW + x / 4;
      gain[0][pos] = PositionGain(x, y, 4, bestVector[0][pos]);
    }
  for (int32_t k = 1; k < 4; ++k) {
    const int32_t size = 4 << k;
    const int32_t xs = std::max(work.x0 - size + 4, 0), xe = std::min(width - size + 4, work.x1);
    const int32_t ys = std::max(work.y0 - size + 4, 0), ye = std::min(height - size + 4, work.y1);
    if (xs >= xe || ys >= ye) continue;
    if (lastMethod == 0) LargerTables(k, xs / 4, xe / 4, ys / 4, ye / 4);
    for (int32_t y = ys; y < ye; y += 4)
      for (int32_t x = xs; x < xe; x += 4) {
        const int32_t pos = (y / 4) * positionsX[k] + x / 4;
        gain[k][pos] = PositionGain(x, y, size, bestVector[k][pos]);
      }
  }
  for (int32_t k = 0; k < 4; ++k) {
    const int32_t count = positionsX[k] * positionsY[k];
    if (count == 0) {
      levelBestGain[k] = INT_MIN;
      levelBestVector[k] = 16 * 32 + 16;
      levelBestX[k] = levelBestY[k] = 0;
      continue;
    }
    int32_t best = 0;
    for (int32_t pos = 1; pos < count; ++pos)
      if (gain[k][pos] > gain[k][best]) best = pos;
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

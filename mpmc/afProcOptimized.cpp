#include "mpmc/afProcOptimized.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>

#include "base/consoleLog.h"
#include "mpmc/mcProcOptimized.h"
#include "mpmc/planeKernels.h"

int32_t afProcOptimized::levelBestGain[4];
uint32_t afProcOptimized::levelBestFit[4];
int32_t afProcOptimized::levelBestX[4];
int32_t afProcOptimized::levelBestY[4];

namespace {

constexpr int32_t kPadMargin = 24;

struct Sums {
  uint32_t sr, st, srr, srt;
};

int32_t width, height, gridW, gridH;
uint8_t* refBytes;
uint8_t* targetBytes;
Sums* sums[4];
uint32_t* packedFit[4];
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
McRect work;
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


// trunc(v) cut to 16 bits; values beyond any integer saturate before the cut.
int16_t TruncTo16(float v) {
  if (!(v == v)) return 0;
  const double t = std::trunc(static_cast<double>(v));
  const int64_t i = t > 9.0e18 ? INT64_MAX : (t < -9.0e18 ? INT64_MIN : static_cast<int64_t>(t));
  return static_cast<int16_t>(static_cast<uint16_t>(static_cast<uint64_t>(i)));
}

// Gain of the fit at the block at (x, y), no window: the block's error now less its moved
// error, found in full on a plane's first search or when the fit changed, and otherwise corrected
// after an atom by the pixels the atom changed.
int32_t PositionGain(int32_t k, int32_t pos, int32_t x, int32_t y, int32_t size, uint32_t fit,
                     uint32_t fitBefore) {
  const int32_t a = static_cast<int32_t>(fit & 0xfff) - 1024;
  const int32_t b = static_cast<int32_t>(fit >> 12) - 256;
  if (lastMethod == 0 || fit != fitBefore) {
    movedError[k][pos] = planeKernels.affineError(
        sourceIn->rows[y] + x, width, mpIn->rows[y] + x, mpIn->width,
        paddedRef->rows[y + kPadMargin] + x + kPadMargin, paddedRef->width, size, a, b);
  } else if (lastMethod == 2) {
    const int32_t x0 = std::max(x, changed.x0), x1 = std::min(x + size, changed.x1);
    const int32_t y0 = std::max(y, changed.y0), y1 = std::min(y + size, changed.y1);
    const int32_t delta =
        x0 < x1 && y0 < y1
            ? planeKernels.affineDelta(sourceIn->rows[y0] + x0, width, mpIn->rows[y0] + x0,
                                       mpIn->width, mpBefore + static_cast<size_t>(y0) * width + x0,
                                       width, paddedRef->rows[y0 + kPadMargin] + x0 + kPadMargin,
                                       paddedRef->width, x1 - x0, y1 - y0, a, b)
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

}  // namespace

uint32_t zycAffineFit(uint32_t sr, uint32_t st, uint32_t srr, uint32_t srt, uint32_t n) {
  const float fr = static_cast<float>(sr), ft = static_cast<float>(st);
  const float frr = static_cast<float>(srr), frt = static_cast<float>(srt);
  const float fn = static_cast<float>(n);
  const int32_t mean = static_cast<int32_t>((st + n / 2) / n);
  int32_t a, b;
  const float d = fr * fr - frr * fn;
  if (d == 0.0f) {
    a = 0;
    b = mean;
  } else {
    const float i = 1.0f / d;
    a = TruncTo16(static_cast<float>((ft * fr - frt * fn) * i) * 256.0f);
    b = TruncTo16((frt * fr - ft * frr) * i);
    if (n == 16 && (a + 1024 < 0 || a + 1024 > 4095 || b < -256 || b > 255)) {
      a = 0;
      b = mean;
    }
  }
  const uint32_t aField = static_cast<uint32_t>(std::clamp(a + 1024, 0, 4095));
  const uint32_t bField = static_cast<uint32_t>(std::clamp(b + 256, 0, 511));
  return bField * 4096 + aField;
}

void afProcOptimized::init(int32_t w, int32_t h) {
  ZYC_ASSERT(w % param.MV_START_BLOCK_SIZE == 0, "afProcOptimized::init",
             "width(%d) must be a multiple of AF_START_BLOCK_SIZE(%d)\n", w, param.MV_START_BLOCK_SIZE);
  ZYC_ASSERT(h % param.MV_START_BLOCK_SIZE == 0, "afProcOptimized::init",
             "height(%d) must be a multiple of AF_START_BLOCK_SIZE(%d)\n", h, param.MV_START_BLOCK_SIZE);
  width = w;
  height = h;
  gridW = w / 4;
  gridH = h / 4;
  refBytes = static_cast<uint8_t*>(mpmcAlloc(static_cast<size_t>(w) * h));
  targetBytes = static_cast<uint8_t*>(mpmcAlloc(static_cast<size_t>(w) * h));
  mpBefore = static_cast<int32_t*>(mpmcAlloc(static_cast<size_t>(w) * h * sizeof(int32_t)));
  for (int32_t k = 0; k < 4; ++k) {
    positionsX[k] = std::max(gridW - (1 << k) + 1, 0);
    positionsY[k] = std::max(gridH - (1 << k) + 1, 0);
    const size_t positions = std::max<size_t>(static_cast<size_t>(positionsX[k]) * positionsY[k], 1);
    sums[k] = static_cast<Sums*>(mpmcAlloc(positions * sizeof(Sums), 64));
    packedFit[k] = static_cast<uint32_t*>(mpmcAlloc(positions * sizeof(uint32_t), 64));
    gain[k] = static_cast<int32_t*>(mpmcAlloc(positions * sizeof(int32_t), 64));
    std::memset(sums[k], 0, positions * sizeof(Sums));
    std::memset(packedFit[k], 0, positions * sizeof(uint32_t));
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

void afProcOptimized::release() {
  for (int32_t k = 3; k >= 0; --k) {
    mpmcFree(errorSum[k]);
    errorSum[k] = nullptr;
    mpmcFree(movedError[k]);
    movedError[k] = nullptr;
    mpmcFree(rowBestPos[k]);
    mpmcFree(rowBestGain[k]);
    rowBestPos[k] = rowBestGain[k] = nullptr;
    mpmcFree(gain[k]);
    mpmcFree(packedFit[k]);
    mpmcFree(sums[k]);
    gain[k] = nullptr;
    packedFit[k] = nullptr;
    sums[k] = nullptr;
  }
  mpmcFree(mpBefore);
  mpBefore = nullptr;
  mpmcFree(targetBytes);
  mpmcFree(refBytes);
  targetBytes = refBytes = nullptr;
}

void afProcOptimized::initSearchFromProfessorData(Label* mc, Pic* source, Label* mp,
                                                  const McRect& changedRect) {
  ZYC_ASSERT(mc->width == width, "afProcOptimized::initSearchFromProfessorData",
             "width(%d) different for specified LABEL width (%d)\n", width, mc->width);
  ZYC_ASSERT(mc->height == height, "afProcOptimized::initSearchFromProfessorData",
             "height(%d) different for specified LABEL height (%d)\n", height, mc->height);
  ZYC_ASSERT(source->width == width, "afProcOptimized::initSearchFromProfessorData",
             "width(%d) different for specified IMAGE width (%d)\n", width, source->width);
  ZYC_ASSERT(source->height == height, "afProcOptimized::initSearchFromProfessorData",
             "height(%d) different for specified IMAGE height (%d)\n", height, source->height);
  ZYC_ASSERT(mp->width >= width, "afProcOptimized::initSearchFromProfessorData",
             "width for specified LABEL (%d) too small compared to width (%d)\n", mp->width, width);
  ZYC_ASSERT(mp->height >= height, "afProcOptimized::initSearchFromProfessorData",
             "height for specified LABEL (%d) too small compared to height (%d)\n", mp->height, height);
  mcIn = mc;
  mpIn = mp;
  sourceIn = source;
  mpmcSearchRects(changedRect, width, height, &work, &changed);
  mpmcTargetBytes(source, mp, changedRect, width, targetBytes);
  if (changedRect.x0 == 0 && changedRect.y0 == 0 && changedRect.x1 == width &&
      changedRect.y1 == height) {
    for (int32_t y = 0; y < height; ++y) {
      const int32_t* src = paddedRef->rows[y + kPadMargin] + kPadMargin;
      uint8_t* out = refBytes + static_cast<size_t>(y) * width;
      for (int32_t x = 0; x < width; ++x) out[x] = static_cast<uint8_t>(src[x]);
    }
  }
}

void afProcOptimized::afSearch() {
  ZYC_ASSERT((work.x1 - work.x0) % 4 == 0, "afProcOptimized::afSearch", "Invalid internal state\n");
  afSearchMonoThread();
}

void afProcOptimized::afSearchMonoThread() {
  ErrorSums(0, work.x0, work.x1, work.y0, work.y1);
  for (int32_t y = work.y0; y < work.y1; y += 4)
    for (int32_t x = work.x0; x < work.x1; x += 4) {
      Sums s{0, 0, 0, 0};
      for (int32_t j = 0; j < 4; ++j) {
        const uint8_t* r = refBytes + static_cast<size_t>(y + j) * width + x;
        const uint8_t* t = targetBytes + static_cast<size_t>(y + j) * width + x;
        for (int32_t i = 0; i < 4; ++i) {
          s.sr += r[i];
          s.st += t[i];
          s.srr += r[i] * r[i];
          s.srt += r[i] * t[i];
        }
      }
      const int32_t pos = (y / 4) * gridW + x / 4;
      sums[0][pos] = s;
      const uint32_t fitBefore = packedFit[0][pos];
      packedFit[0][pos] = zycAffineFit(s.sr, s.st, s.srr, s.srt, 16);
      gain[0][pos] = PositionGain(0, pos, x, y, 4, packedFit[0][pos], fitBefore);
    }
  RowBests(0, work.y0 / 4, work.y1 / 4, work.x0 / 4, work.x1 / 4);
  for (int32_t k = 1; k < 4; ++k) {
    const int32_t size = 4 << k;
    const int32_t half = 1 << (k - 1);
    const int32_t xs = std::max(work.x0 - size + 4, 0), xe = std::min(width - size + 4, work.x1);
    const int32_t ys = std::max(work.y0 - size + 4, 0), ye = std::min(height - size + 4, work.y1);
    const int32_t stride = positionsX[k - 1];
    ErrorSums(k, xs, xe, ys, ye);
    for (int32_t y = ys; y < ye; y += 4)
      for (int32_t x = xs; x < xe; x += 4) {
        const int32_t child = (y / 4) * stride + x / 4;
        const Sums& a = sums[k - 1][child];
        const Sums& b = sums[k - 1][child + half];
        const Sums& c = sums[k - 1][child + half * stride];
        const Sums& d = sums[k - 1][child + half * stride + half];
        const Sums s{a.sr + b.sr + c.sr + d.sr, a.st + b.st + c.st + d.st,
                     a.srr + b.srr + c.srr + d.srr, a.srt + b.srt + c.srt + d.srt};
        const int32_t pos = (y / 4) * positionsX[k] + x / 4;
        sums[k][pos] = s;
        const uint32_t fitBefore = packedFit[k][pos];
        packedFit[k][pos] = zycAffineFit(s.sr, s.st, s.srr, s.srt, static_cast<uint32_t>(size * size));
        gain[k][pos] = PositionGain(k, pos, x, y, size, packedFit[k][pos], fitBefore);
      }
    if (ys < ye && xs < xe) RowBests(k, ys / 4, ye / 4, xs / 4, xe / 4);
  }
  KeepMpBefore();
  for (int32_t k = 0; k < 4; ++k) {
    const int32_t count = positionsX[k] * positionsY[k];
    if (count == 0) {
      levelBestGain[k] = INT_MIN;
      levelBestFit[k] = 256 * 4096 + 1024 + 256;
      levelBestX[k] = levelBestY[k] = 0;
      continue;
    }
    // The first position in raster order with the largest gain.
    int32_t best = rowBestPos[k][0];
    for (int32_t gy = 1; gy < positionsY[k]; ++gy)
      if (rowBestGain[k][gy] > gain[k][best]) best = rowBestPos[k][gy];
    levelBestGain[k] = gain[k][best];
    levelBestFit[k] = packedFit[k][best];
    levelBestX[k] = (best % positionsX[k]) * 4;
    levelBestY[k] = (best / positionsX[k]) * 4;
  }
}

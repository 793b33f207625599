#include "mpmc/mcproc.h"

#include <bit>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "base/consoleLog.h"
#include "mpmc/afProcOptimized.h"
#include "mpmc/mcProcOptimized.h"
#include "mpmc/mpProcOptimized.h"
#include "mpmc/planeKernels.h"
#include "mpmc/planeWriter.h"
#include "stream/mpmcTables.h"

McBlock* blockList = nullptr;
int32_t* blockSizeWords = nullptr;
int32_t blockCount = 0;
mpmcafPlaneReport planeReport;

namespace {


// The thread's processor time in microseconds: the report's split stays true on a busy machine.
uint64_t CpuMicroseconds() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

// Bits of |d| for the vector cost estimate, sign included: index 0..32.
constexpr int32_t kVectorCost[33] = {1,  3,  4,  5,  7,  8,  8,  8,  10, 10, 10,
                                     11, 11, 11, 11, 11, 11, 11, 11, 11, 11, 11,
                                     11, 11, 11, 12, 12, 12, 12, 12, 12, 13, 13};

}  // namespace

int32_t blockBits(int32_t index) {
  const McBlock& entry = blockList[index];
  int32_t bits = static_cast<int32_t>(std::bit_width(static_cast<uint32_t>(param.width * param.height / 16 - 1))) + 1;
  bits += static_cast<int32_t>(std::bit_width(3u));
  if (entry.type == 0) {
    const float vector[2] = {entry.dx, entry.dy};
    const float before[2] = {index > 0 ? blockList[index - 1].dx : 0.0f,
                             index > 0 ? blockList[index - 1].dy : 0.0f};
    for (int32_t axis = 0; axis < 2; ++axis) {
      const int32_t v = quantRound(vector[axis] * 2.0);
      const int32_t p = index > 0 ? quantRound(before[axis] * 2.0) : 0;
      int32_t d = v - p;
      if (d < -32) d += 64;
      if (d >= 32) d -= 64;
      bits += kVectorCost[std::abs(d)];
    }
  } else {
    bits += 21;
  }
  return bits;
}

double mcaf_proc(const mpmcParam* p, const McRect& changedRect) {
  // Both images are made pixel by pixel from the source, mcImage and mpImage, so only the
  // pixels the last element changed need them again.
  const int32_t x0 = std::clamp(changedRect.x0, 0, p->width), y0 = std::clamp(changedRect.y0, 0, p->height);
  const int32_t x1 = std::clamp(changedRect.x1, 0, p->width), y1 = std::clamp(changedRect.y1, 0, p->height);
  for (int32_t y = y0; y < y1; ++y) {
    const uint8_t* o = sourcePic.rows[y];
    const int32_t* c = mcImage->rows[y];
    const int32_t* m = mpImage->rows[y];
    int32_t* t = targetImage->rows[y];
    int32_t* e = errorImage->rows[y];
    for (int32_t x = x0; x < x1; ++x) {
      t[x] = o[x] - m[x];
      const int32_t d = o[x] - c[x] - m[x];
      e[x] = d * d;
    }
  }
  mcProcOptimized::initSearchFromProfessorData(mcImage, &sourcePic, mpImage, changedRect);
  mcProcOptimized::mcSearch();
  afProcOptimized::initSearchFromProfessorData(mcImage, &sourcePic, mpImage, changedRect);
  afProcOptimized::afSearch();

  McBlock& entry = blockList[blockCount];
  McBlock best = entry;
  double bestRatio = -1e19;
  McRect rect;
  for (int32_t k = 0; k < 4; ++k) {
    if (mcProcOptimized::levelBestGain[k] != INT32_MIN) {
      const int32_t vector = mcProcOptimized::levelBestVector[k];
      entry.x = mcProcOptimized::levelBestX[k];
      entry.y = mcProcOptimized::levelBestY[k];
      entry.size = 4 << k;
      entry.dx = static_cast<float>((vector & 31) - 16);
      entry.dy = static_cast<float>((vector >> 5) - 16);
      entry.type = 0;
      const double ratio =
          static_cast<double>(applyBlock(&entry, mcImage, nullptr, nullptr, &rect, -1)) / blockBits(blockCount);
      if (ratio > bestRatio) {
        bestRatio = ratio;
        best = entry;
      }
    }
    if (afProcOptimized::levelBestGain[k] != INT32_MIN) {
      const uint32_t fit = afProcOptimized::levelBestFit[k];
      entry.x = afProcOptimized::levelBestX[k];
      entry.y = afProcOptimized::levelBestY[k];
      entry.size = 4 << k;
      entry.a = static_cast<int16_t>(static_cast<int32_t>(fit & 0xfff) - 1024);
      entry.b = static_cast<int16_t>(static_cast<int32_t>(fit >> 12) - 256);
      entry.type = 1;
      const double ratio =
          static_cast<double>(applyBlock(&entry, mcImage, nullptr, nullptr, &rect, -1)) / blockBits(blockCount);
      if (ratio > bestRatio) {
        bestRatio = ratio;
        best = entry;
      }
    }
  }
  entry = best;
  bestRatio = static_cast<double>(applyBlock(&entry, mcImage, nullptr, nullptr, &rect, -1)) /
              blockBits(blockCount);
  if (entry.type == 0) {
    if (p->halfPel) {
      // Ratios already found, by half-pel offset from the first centre (-2 .. 2 each way): a
      // position tried twice gives the same ratio, so it is looked up instead.
      double tried[5][5];
      bool known[5][5] = {};
      tried[2][2] = bestRatio;
      known[2][2] = true;
      const float startX = entry.dx, startY = entry.dy;
      float centreX = entry.dx, centreY = entry.dy;
      for (int32_t round = 0; round < 2; ++round) {
        float bestX = centreX, bestY = centreY;
        for (int32_t oy = -1; oy <= 1; ++oy)
          for (int32_t ox = -1; ox <= 1; ++ox) {
            const float nx = centreX + 0.5f * ox, ny = centreY + 0.5f * oy;
            if (nx < -p->searchRange || nx >= p->searchRange || ny < -p->searchRange ||
                ny >= p->searchRange)
              continue;
            const int32_t ix = static_cast<int32_t>((nx - startX) * 2.0f) + 2;
            const int32_t iy = static_cast<int32_t>((ny - startY) * 2.0f) + 2;
            if (!known[iy][ix]) {
              entry.dx = nx;
              entry.dy = ny;
              tried[iy][ix] = static_cast<double>(applyBlock(&entry, mcImage, nullptr, nullptr, &rect, -1)) /
                              blockBits(blockCount);
              known[iy][ix] = true;
            }
            if (tried[iy][ix] > bestRatio) {
              bestRatio = tried[iy][ix];
              bestX = nx;
              bestY = ny;
            }
          }
        centreX = bestX;
        centreY = bestY;
      }
      entry.dx = centreX;
      entry.dy = centreY;
    }
  } else if (entry.type != 1) {
    zycLog("MC TYPE UNKNOWN !!!\n");
  }
  return bestRatio;
}

double chooseQuantStep(double minGain) {
  double bestCost = 1e10;
  int32_t bestJ = 1;
  for (int32_t j = 1; j <= 16; ++j) {
    const int32_t cost = requantize(4.0 * j, minGain);
    if (cost < bestCost) {
      bestCost = cost;
      bestJ = j;
    }
  }
  requantize(4.0 * bestJ, minGain);
  return 4.0 * bestJ;
}

void mpmcafBeginJob(uint32_t width, uint32_t height) {
  setDefaultParam();
  zycPlaneKernelsChoose(&planeKernels, true);
  param.width = static_cast<int32_t>(width);
  param.height = static_cast<int32_t>(height);
  buildPlaneBuffers();
  buildJobBuffers();
}

void mpmcafPlaneSize(uint32_t width, uint32_t height) {
  freePlaneBuffers();
  param.width = static_cast<int32_t>(width);
  param.height = static_cast<int32_t>(height);
  buildPlaneBuffers();
}

void mpmcafEndJob() { freeJobBuffers(); }

void encodePlane(const uint8_t* source, const uint8_t* reference, uint8_t* recon,
                 uint32_t targetBits, uint8_t* out, uint32_t* outSize) {
  param.targetBits = static_cast<int32_t>(targetBits);
  const int32_t w = param.width, h = param.height;
  planeReport = {};
  uint64_t clock = CpuMicroseconds();
  zycAtomCopy* atomCopies = static_cast<zycAtomCopy*>(mpmcAlloc(sizeof(zycAtomCopy) * param.maxIterations));
  McBlock* blockCopies = static_cast<McBlock*>(mpmcAlloc(sizeof(McBlock) * param.maxIterations));

  for (int32_t y = 0; y < h; ++y) {
    sourcePic.rows[y] = const_cast<uint8_t*>(source) + static_cast<size_t>(y) * w;
    referencePic.rows[y] = const_cast<uint8_t*>(reference) + static_cast<size_t>(y) * w;
    reconPic.rows[y] = recon + static_cast<size_t>(y) * w;
  }
  clearLabel(mcImage);
  clearLabel(mpImage);
  mpProcOptimized::reset();
  blockCount = 0;
  const int32_t margin = param.searchRange + 8;
  for (int32_t y = 0; y < paddedRef->height; ++y) {
    const uint8_t* row = referencePic.rows[std::clamp(y - margin, 0, h - 1)];
    int32_t* padded = paddedRef->rows[y];
    for (int32_t x = 0; x < paddedRef->width; ++x) padded[x] = row[std::clamp(x - margin, 0, w - 1)];
  }
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) mcImage->rows[y][x] = referencePic.rows[y][x];
  clearLabel(labelMap);
  clearLabel(targetImage);
  clearLabel(errorImage);

  double sse = 0.0;
  planeSnr(&sse, &reconPic);
  McRect changedRect{0, 0, w, h};
  int32_t bits = 44;
  double minGain = 1e10;
  int32_t mcCount = 0, afCount = 0;
  lastMethod = 0;
  int32_t stall = 0;
  int32_t iteration = 1;
  for (; iteration <= param.maxIterations; ++iteration) {
    const double mcGain = mcaf_proc(&param, changedRect);
    const double mpGain = nextAtom(changedRect, &param);
    if (iteration == 1) {
      const uint64_t now = CpuMicroseconds();
      planeReport.firstSearch = now - clock;
      clock = now;
    }
    if (mcGain < 1.0 && mpGain < 1.0) {
      zycLog("Early exit: gains<0\n");
      --iteration;
      break;
    }
    int32_t realGain;
    if (mcGain > mpGain) {
      realGain = applyBlock(&blockList[blockCount], mcImage, mpImage, &param, &changedRect, -1);
      bits += blockBits(blockCount);
      if (blockList[blockCount].type == 0) {
        ++mcCount;
        lastMethod = 1;
      } else {
        ++afCount;
        lastMethod = 3;
      }
      ++blockCount;
      minGain = std::min(minGain, mcGain);
    } else {
      lastMethod = 2;
      bits += applyAtom(&realGain, &changedRect, &param);
      minGain = std::min(minGain, mpGain);
    }
    sse -= realGain;
    if (param.gainFloor > 0) {
      if (minGain < param.gainFloor) {
        if (++stall > 2) break;
      } else {
        stall = 0;
      }
      continue;
    }
    const double snr = 10.0 * std::log10(65025.0 / (sse / (static_cast<double>(w) * h)));
    if (snr > param.targetSnr) {
      zycLog("Early exit: SNR>%f\n", snr);
      break;
    }
    if (bits > param.targetBits) {
      zycLog("Normal exit: bit rate reached: bit=%d > target=%d\n", bits, param.targetBits);
      break;
    }
    if (realGain < 8) {
      zycLog("Early exit: DSSE = %d < 8\n", realGain);
      break;
    }
  }
  if (iteration > param.maxIterations) iteration = param.maxIterations;
  uint64_t now = CpuMicroseconds();
  planeReport.iterations = now - clock;
  clock = now;

  clearLabel(labelMap);  // no element carries a label: every block and atom takes all pixels
  const double step = chooseQuantStep(minGain);
  now = CpuMicroseconds();
  planeReport.quantiser = now - clock;
  clock = now;

  double realSse = 0.0;
  const double snr = planeSnr(&realSse, &reconPic);
  const double incrementalSnr = 10.0 * std::log10(65025.0 / (sse / (static_cast<double>(w) * h)));
  zycLog("------- MPMCAF iteration count: %d + %d + %d = %d (snr %.2f)(incremental snr %.2f)\n",
         atomCount, mcCount, afCount, iteration, snr, incrementalSnr);

  for (int32_t i = 0; i < atomCount; ++i) {
    const mpAtom* a = sortedAtoms[i];
    atomCopies[i] = {a->x, a->y, a->atomH, a->atomV, a->level * step};
  }
  std::memcpy(blockCopies, blockList, sizeof(McBlock) * blockCount);
  *outSize = zycWritePlaneStream(blockCopies, blockCount, atomCopies, atomCount, step, w, h, out);
  mpmcFree(blockCopies);
  mpmcFree(atomCopies);
  planeReport.writing = CpuMicroseconds() - clock;
  planeReport.iterationCount = iteration;
  planeReport.snr = snr;
}

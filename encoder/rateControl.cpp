#include "encoder/rateControl.h"

#include <algorithm>
#include <cstdlib>

#include "base/consoleLog.h"
#include "encoder/motionSearch.h"

void zycBudget::Open(const zycBudgetSetup& in, bool verbose) {
  credit = -70;
  const uint32_t ratioDivisor = in.ratio ? in.ratio : 1;
  const uint32_t raw = in.pictureBytes + in.soundChunkLimit - in.soundLead;
  if (in.soundRate == 0 || in.soundFlags == 0) {
    compressionSize = int32_t(raw / ratioDivisor);
    if (verbose) zycLog("No Sound. CompressionSize:%d\n", compressionSize);
  } else {
    credit = -74;
    const uint32_t perFrame = in.soundChunkLimit - in.soundLead;
    compressionSize =
        int32_t(raw / ratioDivisor) - int32_t(perFrame >> ((in.soundFlags & 32) ? 3 : 2));
    if (verbose) zycLog("Has Sound. CompressionSize:%d\n", compressionSize);
  }
  // A forced last key frame is paid for by every frame, unless that takes more than 30%.
  if (in.lastKeyOver && frameDuration) {
    const int32_t share = int32_t(double(compressionSize) * iRat);
    const int32_t candidate =
        compressionSize -
        int32_t(uint32_t(KeyFrameSize() + share - compressionSize) / in.lastKeyOver);
    if (candidate > 0.7 * compressionSize) compressionSize = candidate;
  }
}

int32_t zycBudget::KeyFrameSize() const {
  return int32_t(double(iDmp) * FramesPerSecond() * double(compressionSize) * iRat);
}

int32_t zycBudget::PFrameSize(double changed) const {
  if (changed > 25.0) {
    int32_t k = KeyFrameSize();
    if (credit >= 0 || changed >= 50.0) return k;
    return int32_t(k * 0.5);
  }
  const int32_t share = int32_t(double(compressionSize) * iRat);
  if (credit < 0) return compressionSize - share;
  return compressionSize + std::min(credit, share);
}

zycConvergence zycConvergenceStep(uint32_t errorMax, uint32_t errorNext, int32_t size,
                                  int32_t wantedSize) {
  zycConvergence r;
  if (errorMax == 0) {
    r.next = errorNext;
    r.branch = 0;
    return r;
  }
  // A budget of 0 (a huge ratio on a tiny picture) divides by 1 instead.
  const int32_t wanted = wantedSize > 0 ? wantedSize : 1;
  float coeff = float(double(size - wantedSize - 25) / double(wanted));
  coeff = std::max(coeff, 0.0f) * 50.0f;
  coeff = std::max(coeff, 1.0f);
  float pct = float((double(size) * 0.6666666269302368 - double(wantedSize)) * 48.0 /
                    double(wanted));
  pct = std::max(pct, 8.0f);
  const double delta = double(errorNext - errorMax) * double(coeff);
  const float e = float(errorMax);
  r.coeff = coeff;
  r.pct = pct;
  if (delta / e >= pct / 100.0 && e >= 100.0 / pct + 1.0) {
    r.next = uint32_t(double(e) * (double(pct) + 100.0) / 100.0);
    r.branch = 1;
  } else if (delta / e > pct / 100.0) {
    r.increment = uint32_t(std::max(1, size / wanted));
    r.next = errorMax + r.increment;
    r.branch = 2;
  } else {
    r.next = uint32_t(double(errorMax) + delta);
    r.branch = 3;
  }
  // Float rounding of very large thresholds must not send the loop backwards.
  if (r.next <= errorMax) r.next = errorMax + 1;
  return r;
}

void zycRateLoop::Start(int32_t wanted, int32_t target, uint32_t ratio, uint32_t minError,
                        uint32_t limitError) {
  *this = zycRateLoop{wanted, target, minError, limitError, verbose};
  step = 20 * ratio;
}

void zycRateLoop::StartConverging(int32_t wanted, int32_t target, uint32_t minError,
                                  uint32_t limitError) {
  *this = zycRateLoop{wanted, target, minError, limitError, verbose};
  stop = true;
  reportSteps = true;
}

bool zycRateLoop::AfterPass(int32_t size, uint32_t errorNext) {
  if (!stop) {
    if (size != prevSize) stagnantDicotomie = 0;
    if (size > targetSize) {
      if (size == prevSize) {
        ++stagnantDicotomie;
        if (verbose) zycLog("stagnantDicotomie: %d...\n", stagnantDicotomie);
      }
      if (stagnantDicotomie > 20) stop = true;
      low = current;
      current += step;
    } else if (current - low <= 1) {
      stop = true;
    } else {
      uint32_t mid = low + (current - low) / 2;
      uint32_t s = (current - mid - 1) / 2;
      step = s < 1 ? 1 : s;
      current = mid;
    }
    prevSize = size;
  }
  const bool checkEnd = (stop && size <= targetSize) || errorNext >= errorLimit;
  if (checkEnd && errorMax >= errorMin) return false;
  if (errorMax == errorNext) return false;
  if (stop && errorNext == kErrorNextStart) return false;
  const zycConvergence c = zycConvergenceStep(errorMax, errorNext, size, wantedSize);
  if (verbose && reportSteps) {
    if (c.branch == 1) {
      zycLog("current convergence coeff: %f, %.0f%% Increase\n", double(c.coeff), double(c.pct));
    } else if (c.branch == 2) {
      zycLog("current convergence coeff: %f, +%d increment\n", double(c.coeff), c.increment);
    } else if (c.branch == 3) {
      zycLog("current convergence coeff: %f\n", double(c.coeff));
    }
  }
  errorMax = stop ? c.next : current;
  ++passes;
  return true;
}

#include "encoder/fadeBand.h"

#include <cstdlib>
#include <cstring>

#include "base/consoleLog.h"
#include "base/parallel.h"
#include "dxt/yuvConvert.h"

namespace {
inline uint8_t Darker(uint8_t c, int f) { return uint8_t(c - c * (8 - f) / 20); }
inline uint8_t Lighter(uint8_t c, int f) { return uint8_t(c + (255 - c) * (f - 7) / 20); }
}  // namespace

void zycFadeBand::Allocate(uint32_t width, uint32_t rows) {
  if (pictures_[0] && width == width_ && rows == rows_) return;
  Release();
  width_ = width;
  rows_ = rows;
  const size_t bytes = (size_t(width) * rows * 4 + 15) & ~size_t(15);
  for (uint8_t*& p : pictures_) {
    p = static_cast<uint8_t*>(std::aligned_alloc(16, bytes ? bytes : 16));
    ZYC_ASSERT(p != nullptr, "zycFadeBand::Allocate", "no memory for fades of %zu bytes\n", bytes);
  }
}

void zycFadeBand::Release() {
  for (uint8_t*& p : pictures_) {
    std::free(p);
    p = nullptr;
  }
  width_ = rows_ = first_ = 0;
}

void zycFadeBand::Build(const uint8_t* picture, uint32_t first, uint32_t count, bool withSums,
                        uint32_t threads, bool follows) {
  ZYC_ASSERT(count <= rows_, "zycFadeBand::Build", "a band of %u rows in room for %u\n", count,
             rows_);
  // The rows that this band shares with the one before, moved to its top.
  uint32_t kept = 0;
  const uint32_t drop = first - first_;
  if (follows && first >= first_ && first < first_ + count_ && first + count >= first_ + count_) {
    kept = first_ + count_ - first;
  }
  const size_t rowBytes = size_t(width_) * 4;
  const uint32_t pixels = width_ * (count - kept);
  const uint8_t* p = picture + (size_t(first) + kept) * rowBytes;
  zycParallelFor(threads, 16, [&](uint32_t f) {
    if (kept && drop) std::memmove(pictures_[f], pictures_[f] + drop * rowBytes, kept * rowBytes);
    uint8_t tone[256];
    for (int c = 0; c < 256; ++c) {
      tone[c] = f < 8 ? Darker(uint8_t(c), int(f)) : Lighter(uint8_t(c), int(f));
    }
    uint8_t* out = pictures_[f] + kept * rowBytes;
    for (uint32_t i = 0; i < pixels * 4; i += 4) {
      out[i] = tone[p[i]];
      out[i + 1] = tone[p[i + 1]];
      out[i + 2] = tone[p[i + 2]];
    }
    zycConvertToYuv(out, out, pixels);
  });
  if (withSums) {
    if (kept) {
      sums_.Continue(pictures_, width_, drop, kept, count);
    } else {
      sums_.Build(pictures_, width_, count);
    }
  }
  first_ = first;
  count_ = count;
}

zycRowSpan zycFadeRows(uint32_t firstTop, uint32_t endTop, uint32_t blockMax, uint32_t reach,
                       uint32_t height) {
  const uint32_t top = firstTop * blockMax;
  const uint32_t bottom = endTop * blockMax;
  zycRowSpan span;
  span.first = top > reach ? top - reach : 0;
  const uint32_t end = bottom + reach < height ? bottom + reach : height;
  span.count = end - span.first;
  return span;
}

// The 16 fades of the rebuilt picture that the search compares with, made for one band of rows
// at a time: the rows of a run of top blocks and as far above and below as the motion vectors
// reach. Fade f is the picture darker by (8 - f) x 5% for f below 8, else lighter by
// (f - 7) x 5%, in the encoder's YUV layout, with the sums of its squares. Only a band is held,
// so that a large picture does not keep 16 whole fades and their sum tables.
#pragma once

#include <cstdint>

#include "encoder/motionSearch.h"

class zycFadeBand {
 public:
  zycFadeBand() = default;
  zycFadeBand(const zycFadeBand&) = delete;
  zycFadeBand& operator=(const zycFadeBand&) = delete;
  ~zycFadeBand() { Release(); }

  // Room for bands of up to `rows` rows of a picture `width` pixels wide.
  void Allocate(uint32_t width, uint32_t rows);
  void Release();
  // Makes rows [first, first + count) of the fades of `picture` (4 bytes a pixel B, G, R, any;
  // rows 4 x width bytes apart), and their sums when `withSums`. The fades are shared among up
  // to `threads` threads. With `follows`, the band before was of the same picture (and as
  // `withSums`): the rows the two share are kept, not made again.
  void Build(const uint8_t* picture, uint32_t first, uint32_t count, bool withSums,
             uint32_t threads, bool follows);

  // Fade f's row `first()` and the rows after it.
  const uint8_t* Picture(int f) const { return pictures_[f]; }
  uint32_t first() const { return first_; }
  // Sums of the band's squares, rows counted from first().
  const zycFadeSums& sums() const { return sums_; }

 private:
  uint8_t* pictures_[16] = {};
  uint32_t width_ = 0;
  uint32_t rows_ = 0;
  uint32_t first_ = 0;
  uint32_t count_ = 0;
  zycFadeSums sums_;
};

// The rows of the reference picture that a search of top-block rows [firstTop, endTop) reads
// with vectors of up to `reach` rows, in a picture of `height` rows.
struct zycRowSpan {
  uint32_t first = 0;
  uint32_t count = 0;
};
zycRowSpan zycFadeRows(uint32_t firstTop, uint32_t endTop, uint32_t blockMax, uint32_t reach,
                       uint32_t height);

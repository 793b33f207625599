#include "dxt/squishFront.h"

#include <squish.h>


namespace zycSquish {

int FixFlags(int flags) {
  int method = flags & (kDxt1 | kDxt3 | kDxt5);
  int fit = flags & (kColourClusterFit | kColourRangeFit | kColourIterativeClusterFit);
  int metric = flags & (kColourMetricPerceptual | kColourMetricUniform);
  const int extra = flags & kWeightColourByAlpha;
  if (method != kDxt3 && method != kDxt5) method = kDxt1;
  if (fit != kColourRangeFit && fit != kColourIterativeClusterFit) fit = kColourClusterFit;
  if (metric != kColourMetricUniform) metric = kColourMetricPerceptual;
  return method | fit | metric | extra;
}

int TranslateFlags(int flags, float metric[3]) {
  const int fixed = FixFlags(flags);
  int out = 0;
  if (fixed & kDxt1) out |= squish::kDxt1;
  if (fixed & kDxt3) out |= squish::kDxt3;
  if (fixed & kDxt5) out |= squish::kDxt5;
  if (fixed & kColourClusterFit) out |= squish::kColourClusterFit;
  if (fixed & kColourRangeFit) out |= squish::kColourRangeFit;
  if (fixed & kColourIterativeClusterFit) out |= squish::kColourIterativeClusterFit;
  if (fixed & kWeightColourByAlpha) out |= squish::kWeightColourByAlpha;
  if (fixed & kColourMetricUniform) {
    metric[0] = metric[1] = metric[2] = 1.0f;
  } else {
    metric[0] = 0.2126f;
    metric[1] = 0.7152f;
    metric[2] = 0.0722f;
  }
  return out;
}

void CompressMasked(const uint8_t* rgba, int mask, void* block, int flags) {
  float metric[3];
  const int translated = TranslateFlags(flags, metric);
  squish::CompressMasked(rgba, mask, block, translated, metric);
}

void CompressImage(const uint8_t* rgba, int width, int height, void* blocks, int flags) {
  // squish walks the blocks itself (over several threads when it was built with OpenMP),
  // calling CompressMasked with the mask of the pixels inside the picture; the blocks do not
  // depend on the thread count.
  float metric[3];
  squish::CompressImage(rgba, width, height, blocks, TranslateFlags(flags, metric), metric);
}

void Decompress(uint8_t* rgba, const void* block, int flags) {
  float metric[3];
  squish::Decompress(rgba, block, TranslateFlags(flags, metric));
}

}  // namespace zycSquish

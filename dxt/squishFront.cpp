#include "dxt/squishFront.h"

#include <squish.h>

#include <cstring>


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

void CompressBlocks(const uint8_t* rgba, int width, int height, void* blocks, int flags) {
  float metric[3];
  const int translated = TranslateFlags(flags, metric);
  const int blockBytes = (translated & squish::kDxt1) ? 8 : 16;
  uint8_t* out = static_cast<uint8_t*>(blocks);
  for (int y = 0; y < height; y += 4) {
    for (int x = 0; x < width; x += 4, out += blockBytes) {
      uint8_t pixels[64] = {};
      int mask = 0;
      for (int py = 0; py < 4; ++py) {
        for (int px = 0; px < 4; ++px) {
          const int sx = x + px, sy = y + py;
          if (sx >= width || sy >= height) continue;
          std::memcpy(pixels + 4 * (4 * py + px), rgba + 4 * (size_t(width) * sy + sx), 4);
          mask |= 1 << (4 * py + px);
        }
      }
      squish::CompressMasked(pixels, mask, out, translated, metric);
    }
  }
}

void Decompress(uint8_t* rgba, const void* block, int flags) {
  float metric[3];
  squish::Decompress(rgba, block, TranslateFlags(flags, metric));
}

}  // namespace zycSquish

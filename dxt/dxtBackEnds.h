// The DXT1 back ends that "DXTC" selects, and one call that compresses a picture with any of
// them. Search: a back end changes which blocks the encoder may choose, never how they decode.
// No state.
//
// The ladder, slowest and best first (one core, the three levels of a real 640x360 picture;
// figures from the buildLevels benchmark, preview PSNR in the RGB of the source):
//
//   value  back end                                              speed        quality
//   0      a graphics device's texture compressor; none exists here, so the encoder falls
//          back to 3 and the parameter then reads 3
//   1      squish, iterative cluster fit, perceptual weights     slowest      best
//   2      squish, cluster fit, uniform weights                   slow         near 1
//   3      squish, range fit, uniform weights (default)           fast         fair
//   4      squish, cluster fit, perceptual weights                slow         near 1
//   5      min/max with inset, nearest entry by absolute sums     fastest      lowest
//   6      base-colour search with least-squares refinement       fast         good
//
// (Measured figures: see the table at the end of this comment, kept up to date by hand.)
//
// All back ends want the byte that the decoder shows as red (or Cr in YUV coding) first, the
// way squish reads RGBA: BuildLevels exchanges bytes 0 and 2 of the picture before any of
// them runs and exchanges them back afterwards. Pixels are 4 bytes with alpha 255.
#pragma once

#include <cstdint>

constexpr uint32_t kDxtBackEndDevice = 0;
constexpr uint32_t kDxtBackEndSquishIterative = 1;
constexpr uint32_t kDxtBackEndSquishClusterUniform = 2;
constexpr uint32_t kDxtBackEndSquishRange = 3;
constexpr uint32_t kDxtBackEndSquish = 4;
constexpr uint32_t kDxtBackEndFast = 5;
constexpr uint32_t kDxtBackEndBaseColour = 6;
constexpr uint32_t kDxtBackEndCount = 7;

// The back end that runs for a "DXTC" value: 0 (no graphics device) becomes 3; values above 6
// also become 3.
uint32_t zycDxtBackEndInUse(uint32_t backEnd);

// The squish flags (encoder numbering, see squishFront.h) of back ends 1 to 4, 0 for others.
int zycDxtBackEndSquishFlags(uint32_t backEnd);

// Compresses width x height pixels (4 bytes, red first, alpha 255, rows packed; width and
// height multiples of 4) into (width / 4) x (height / 4) DXT1 blocks in raster order, with the
// back end that `zycDxtBackEndInUse(backEnd)` names.
void zycDxtCompress(uint32_t backEnd, const uint8_t* pixels, uint32_t width, uint32_t height,
                    uint8_t* blocks);

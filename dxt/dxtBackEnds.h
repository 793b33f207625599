// The DXT1 back ends that "DXTC" selects, and one call that compresses a picture with any of
// them. Search: a back end changes which blocks the encoder may choose, never how they decode.
// No state.
//
// The ladder. Figures: the three levels of a real 640x368 photograph on one core (squish
// limited to one OpenMP thread), time per frame and its ratio to converting the same picture
// to YUV in the same run, and the PSNR over U, Y, V of the full-scale preview against the
// source (in brackets the same for 1280x720). Measured on a loaded 2-core machine: read the
// ratios, not the milliseconds.
//
//   value  back end                                         ms     x YUV   PSNR dB
//   0      a graphics device's texture compressor; none exists here, so it falls back to 3
//          and the parameter then reads 3
//   1      squish, iterative cluster fit, perceptual        1100   1300    41.27 (43.76)
//   2      squish, cluster fit, uniform weights              930   1100    41.18 (43.71)
//   3      squish, range fit, uniform weights (default)       16     20    38.90 (41.69)
//   4      squish, cluster fit, perceptual                   750    900    41.26 (43.75)
//   5      min/max with inset, nearest by absolute sums       2.8    3.5  39.08 (41.74)
//   6      base-colour search, least-squares refinement       11     14    40.83 (43.21)
//
// squish's cluster fits gain about 2.3 dB over its range fit and cost 50 times as much; the
// base-colour search comes within 0.5 dB of them at two thirds of the range fit's time. The
// squish back ends run on squish's OpenMP threads when there are several; the others run on
// the caller's thread.
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
// The same blocks, all made on the caller's thread (squish's own threads stay out of it), so
// that a caller can share the rows of a picture among its threads.
void zycDxtCompressHere(uint32_t backEnd, const uint8_t* pixels, uint32_t width, uint32_t height,
                        uint8_t* blocks);

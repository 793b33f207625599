// The front through which the block encoder reaches the squish library: three operations and
// the flag normalisation, in the flag numbering the encoder has always used. The installed
// squish numbers its flags differently and takes the colour metric as a pointer; the front
// translates. No state.
//
// Pixels are 4 bytes R, G, B, A. Alpha must be 255 for opaque pixels: with DXT1 squish makes
// pixels whose alpha is below 128 transparent (three-colour blocks, index 3).
#pragma once

#include <cstdint>

namespace zycSquish {

// Flags as the encoder speaks them.
constexpr int kDxt1 = 1;
constexpr int kDxt3 = 2;
constexpr int kDxt5 = 4;
constexpr int kColourClusterFit = 8;
constexpr int kColourRangeFit = 16;
constexpr int kColourMetricPerceptual = 32;  // weights 0.2126, 0.7152, 0.0722
constexpr int kColourMetricUniform = 64;     // weights 1, 1, 1
constexpr int kWeightColourByAlpha = 128;
constexpr int kColourIterativeClusterFit = 256;

// Normalises flags: the format as given if it is DXT3 or DXT5 alone, else DXT1; the fit is
// cluster fit unless range fit or iterative cluster fit stands alone; the metric is perceptual
// unless uniform stands alone; kWeightColourByAlpha is kept. Other bits are dropped.
int FixFlags(int flags);

// The installed library's flags and metric for normalised `flags`. `metric` receives 3 weights.
int TranslateFlags(int flags, float metric[3]);

// Compresses one 4x4 block (16 pixels, 64 bytes, rows top first). Bit k of `mask` set means
// pixel k is inside the picture; the others may decode to anything. `block` gets 8 bytes for
// DXT1, 16 for DXT3 and DXT5.
void CompressMasked(const uint8_t* rgba, int mask, void* block, int flags);

// Compresses a picture of width x height pixels (rows packed, 4 bytes a pixel) into blocks in
// raster order, ceil(width / 4) x ceil(height / 4) of them, by CompressMasked on each block with
// the mask of the pixels inside the picture. squish may spread the blocks over the threads of
// its OpenMP runtime (OMP_NUM_THREADS); the result is the same for any thread count.
void CompressImage(const uint8_t* rgba, int width, int height, void* blocks, int flags);

// The same blocks as CompressImage, made one after another on the caller's thread.
void CompressBlocks(const uint8_t* rgba, int width, int height, void* blocks, int flags);

// Decodes one block to 16 pixels R, G, B, A.
void Decompress(uint8_t* rgba, const void* block, int flags);

}  // namespace zycSquish

// The three DXT1 levels of a picture and their previews: the blocks that the 4, 8 and 16 pixel
// nodes of the block tree can use, and what each level looks like once decoded, in the YUV
// layout of the encoder's source picture. Search, with bit-exact decoding of the previews.
// State: the level buffers, owned by the encoder and sized at Begin.
#pragma once

#include <cstdint>
#include <vector>

struct zycDxtLevels {
  uint32_t width = 0, height = 0;  // padded picture size (multiples of 16)
  // Level 0 (4-pixel nodes, the picture), 1 (8, half size), 2 (16, quarter size): 8-byte DXT1
  // blocks in raster order of the level's picture.
  std::vector<uint8_t> blocks[3];
  // What each level looks like: width x height pixels of 4 bytes U, Y, V, 255, 16-byte aligned.
  uint8_t* preview[3] = {};

  // Scratch of BuildLevels: the half and quarter pictures, and the tables of the preview
  // decoder, filled by the frame decoder's table makers.
  uint8_t* half = nullptr;
  uint8_t* quarter = nullptr;
  uint8_t* alpha = nullptr;  // the picture's alpha bytes while the back ends see 255
  uint8_t thirds[768] = {};
  int32_t yTable[256] = {};
  int32_t crToR[256] = {};
  int32_t cbToB[256] = {};
  int32_t crToG[256] = {};
  int32_t cbToG[256] = {};
  uint8_t clampTable[812] = {};

  zycDxtLevels() = default;
  zycDxtLevels(const zycDxtLevels&) = delete;
  zycDxtLevels& operator=(const zycDxtLevels&) = delete;
  ~zycDxtLevels() { Release(); }

  // Sizes every buffer for a padded picture (both multiples of 16); a new size reallocates.
  void Allocate(uint32_t paddedWidth, uint32_t paddedHeight);
  void Release();
};

// Fills the three levels and previews from `picture`: width x height pixels of 4 bytes, B, G, R,
// A, or U, Y, V, A when `yuvCoding` is non-zero, rows packed; A is ignored (the back ends see
// 255). The picture is changed while the back ends run (bytes 0 and 2 exchanged, alpha 255)
// and is as it was on return. `backEnd` is the
// encoder's "DXTC" field: 0, for which no graphics device exists, becomes 3 here and stays so.
// The work is shared by up to `threads` threads (bands of 16 rows); the levels are the same for
// any count.
void BuildLevels(zycDxtLevels& levels, uint8_t* picture, uint32_t& backEnd, uint32_t yuvCoding,
                 uint32_t threads = 1);

// Shrinks a picture of 4-byte pixels by `factor` (2 or 4) in each direction: each byte of each
// output pixel is the sum of a factor x factor square of input bytes shifted right by 2 or 4,
// with no rounding term. width and height are multiples of `factor`.
void zycBoxShrink(const uint8_t* picture, uint32_t width, uint32_t height, uint32_t factor,
                  uint8_t* out);

// Decodes one DXT1 block to 16 pixel words 0x00RRGGBB, rows top first, as the frame decoder
// does; with `yuvCoding` the colours are Cr, Y, Cb and go through the levels' YUV tables
// (filled by Allocate).
void zycDecodeLevelBlock(const zycDxtLevels& levels, const uint8_t block[8], uint32_t yuvCoding,
                         uint32_t out[16]);

// Reader of quad-tree key-frame images (stream/quadTreeFormat.h) into 32-bit pictures. A leaf
// of 4 pixels is its DXT1 block straight; a larger leaf spreads its 16 decoded pixels over the
// square by linear interpolation between the cell centres, and the seams between facing leaves
// are ramped so that no inner leaf border shows. Every bound is checked: the same code serves
// the encoder's reference picture, playback and foreign files. Bit-exact.
#pragma once

#include <cstdint>

struct zycQuadTreeReader {
  // Sizes the scratch for pictures up to width x height; once per movie. false if out of memory
  // (or a side is above 32768).
  bool Setup(uint32_t width, uint32_t height);
  // Decodes the quad-tree image of `bytes` bytes into `pixels` (32-bit B,G,R,255, `pitch`
  // bytes per row) for a picture of width x height (the size that was compressed). Returns
  // nullptr on success, else a short static message naming the problem (e.g. tree bits past
  // L, too few leaf blocks, picture larger than Setup). Never reads outside
  // [image, image + bytes), never writes outside the picture, allocates nothing.
  const char* Decode(const uint8_t* image, uint32_t bytes, uint32_t width, uint32_t height,
                     uint8_t* pixels, uint32_t pitch);
  void Release();

  uint32_t setupWidth = 0;
  uint32_t setupHeight = 0;
  uint8_t* leafLog = nullptr;     // log2 of the leaf's side over each 4 x 4 cell of the picture
  uint32_t leafLogBytes = 0;
  uint32_t* centreRows = nullptr;  // a leaf's four block rows interpolated along x
  uint32_t spanCapacity = 0;       // pixels of one interpolated row that the scratch holds
};

// Decodes one DXT1 block to 16 pixel words B, G, R, 255 (B in the low byte), rows top first.
// The palette follows squish's Decompress, which the encoder measures its error with: 5 and 6
// bit fields widened by repeating their top bits, then, when colour 0 is above colour 1 as
// 16-bit numbers, (2 * c0 + c1) / 3 and (c0 + 2 * c1) / 3, else (c0 + c1) / 2 and black, each
// channel divided in integers.
void zycDecodeQuadTreeBlock(const uint8_t block[8], uint32_t out[16]);

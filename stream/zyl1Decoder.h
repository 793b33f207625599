// The ZYL1 frame decoder: one entry that turns the streams of one frame record (a still image,
// a quad-tree image, three plane streams or a repeat) into the 32-bit picture a player shows,
// exactly as the encoder reconstructs it. It holds the picture, the Y, U, V planes of the last
// P-frame and whether those planes must first be derived from the picture (after a key frame).
// Bit-exact: the encoder runs the same conversions and the same key frame decoding.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "stream/zylFormat.h"

struct zycFrameDecoder;
class myDecoder;
struct zycQuadTreeReader;
struct zycPlaneReader;

// The three planes of a picture of `width` x `height` pixels (multiples of 2): Y at full size,
// U and V at half width and half height, each plane's rows packed without gaps. On 2 x 2 cells:
// Y = (R + 2G + B) >> 2 for each pixel, U = (sR - sB + 1020) >> 3 and
// V = (2 sG + 2040 - sR - sB) >> 4 from the channel sums of the cell. `pixels` are 32-bit
// B, G, R, pad, `pitch` bytes a row.
void zycPlanesFromPicture(const uint8_t* pixels, uint32_t pitch, uint32_t width, uint32_t height,
                          uint8_t* y, uint8_t* u, uint8_t* v);
// The way back, with U and V taken at half position: R = clamp(U - V + Y),
// G = clamp(V - 127 + Y), B = clamp(Y - V - U + 254). The pad byte is left as it was.
void zycPictureFromPlanes(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint32_t width,
                          uint32_t height, uint8_t* pixels, uint32_t pitch);

// The streams of one record: the first stream (key frame image or Y plane), and the U and V
// plane streams of a P-frame.
struct zycZyl1Streams {
  const uint8_t* first = nullptr;
  uint32_t firstSize = 0;
  const uint8_t* second = nullptr;
  uint32_t secondSize = 0;
  const uint8_t* third = nullptr;
  uint32_t thirdSize = 0;
};

class zycZyl1Decoder {
 public:
  zycZyl1Decoder();
  ~zycZyl1Decoder();
  zycZyl1Decoder(const zycZyl1Decoder&) = delete;
  zycZyl1Decoder& operator=(const zycZyl1Decoder&) = delete;

  // A movie of `width` x `height` pixels as its header gives them; the picture and the planes
  // are that rounded up to multiples of 8. The picture starts black with pad bytes 255.
  // False when a reader can't get its memory.
  bool Setup(uint32_t width, uint32_t height);
  // Decodes one record. Null when the picture holds the frame, else a text saying what is
  // wrong; the picture is then not to be trusted until the next key frame. A repeat needs no
  // streams. Key frame images are not checked here beyond their size fields: readers of
  // unknown files check them first.
  const char* Decode(uint8_t kind, const zycZyl1Streams& streams);
  // Frees the readers' memory; Setup makes the decoder usable again.
  void Release();

  const uint8_t* picture() const { return picture_.data(); }
  uint32_t pitch() const { return paddedWidth_ * 4; }
  uint32_t paddedWidth() const { return paddedWidth_; }
  uint32_t paddedHeight() const { return paddedHeight_; }

 private:
  uint32_t paddedWidth_ = 0, paddedHeight_ = 0;
  std::vector<uint8_t> picture_, y_, u_, v_;
  bool planesFromPicture_ = true;  // the last picture came from a key frame
  std::unique_ptr<myDecoder> io_;
  std::unique_ptr<zycFrameDecoder> still_;
  std::unique_ptr<zycQuadTreeReader> quadTree_;
  std::unique_ptr<zycPlaneReader> planes_;
  bool ready_ = false;
};

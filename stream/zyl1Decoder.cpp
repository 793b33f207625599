#include "stream/zyl1Decoder.h"

#include <algorithm>
#include <cstring>

#include "base/byteIo.h"
#include "stream/imageFormat.h"
#include "stream/planeReader.h"
#include "stream/quadTreeReader.h"
#include "stream/zycDecoder.h"
#include "stream/zylFormat.h"

namespace {

inline uint8_t Clamp255(int32_t v) { return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v); }

}  // namespace

void zycPlanesFromPicture(const uint8_t* pixels, uint32_t pitch, uint32_t width, uint32_t height,
                          uint8_t* y, uint8_t* u, uint8_t* v) {
  const uint32_t halfWidth = width / 2;
  for (uint32_t cy = 0; cy < height / 2; ++cy) {
    const uint8_t* row0 = pixels + size_t(2 * cy) * pitch;
    const uint8_t* row1 = row0 + pitch;
    uint8_t* y0 = y + size_t(2 * cy) * width;
    uint8_t* y1 = y0 + width;
    for (uint32_t cx = 0; cx < halfWidth; ++cx) {
      const uint8_t* p[4] = {row0 + 8 * cx, row0 + 8 * cx + 4, row1 + 8 * cx, row1 + 8 * cx + 4};
      uint8_t* out[4] = {y0 + 2 * cx, y0 + 2 * cx + 1, y1 + 2 * cx, y1 + 2 * cx + 1};
      int32_t sR = 0, sG = 0, sB = 0;
      for (int i = 0; i < 4; ++i) {
        const int32_t b = p[i][0], g = p[i][1], r = p[i][2];
        *out[i] = uint8_t((r + 2 * g + b) >> 2);
        sR += r;
        sG += g;
        sB += b;
      }
      u[size_t(cy) * halfWidth + cx] = uint8_t((sR - sB + 1020) >> 3);
      v[size_t(cy) * halfWidth + cx] = uint8_t((2 * sG + 2040 - sR - sB) >> 4);
    }
  }
}

void zycPictureFromPlanes(const uint8_t* y, const uint8_t* u, const uint8_t* v, uint32_t width,
                          uint32_t height, uint8_t* pixels, uint32_t pitch) {
  const uint32_t halfWidth = width / 2;
  for (uint32_t row = 0; row < height; ++row) {
    const uint8_t* yRow = y + size_t(row) * width;
    const uint8_t* uRow = u + size_t(row / 2) * halfWidth;
    const uint8_t* vRow = v + size_t(row / 2) * halfWidth;
    uint8_t* out = pixels + size_t(row) * pitch;
    for (uint32_t x = 0; x < width; ++x) {
      const int32_t Y = yRow[x], U = uRow[x / 2], V = vRow[x / 2];
      out[4 * x + 0] = Clamp255(Y - V - U + 254);
      out[4 * x + 1] = Clamp255(V - 127 + Y);
      out[4 * x + 2] = Clamp255(U - V + Y);
    }
  }
}

zycZyl1Decoder::zycZyl1Decoder() = default;

zycZyl1Decoder::~zycZyl1Decoder() { Release(); }

bool zycZyl1Decoder::Setup(uint32_t width, uint32_t height) {
  Release();
  paddedWidth_ = (width + 7) & ~7u;
  paddedHeight_ = (height + 7) & ~7u;
  const size_t pixels = size_t(paddedWidth_) * paddedHeight_;
  picture_.assign(pixels * 4, 0);
  for (size_t i = 0; i < pixels; ++i) picture_[4 * i + 3] = 255;
  y_.assign(pixels, 0);
  u_.assign(pixels / 4, 0);
  v_.assign(pixels / 4, 0);
  planesFromPicture_ = true;
  if (!io_) io_ = std::make_unique<myDecoder>();
  if (!still_) still_ = std::make_unique<zycFrameDecoder>();
  still_->Setup(paddedWidth_, paddedHeight_, 32, 0, 1);
  still_->io = io_.get();
  if (!quadTree_) quadTree_ = std::make_unique<zycQuadTreeReader>();
  if (!planes_) planes_ = std::make_unique<zycPlaneReader>();
  ready_ = true;
  if (!quadTree_->Setup(paddedWidth_, paddedHeight_) ||
      !planes_->Setup(paddedWidth_, paddedHeight_)) {
    Release();
    return false;
  }
  return true;
}

void zycZyl1Decoder::Release() {
  if (ready_) {
    still_->Release();
    quadTree_->Release();
    planes_->Release();
  }
  ready_ = false;
}

const char* zycZyl1Decoder::Decode(uint8_t kind, const zycZyl1Streams& streams) {
  if (!ready_) return "the decoder is not set up";
  switch (kind) {
    case kFrameKindStill: {
      if (streams.firstSize < kStillImageHeaderBytes || !zycHasStillImageMagic(streams.first))
        return "the key frame is not a still image";
      const zycStillImageHeader head = zycLoadStillImageHeader(streams.first);
      if (head.width != paddedWidth_ || head.height != paddedHeight_)
        return "the still image is not of the movie's size";
      still_->colourStream = streams.first;
      still_->DecodeImage(picture_.data());
      planesFromPicture_ = true;
      return nullptr;
    }
    case kFrameKindQuadTree: {
      if (const char* why = quadTree_->Decode(streams.first, streams.firstSize, paddedWidth_,
                                              paddedHeight_, picture_.data(), pitch())) {
        return why;
      }
      planesFromPicture_ = true;
      return nullptr;
    }
    case kFrameKindPlanes: {
      // After a key frame the reference planes come from its picture; otherwise they are the
      // planes of the last P-frame (a repeat keeps them).
      if (planesFromPicture_) {
        zycPlanesFromPicture(picture_.data(), pitch(), paddedWidth_, paddedHeight_, y_.data(),
                             u_.data(), v_.data());
        planesFromPicture_ = false;
      }
      const uint32_t halfWidth = paddedWidth_ / 2, halfHeight = paddedHeight_ / 2;
      const char* why = planes_->Decode(streams.first, streams.firstSize, paddedWidth_,
                                        paddedHeight_, y_.data());
      if (!why) why = planes_->Decode(streams.second, streams.secondSize, halfWidth, halfHeight,
                                      u_.data());
      if (!why) why = planes_->Decode(streams.third, streams.thirdSize, halfWidth, halfHeight,
                                      v_.data());
      if (why) return why;
      zycPictureFromPlanes(y_.data(), u_.data(), v_.data(), paddedWidth_, paddedHeight_,
                           picture_.data(), pitch());
      return nullptr;
    }
    case kFrameKindRepeat:
      return nullptr;
    default:
      return "unknown frame kind";
  }
}

// Real Y, U, V planes for the plane coder's tests and benchmarks: pictures of a clip converted
// on 2x2 cells as the ZYL1 encoder converts them (Y per pixel, U and V per cell).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/testMedia.h"
#include "tests/support/videoFrames.h"

struct zylTestPlanes {
  int32_t width = 0, height = 0;  // of Y; U and V are half of each
  std::vector<uint8_t> y, u, v;
};

inline zylTestPlanes zylPlanesOf(const zylTestPicture& picture) {
  zylTestPlanes planes;
  const int32_t w = picture.width, h = picture.height;
  planes.width = w;
  planes.height = h;
  planes.y.resize(static_cast<size_t>(w) * h);
  planes.u.resize(static_cast<size_t>(w / 2) * (h / 2));
  planes.v.resize(planes.u.size());
  for (int32_t cy = 0; cy < h / 2; ++cy)
    for (int32_t cx = 0; cx < w / 2; ++cx) {
      int32_t sR = 0, sG = 0, sB = 0;
      for (int32_t j = 0; j < 2; ++j)
        for (int32_t i = 0; i < 2; ++i) {
          const int32_t x = 2 * cx + i, y = 2 * cy + j;
          const uint8_t* p = &picture.pixels[(static_cast<size_t>(y) * w + x) * 4];
          const int32_t b = p[0], g = p[1], r = p[2];
          planes.y[static_cast<size_t>(y) * w + x] = static_cast<uint8_t>((r + 2 * g + b) >> 2);
          sR += r;
          sG += g;
          sB += b;
        }
      planes.u[static_cast<size_t>(cy) * (w / 2) + cx] = static_cast<uint8_t>((sR - sB + 1020) >> 3);
      planes.v[static_cast<size_t>(cy) * (w / 2) + cx] = static_cast<uint8_t>((2 * sG + 2040 - sR - sB) >> 4);
    }
  return planes;
}

// Planes of the first `count` pictures of a shared clip at width x height.
inline std::vector<zylTestPlanes> zylClipPlanes(const std::string& clip, int count, int width,
                                                int height) {
  std::vector<zylTestPlanes> out;
  for (const zylTestPicture& picture : zylDecodeVideoFrames(zylMediaPath(clip), count, width, height))
    out.push_back(zylPlanesOf(picture));
  return out;
}

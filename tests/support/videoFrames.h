// Decodes the first pictures of a real clip with FFmpeg's libraries, scaled to a chosen size,
// as 32-bit pixels blue, green, red, 255, rows top first. For tests and benchmarks.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct zylTestPicture {
  int32_t width = 0;
  int32_t height = 0;
  double frameRate = 0.0;
  std::vector<uint8_t> pixels;  // width x height x 4
};

// Up to `count` pictures from `path`, scaled to `width` x `height` (0 keeps the clip's size).
// Empty when the file can't be opened or decoded.
std::vector<zylTestPicture> zylDecodeVideoFrames(const std::string& path, int count,
                                                 int width = 0, int height = 0);

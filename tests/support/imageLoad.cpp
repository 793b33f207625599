#include "tests/support/imageLoad.h"

#include <png.h>

#include <cstdio>
#include <cstring>

bool zylLoadPng(const std::string& path, zylTestImage* image) {
  png_image png;
  std::memset(&png, 0, sizeof png);
  png.version = PNG_IMAGE_VERSION;
  if (!png_image_begin_read_from_file(&png, path.c_str())) return false;
  png.format = PNG_FORMAT_BGRA;
  std::vector<uint8_t> pixels(PNG_IMAGE_SIZE(png));
  if (!png_image_finish_read(&png, nullptr, pixels.data(), 0, nullptr)) {
    png_image_free(&png);
    return false;
  }
  for (size_t i = 3; i < pixels.size(); i += 4) pixels[i] = 255;
  image->width = png.width;
  image->height = png.height;
  image->pixels = std::move(pixels);
  return true;
}

zylTestImage zylCropImage(const zylTestImage& image, uint32_t x, uint32_t y, uint32_t width,
                          uint32_t height, uint32_t shrink) {
  zylTestImage out;
  out.width = width;
  out.height = height;
  out.pixels.resize(size_t(width) * height * 4);
  if (shrink == 0) shrink = 1;
  const uint32_t sw = image.width / shrink, sh = image.height / shrink;
  if (sw == 0 || sh == 0) return out;
  for (uint32_t j = 0; j < height; ++j) {
    for (uint32_t i = 0; i < width; ++i) {
      const uint32_t sx = (x + i) % sw, sy = (y + j) % sh;
      uint32_t sum[3] = {};
      for (uint32_t v = 0; v < shrink; ++v) {
        for (uint32_t u = 0; u < shrink; ++u) {
          const uint8_t* p =
              image.pixels.data() + (size_t(sy * shrink + v) * image.width + sx * shrink + u) * 4;
          for (int c = 0; c < 3; ++c) sum[c] += p[c];
        }
      }
      uint8_t* q = out.pixels.data() + (size_t(j) * width + i) * 4;
      for (int c = 0; c < 3; ++c) q[c] = uint8_t((sum[c] + shrink * shrink / 2) / (shrink * shrink));
      q[3] = 255;
    }
  }
  return out;
}

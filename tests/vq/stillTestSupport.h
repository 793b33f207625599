// Pictures for the still image tests: photographs cut to size as packed 3-byte pixels, flat
// and noisy pictures, and an independent walk of an image block from its layout.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tests/support/imageLoad.h"
#include "tests/support/testMedia.h"

struct StillPicture {
  uint32_t width = 0, height = 0;
  std::vector<uint8_t> pixels;  // 3 bytes a pixel: B, G, R
};

// A width x height cut of a photograph of the shared media, shrunk by `shrink` first.
inline StillPicture photoPicture(const std::string& name, uint32_t x, uint32_t y, uint32_t width,
                                 uint32_t height, uint32_t shrink = 1) {
  StillPicture picture;
  zylTestImage image;
  if (!zylLoadPng(zylMediaPath(name), &image)) return picture;
  const zylTestImage cut = zylCropImage(image, x, y, width, height, shrink);
  picture.width = width;
  picture.height = height;
  picture.pixels.resize(size_t(width) * height * 3);
  for (size_t i = 0; i < size_t(width) * height; ++i)
    for (int c = 0; c < 3; ++c) picture.pixels[3 * i + c] = cut.pixels[4 * i + c];
  return picture;
}

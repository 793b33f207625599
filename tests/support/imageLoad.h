// Loads a PNG photograph for tests and benchmarks as 32-bit pixels B, G, R, 255, rows top first,
// and cuts pictures of a wanted size out of it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct zylTestImage {
  uint32_t width = 0, height = 0;
  std::vector<uint8_t> pixels;  // width * height * 4 bytes: B, G, R, 255
};

// False if the file cannot be read or decoded. Grey, palette and 16-bit files are expanded;
// alpha is dropped (set to 255).
bool zylLoadPng(const std::string& path, zylTestImage* image);

// A width x height picture of 4-byte pixels taken from `image`: the top left corner at
// (x, y), scaled down first by whole factor `shrink` (box average), repeated by wrapping when the
// wanted size is larger than what is left.
zylTestImage zylCropImage(const zylTestImage& image, uint32_t x, uint32_t y, uint32_t width,
                          uint32_t height, uint32_t shrink = 1);

#include "dxt/yuvConvert.h"

uint32_t zycYuvPixel(uint8_t b, uint8_t g, uint8_t r) {
  const uint32_t t = 401u * b + 2065u * g + 1052u * r;
  const uint32_t y = (t + 0x10800u) >> 12;
  const uint32_t u = (8312025u * b - 2363u * t + 0x80800000u) >> 24;
  const uint32_t v = (10507932u * r - 2987u * t + 0x80800000u) >> 24;
  return u | y << 8 | v << 16 | 0xFF000000u;
}

void zycConvertToYuv(const uint8_t* source, uint8_t* destination, uint32_t pixelCount) {
  for (uint32_t i = 0; i < pixelCount; ++i, source += 4, destination += 4) {
    const uint32_t w = zycYuvPixel(source[0], source[1], source[2]);
    destination[0] = uint8_t(w);
    destination[1] = uint8_t(w >> 8);
    destination[2] = uint8_t(w >> 16);
    destination[3] = 255;
  }
}

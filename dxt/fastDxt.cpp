#include "dxt/fastDxt.h"

#include "base/byteIo.h"
#include "dxt/dxtKernels.h"

namespace {

// One block: `rows` points at the top left pixel, `stride` is the row length in bytes.
void encodeBlock(const uint8_t* rows, uint32_t stride, uint8_t* out) {
  uint8_t lo[4] = {255, 255, 255, 255}, hi[4] = {0, 0, 0, 0};
  for (int j = 0; j < 4; ++j) {
    const uint8_t* p = rows + j * stride;
    for (int i = 0; i < 16; ++i) {
      const int c = i & 3;
      if (p[i] < lo[c]) lo[c] = p[i];
      if (p[i] > hi[c]) hi[c] = p[i];
    }
  }
  for (int c = 0; c < 4; ++c) {
    const uint8_t inset = uint8_t((hi[c] - lo[c]) >> 4);
    lo[c] = uint8_t(lo[c] + inset);
    hi[c] = uint8_t(hi[c] - inset);
  }
  const uint16_t colour0 = uint16_t((hi[0] & 0xF8) << 8 | (hi[1] & 0xFC) << 3 | hi[2] >> 3);
  const uint16_t colour1 = uint16_t((lo[0] & 0xF8) << 8 | (lo[1] & 0xFC) << 3 | lo[2] >> 3);

  // Palette on the quantised colours, widened by repeating their high bits; byte 3 is 0.
  int palette[4][4];
  const int masks[3] = {0xF8, 0xFC, 0xF8};
  const int shifts[3] = {5, 6, 5};
  for (int c = 0; c < 3; ++c) {
    int a = hi[c] & masks[c];
    int b = lo[c] & masks[c];
    a |= a >> shifts[c];
    b |= b >> shifts[c];
    palette[0][c] = a;
    palette[1][c] = b;
    palette[2][c] = ((2 * a + b) * 0x5556) >> 16;
    palette[3][c] = ((a + 2 * b) * 0x5556) >> 16;
  }
  for (int e = 0; e < 4; ++e) palette[e][3] = 0;

  uint32_t indices = 0;
  for (int k = 0; k < 16; ++k) {
    const uint8_t* p = rows + (k >> 2) * stride + 4 * (k & 3);
    int d[4];
    for (int e = 0; e < 4; ++e) {
      d[e] = 0;
      for (int c = 0; c < 4; ++c) {
        const int diff = p[c] - palette[e][c];
        d[e] += diff < 0 ? -diff : diff;
      }
    }
    const uint32_t x0 = d[0] > d[2] && d[1] > d[2];
    const uint32_t x1 = d[1] > d[3] && d[0] > d[3];
    const uint32_t x2 = d[2] > d[3] && d[0] > d[3];
    indices |= (2 * (x0 | x1) + x2) << (2 * k);
  }
  zycStore16(out, colour0);
  zycStore16(out + 2, colour1);
  zycStore32(out + 4, indices);
}

}  // namespace

void zycFastDxtPlain(const uint8_t* pixels, uint32_t width, uint32_t height, uint8_t* blocks) {
  const uint32_t stride = width * 4;
  for (uint32_t y = 0; y + 4 <= height; y += 4) {
    for (uint32_t x = 0; x + 4 <= width; x += 4) {
      encodeBlock(pixels + size_t(y) * stride + 4 * x, stride, blocks);
      blocks += 8;
    }
  }
}

void zycFastDxt(const uint8_t* pixels, uint32_t width, uint32_t height, uint8_t* blocks) {
  zycDxtBest().fastDxt(pixels, width, height, blocks);
}

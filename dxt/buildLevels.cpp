#include "dxt/buildLevels.h"

#include <cstdlib>
#include <cstring>

#include "base/byteIo.h"
#include "dxt/dxtBackEnds.h"
#include "dxt/yuvConvert.h"

namespace {

constexpr int kClampBias = 277;

uint8_t* allocPicture(uint32_t width, uint32_t height) {
  const size_t bytes = ((size_t(width) * height * 4) + 15) & ~size_t(15);
  return static_cast<uint8_t*>(std::aligned_alloc(16, bytes ? bytes : 16));
}

// Exchanges bytes 0 and 2 of every pixel.
void swapRedBlue(uint8_t* picture, size_t pixelCount) {
  for (size_t i = 0; i < pixelCount; ++i) {
    const uint32_t w = zycLoad32(picture + 4 * i);
    zycStore32(picture + 4 * i, (w & 0xFF00FF00u) | (w >> 16 & 0xFFu) | (w & 0xFFu) << 16);
  }
}

// Each byte of each pixel of `out` is the sum of a factor x factor square of `in`, shifted
// right by log2(factor * factor), with no rounding term.
void boxFilter(const uint8_t* in, uint32_t width, uint32_t height, uint32_t factor,
               uint32_t shift, uint8_t* out) {
  const uint32_t outWidth = width / factor, outHeight = height / factor;
  const size_t stride = size_t(width) * 4;
  for (uint32_t y = 0; y < outHeight; ++y) {
    for (uint32_t x = 0; x < outWidth; ++x) {
      uint32_t sum[4] = {};
      const uint8_t* p = in + y * factor * stride + x * factor * 4;
      for (uint32_t j = 0; j < factor; ++j, p += stride) {
        for (uint32_t i = 0; i < factor; ++i) {
          for (int c = 0; c < 4; ++c) sum[c] += p[4 * i + c];
        }
      }
      uint8_t* q = out + (size_t(y) * outWidth + x) * 4;
      for (int c = 0; c < 4; ++c) q[c] = uint8_t(sum[c] >> shift);
    }
  }
}

// The four palette words of a block, 0x00RRGGBB, as the frame decoder makes them.
void blockPalette(const zycDxtLevels& t, uint32_t color0, uint32_t color1, uint32_t yuvCoding,
                  uint32_t palette[4]) {
  auto fields = [](uint32_t c, int f[3]) {
    uint32_t x = (c & 31) * 8;
    f[0] = int(x | x >> 5);  // low field
    x = (c & 0x7E0) >> 3;
    f[1] = int(x | x >> 6);  // middle field
    x = (c & 0xF800) >> 8;
    f[2] = int(x | x >> 5);  // high field
  };
  int a[3], b[3], e2[3], e3[3];
  fields(color0, a);
  fields(color1, b);
  for (int k = 0; k < 3; ++k) {
    if (color0 <= color1) {
      e2[k] = (a[k] + b[k]) >> 1;
      e3[k] = 0;
    } else {
      e2[k] = t.thirds[2 * a[k] + b[k]];
      e3[k] = t.thirds[a[k] + 2 * b[k]];
    }
  }
  const int* entries[4] = {a, b, e2, e3};
  for (int e = 0; e < 4; ++e) {
    const int* f = entries[e];
    if (yuvCoding) {
      // High field Cr, middle Y, low Cb.
      const int y = t.yTable[f[1]];
      const uint32_t r = t.clampTable[y + t.crToR[f[2]] + kClampBias];
      const uint32_t g = t.clampTable[y + t.crToG[f[2]] + t.cbToG[f[0]] + kClampBias];
      const uint32_t bl = t.clampTable[y + t.cbToB[f[0]] + kClampBias];
      palette[e] = r << 16 | g << 8 | bl;
    } else {
      palette[e] = uint32_t(f[2]) << 16 | uint32_t(f[1]) << 8 | uint32_t(f[0]);
    }
  }
}

void fillPreview(const zycDxtLevels& levels, int level, uint32_t yuvCoding) {
  const uint32_t step = 4u << level, side = 1u << level;
  const uint32_t blocksWide = levels.width / step, blocksHigh = levels.height / step;
  const size_t stride = size_t(levels.width) * 4;
  const uint8_t* block = levels.blocks[level].data();
  for (uint32_t by = 0; by < blocksHigh; ++by) {
    for (uint32_t bx = 0; bx < blocksWide; ++bx, block += 8) {
      uint32_t palette[4];
      blockPalette(levels, zycLoad16(block), zycLoad16(block + 2), yuvCoding, palette);
      uint32_t yuv[4];
      for (int e = 0; e < 4; ++e) {
        yuv[e] = zycYuvPixel(uint8_t(palette[e]), uint8_t(palette[e] >> 8), uint8_t(palette[e] >> 16));
      }
      uint32_t indices = zycLoad32(block + 4);
      uint8_t* corner = levels.preview[level] + by * step * stride + size_t(bx) * step * 4;
      for (uint32_t j = 0; j < 4; ++j) {
        for (uint32_t i = 0; i < 4; ++i, indices >>= 2) {
          const uint32_t word = yuv[indices & 3];
          uint8_t* square = corner + (j << level) * stride + (i << level) * 4;
          for (uint32_t v = 0; v < side; ++v) {
            for (uint32_t u = 0; u < side; ++u) zycStore32(square + v * stride + 4 * u, word);
          }
        }
      }
    }
  }
}

}  // namespace

void zycDxtLevels::Allocate(uint32_t paddedWidth, uint32_t paddedHeight) {
  if (preview[0] && width == paddedWidth && height == paddedHeight) return;
  Release();
  width = paddedWidth;
  height = paddedHeight;
  for (int l = 0; l < 3; ++l) {
    preview[l] = allocPicture(width, height);
    std::memset(preview[l], 0, size_t(width) * height * 4);
    const size_t count = size_t(width >> (l + 2)) * (height >> (l + 2));
    blocks[l].assign(count * 8, 0);
  }
  half = allocPicture(width / 2, height / 2);
  quarter = allocPicture(width / 4, height / 4);

  // The frame decoder's tables: thirds with their rounding term, fixed-point YUV to RGB with
  // an arithmetic shift, and the clamp over -277 to 534.
  for (int i = 0; i < 768; ++i) thirds[i] = uint8_t((i + 1) / 3);
  for (int i = 0; i < 256; ++i) {
    yTable[i] = ((i - 16) * 76309 + 32768) >> 16;
    crToR[i] = ((i - 128) * 104597 + 32768) >> 16;
    cbToB[i] = ((i - 128) * 132201 + 32768) >> 16;
    crToG[i] = ((i - 128) * -53279 + 32768) >> 16;
    cbToG[i] = ((i - 128) * -25674 + 32768) >> 16;
  }
  for (int v = -kClampBias; v < 812 - kClampBias; ++v) {
    clampTable[v + kClampBias] = uint8_t(v < 0 ? 0 : v > 255 ? 255 : v);
  }
}

void zycDxtLevels::Release() {
  for (int l = 0; l < 3; ++l) {
    std::free(preview[l]);
    preview[l] = nullptr;
    blocks[l].clear();
    blocks[l].shrink_to_fit();
  }
  std::free(half);
  std::free(quarter);
  half = quarter = nullptr;
  width = height = 0;
}

void zycBoxShrink(const uint8_t* picture, uint32_t width, uint32_t height, uint32_t factor,
                  uint8_t* out) {
  boxFilter(picture, width, height, factor, factor == 4 ? 4 : 2, out);
}

void zycDecodeLevelBlock(const zycDxtLevels& levels, const uint8_t block[8], uint32_t yuvCoding,
                         uint32_t out[16]) {
  uint32_t palette[4];
  blockPalette(levels, zycLoad16(block), zycLoad16(block + 2), yuvCoding, palette);
  const uint32_t indices = zycLoad32(block + 4);
  for (int k = 0; k < 16; ++k) out[k] = palette[indices >> (2 * k) & 3];
}

void BuildLevels(zycDxtLevels& levels, uint8_t* picture, uint32_t& backEnd, uint32_t yuvCoding) {
  // No graphics device exists to make DXT1 textures: "DXTC" 0 falls back to 3 for good.
  if (backEnd == kDxtBackEndDevice) backEnd = kDxtBackEndSquishRange;
  if (!levels.preview[0] || !picture) return;
  const uint32_t width = levels.width, height = levels.height;
  const size_t pixelCount = size_t(width) * height;

  // Every back end wants the byte shown as red (Cr) first: exchange bytes 0 and 2 in the
  // picture for the time of the three levels.
  swapRedBlue(picture, pixelCount);
  boxFilter(picture, width, height, 2, 2, levels.half);
  boxFilter(picture, width, height, 4, 4, levels.quarter);
  zycDxtCompress(backEnd, picture, width, height, levels.blocks[0].data());
  zycDxtCompress(backEnd, levels.half, width / 2, height / 2, levels.blocks[1].data());
  zycDxtCompress(backEnd, levels.quarter, width / 4, height / 4, levels.blocks[2].data());
  swapRedBlue(picture, pixelCount);

  for (int l = 0; l < 3; ++l) fillPreview(levels, l, yuvCoding);
}

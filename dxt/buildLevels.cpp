#include "dxt/buildLevels.h"

#include <bit>
#include <cstdlib>
#include <cstring>

#include "base/byteIo.h"
#include "base/parallel.h"
#include "dxt/dxtBackEnds.h"
#include "dxt/yuvConvert.h"
#include "stream/decoderTables.h"

static_assert(std::endian::native == std::endian::little, "pixel words are stored little-endian");

namespace {

constexpr int kClampBias = 277;  // index of the value 0 in the clamp table

uint8_t* allocPicture(uint32_t width, uint32_t height) {
  const size_t bytes = ((size_t(width) * height * 4) + 15) & ~size_t(15);
  return static_cast<uint8_t*>(std::aligned_alloc(16, bytes ? bytes : 16));
}

// Exchanges bytes 0 and 2 of every pixel and makes it opaque for the back ends (squish treats
// alpha below 128 as transparent), keeping the alpha bytes in `alpha`.
void swapForBackEnds(uint8_t* picture, size_t pixelCount, uint8_t* alpha) {
  for (size_t i = 0; i < pixelCount; ++i) {
    uint32_t w;
    std::memcpy(&w, picture + 4 * i, 4);
    alpha[i] = uint8_t(w >> 24);
    w = 0xFF000000u | (w & 0x0000FF00u) | (w >> 16 & 0xFFu) | (w & 0xFFu) << 16;
    std::memcpy(picture + 4 * i, &w, 4);
  }
}

// Undoes swapForBackEnds.
void restoreFromBackEnds(uint8_t* picture, size_t pixelCount, const uint8_t* alpha) {
  for (size_t i = 0; i < pixelCount; ++i) {
    uint32_t w;
    std::memcpy(&w, picture + 4 * i, 4);
    w = uint32_t(alpha[i]) << 24 | (w & 0x0000FF00u) | (w >> 16 & 0xFFu) | (w & 0xFFu) << 16;
    std::memcpy(picture + 4 * i, &w, 4);
  }
}

// Each byte of each pixel of `out` is the sum of a Factor x Factor square of `in`, shifted
// right by log2(Factor * Factor), with no rounding term. The four bytes of a pixel are summed
// side by side in one 64-bit word (16 bits each; 16 x 255 fits).
template <uint32_t Factor>
void boxFilter(const uint8_t* in, uint32_t width, uint32_t height, uint8_t* out) {
  constexpr uint32_t shift = Factor == 2 ? 2 : 4;
  const uint32_t outWidth = width / Factor, outHeight = height / Factor;
  const size_t stride = size_t(width) * 4;
  for (uint32_t y = 0; y < outHeight; ++y) {
    const uint8_t* row = in + size_t(y) * Factor * stride;
    uint8_t* q = out + size_t(y) * outWidth * 4;
    for (uint32_t x = 0; x < outWidth; ++x, q += 4) {
      uint64_t sum = 0;
      for (uint32_t j = 0; j < Factor; ++j) {
        const uint8_t* p = row + j * stride + size_t(x) * Factor * 4;
        for (uint32_t i = 0; i < Factor; ++i) {
          uint32_t w;
          std::memcpy(&w, p + 4 * i, 4);
          sum += (uint64_t(w & 0xFF) | uint64_t(w >> 8 & 0xFF) << 16 | uint64_t(w >> 16 & 0xFF) << 32 |
                  uint64_t(w >> 24) << 48);
        }
      }
      q[0] = uint8_t((sum & 0xFFFF) >> shift);
      q[1] = uint8_t((sum >> 16 & 0xFFFF) >> shift);
      q[2] = uint8_t((sum >> 32 & 0xFFFF) >> shift);
      q[3] = uint8_t((sum >> 48) >> shift);
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

// The preview of the level's block rows [firstRow, endRow).
template <int level>
void fillPreview(const zycDxtLevels& levels, uint32_t yuvCoding, uint32_t firstRow,
                 uint32_t endRow) {
  constexpr uint32_t step = 4u << level, side = 1u << level;
  const uint32_t blocksWide = levels.width / step;
  const size_t stride = size_t(levels.width) * 4;
  const uint8_t* block = levels.blocks[level].data() + size_t(firstRow) * blocksWide * 8;
  uint32_t row[step];  // one block row, each pixel repeated `side` times
  for (uint32_t by = firstRow; by < endRow; ++by) {
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
          for (uint32_t u = 0; u < side; ++u) row[(i << level) + u] = yuv[indices & 3];
        }
        uint8_t* line = corner + (j << level) * stride;
        for (uint32_t v = 0; v < side; ++v, line += stride) std::memcpy(line, row, step * 4);
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
  alpha = static_cast<uint8_t*>(std::malloc(size_t(width) * height + 1));
  quarter = allocPicture(width / 4, height / 4);

  // The frame decoder's own tables, so that previews look exactly as decoded frames.
  zycFillThirds(thirds);
  zycFillYuvTables(yTable, crToR, cbToB, crToG, cbToG);
  zycFillClamp(clampTable);
}

void zycDxtLevels::Release() {
  for (int l = 0; l < 3; ++l) {
    std::free(preview[l]);
    preview[l] = nullptr;
    blocks[l].clear();
    blocks[l].shrink_to_fit();
  }
  std::free(alpha);
  alpha = nullptr;
  std::free(half);
  std::free(quarter);
  half = quarter = nullptr;
  width = height = 0;
}

void zycBoxShrink(const uint8_t* picture, uint32_t width, uint32_t height, uint32_t factor,
                  uint8_t* out) {
  if (factor == 4) {
    boxFilter<4>(picture, width, height, out);
  } else {
    boxFilter<2>(picture, width, height, out);
  }
}

void zycDecodeLevelBlock(const zycDxtLevels& levels, const uint8_t block[8], uint32_t yuvCoding,
                         uint32_t out[16]) {
  uint32_t palette[4];
  blockPalette(levels, zycLoad16(block), zycLoad16(block + 2), yuvCoding, palette);
  const uint32_t indices = zycLoad32(block + 4);
  for (int k = 0; k < 16; ++k) out[k] = palette[indices >> (2 * k) & 3];
}

void BuildLevels(zycDxtLevels& levels, uint8_t* picture, uint32_t& backEnd, uint32_t yuvCoding,
                 uint32_t threads) {
  // No graphics device exists to make DXT1 textures: "DXTC" 0 falls back to 3 for good.
  if (backEnd == kDxtBackEndDevice) backEnd = kDxtBackEndSquishRange;
  if (!levels.preview[0] || !picture) return;
  const uint32_t width = levels.width, height = levels.height;
  const uint32_t chosen = backEnd;

  // Bands of 16 rows are independent all the way: their half and quarter rows, the blocks of
  // the three levels and the previews of those blocks. Each band is done whole by one thread.
  zycParallelFor(threads, height / 16, [&](uint32_t band) {
    const uint32_t y = band * 16;
    uint8_t* rows = picture + size_t(y) * width * 4;
    uint8_t* alpha = levels.alpha + size_t(y) * width;
    uint8_t* half = levels.half + size_t(y / 2) * (width / 2) * 4;
    uint8_t* quarter = levels.quarter + size_t(y / 4) * (width / 4) * 4;
    // Every back end wants the byte shown as red (Cr) first: exchange bytes 0 and 2 in the
    // picture for the time of the three levels. The back ends also see alpha 255.
    swapForBackEnds(rows, size_t(width) * 16, alpha);
    boxFilter<2>(rows, width, 16, half);
    boxFilter<4>(rows, width, 16, quarter);
    zycDxtCompressHere(chosen, rows, width, 16,
                       levels.blocks[0].data() + size_t(y / 4) * (width / 4) * 8);
    zycDxtCompressHere(chosen, half, width / 2, 8,
                       levels.blocks[1].data() + size_t(y / 8) * (width / 8) * 8);
    zycDxtCompressHere(chosen, quarter, width / 4, 4,
                       levels.blocks[2].data() + size_t(y / 16) * (width / 16) * 8);
    restoreFromBackEnds(rows, size_t(width) * 16, alpha);
    fillPreview<0>(levels, yuvCoding, y / 4, y / 4 + 4);
    fillPreview<1>(levels, yuvCoding, y / 8, y / 8 + 2);
    fillPreview<2>(levels, yuvCoding, y / 16, y / 16 + 1);
  });
}

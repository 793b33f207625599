#include "dxt/baseColourDxt.h"

#include <cstring>

#include "base/byteIo.h"
#include "dxt/dxtKernels.h"

namespace {

struct Rgb {
  int c[3];
};

// The three 8-bit channels of a 5-6-5 word, channel 0 from the top five bits.
Rgb expand565(uint16_t w) {
  const int a = w >> 11, b = (w >> 5) & 63, c = w & 31;
  return {{a << 3 | a >> 2, b << 2 | b >> 4, c << 3 | c >> 2}};
}

int clampByte(int64_t v) { return v < 0 ? 0 : v > 255 ? 255 : int(v); }

uint16_t quantise565(int c0, int c1, int c2) {
  const int a = (c0 * 31 + 127) / 255, b = (c1 * 63 + 127) / 255, c = (c2 * 31 + 127) / 255;
  return uint16_t(a << 11 | b << 5 | c);
}

// x / 3 as the search takes it.
inline int third(uint32_t x) { return int((uint64_t(x) * 0x55555556u) >> 32); }

inline uint32_t weightedError(const uint8_t* p, const Rgb& e) {
  const int d0 = p[0] - e.c[0], d1 = p[1] - e.c[1], d2 = p[2] - e.c[2];
  return uint32_t(4 * d0 * d0 + 16 * d1 * d1 + d2 * d2);
}

// The search's palette of an ordered pair; `count` is 1 for equal colours.
int makePalette(uint16_t c0, uint16_t c1, Rgb palette[4]) {
  palette[0] = expand565(c0);
  if (c0 == c1) return 1;
  palette[1] = expand565(c1);
  for (int k = 0; k < 3; ++k) {
    const uint32_t a = uint32_t(palette[0].c[k]), b = uint32_t(palette[1].c[k]);
    palette[2].c[k] = third(2 * a + b);
    palette[3].c[k] = third(a + 2 * b);
  }
  return 4;
}

void orderPair(uint16_t& c0, uint16_t& c1) {
  if (c0 < c1) {
    const uint16_t t = c0;
    c0 = c1;
    c1 = t;
  }
}

// Assigns every counting pixel its best entry (the first of equals); returns the summed error.
uint32_t assign(const uint8_t pixels[64], uint32_t mask, const Rgb palette[4], int count,
                uint8_t indices[16]) {
  uint32_t total = 0;
  if (count == 1) {
    for (int k = 0; k < 16; ++k) {
      indices[k] = 0;
      if (mask >> k & 1) total += weightedError(pixels + 4 * k, palette[0]);
    }
    return total;
  }
  const int entries[4][3] = {{palette[0].c[0], palette[0].c[1], palette[0].c[2]},
                             {palette[1].c[0], palette[1].c[1], palette[1].c[2]},
                             {palette[2].c[0], palette[2].c[1], palette[2].c[2]},
                             {palette[3].c[0], palette[3].c[1], palette[3].c[2]}};
  return zycDxtBest().baseColourAssign(pixels, mask, entries, indices);
}

// Least-squares base colours for a given assignment: each pixel is modelled as
// w c0 + (1 - w) c1 with w = 1, 0, 2/3, 1/3 for entries 0 to 3. Returns false when the
// assignment does not fix two colours (every pixel on the same weight).
bool fitPair(const uint8_t pixels[64], uint32_t mask, const uint8_t indices[16], uint16_t* c0,
             uint16_t* c1) {
  static constexpr int kWeight3[4] = {3, 0, 2, 1};  // w times 3
  // All sums fit 32 bits: weights up to 3, 16 pixels, channels up to 255.
  int aa = 0, ab = 0, bb = 0;
  int xa0 = 0, xa1 = 0, xa2 = 0, xb0 = 0, xb1 = 0, xb2 = 0;
  for (int k = 0; k < 16; ++k) {
    const int counts = int(mask >> k & 1);
    const int w = kWeight3[indices[k]] * counts, v = (3 - kWeight3[indices[k]]) * counts;
    const uint8_t* p = pixels + 4 * k;
    aa += w * w;
    ab += w * v;
    bb += v * v;
    xa0 += w * p[0];
    xa1 += w * p[1];
    xa2 += w * p[2];
    xb0 += v * p[0];
    xb1 += v * p[1];
    xb2 += v * p[2];
  }
  const int det = aa * bb - ab * ab;  // never negative (Cauchy-Schwarz)
  if (det == 0) return false;
  const int half = det / 2;
  // Scaled by 3: a = 3 (bb xa - ab xb) / det, b = 3 (aa xb - ab xa) / det, rounded.
  auto solve = [det, half](int n) { return clampByte(n >= 0 ? (n + half) / det : (n - half) / det); };
  *c0 = quantise565(solve(3 * (bb * xa0 - ab * xb0)), solve(3 * (bb * xa1 - ab * xb1)),
                    solve(3 * (bb * xa2 - ab * xb2)));
  *c1 = quantise565(solve(3 * (aa * xb0 - ab * xa0)), solve(3 * (aa * xb1 - ab * xa1)),
                    solve(3 * (aa * xb2 - ab * xa2)));
  return true;
}

}  // namespace

uint32_t zycBaseColourAssignPlain(const uint8_t pixels[64], uint32_t mask, const int palette[4][3],
                                  uint8_t indices[16]) {
  // Straight-line form, written so that the compiler keeps it branch free.
  const int r0 = palette[0][0], g0 = palette[0][1], b0 = palette[0][2];
  const int r1 = palette[1][0], g1 = palette[1][1], b1 = palette[1][2];
  const int r2 = palette[2][0], g2 = palette[2][1], b2 = palette[2][2];
  const int r3 = palette[3][0], g3 = palette[3][1], b3 = palette[3][2];
  uint32_t total = 0;
  for (int k = 0; k < 16; ++k) {
    const uint8_t* p = pixels + 4 * k;
    const int x = p[0], y = p[1], z = p[2];
    const uint32_t e0 = uint32_t(4 * (x - r0) * (x - r0) + 16 * (y - g0) * (y - g0) + (z - b0) * (z - b0));
    const uint32_t e1 = uint32_t(4 * (x - r1) * (x - r1) + 16 * (y - g1) * (y - g1) + (z - b1) * (z - b1));
    const uint32_t e2 = uint32_t(4 * (x - r2) * (x - r2) + 16 * (y - g2) * (y - g2) + (z - b2) * (z - b2));
    const uint32_t e3 = uint32_t(4 * (x - r3) * (x - r3) + 16 * (y - g3) * (y - g3) + (z - b3) * (z - b3));
    uint32_t best = e0, index = 0;
    index = e1 < best ? 1 : index;
    best = e1 < best ? e1 : best;
    index = e2 < best ? 2 : index;
    best = e2 < best ? e2 : best;
    index = e3 < best ? 3 : index;
    best = e3 < best ? e3 : best;
    const uint32_t counts = 0u - (mask >> k & 1);
    indices[k] = uint8_t(index & counts);
    total += best & counts;
  }
  return total;
}

void zycBaseColourStartPair(const uint8_t pixels[64], uint32_t mask, uint16_t* first,
                            uint16_t* second) {
  int64_t most = -1, least = -1;
  int mostAt = 0, leastAt = 0;
  for (int k = 0; k < 16; ++k) {
    if (!(mask >> k & 1)) continue;
    const int b0 = pixels[4 * k], b1 = pixels[4 * k + 1], b2 = pixels[4 * k + 2];
    const int64_t m = 4 * (b0 * b0 + 4 * b1 * b1) + b2 * b2;
    if (most < 0 || m > most) {
      most = m;
      mostAt = k;
    }
    if (least < 0 || m < least) {
      least = m;
      leastAt = k;
    }
  }
  const uint8_t* p = pixels + 4 * mostAt;
  const uint8_t* q = pixels + 4 * leastAt;
  *first = quantise565(p[0], p[1], p[2]);
  *second = quantise565(q[0], q[1], q[2]);
}

uint32_t zycBaseColourPairError(const uint8_t pixels[64], uint32_t mask, uint16_t c0,
                                uint16_t c1) {
  orderPair(c0, c1);
  Rgb palette[4];
  const int count = makePalette(c0, c1, palette);
  uint8_t indices[16];
  return assign(pixels, mask & 0xFFFF, palette, count, indices);
}

void zycBaseColourBlock(const uint8_t pixels[64], uint32_t mask, uint8_t block[8]) {
  mask &= 0xFFFF;
  if (mask == 0) {
    std::memset(block, 0, 8);
    return;
  }
  uint16_t best0, best1;
  zycBaseColourStartPair(pixels, mask, &best0, &best1);
  orderPair(best0, best1);
  Rgb palette[4];
  uint8_t indices[16], trial[16];
  uint32_t bestError = assign(pixels, mask, palette, makePalette(best0, best1, palette), indices);

  // Refinement: least squares on the current assignment, as long as it measures better. The
  // start pair stays unless a refined pair beats it.
  for (int round = 0; round < 4 && bestError > 0 && best0 != best1; ++round) {
    uint16_t n0, n1;
    if (!fitPair(pixels, mask, indices, &n0, &n1)) break;
    orderPair(n0, n1);
    const uint32_t err = assign(pixels, mask, palette, makePalette(n0, n1, palette), trial);
    if (err >= bestError) break;
    bestError = err;
    best0 = n0;
    best1 = n1;
    std::memcpy(indices, trial, 16);
  }

  // One colour, the mean of the pixels, for nearly flat blocks.
  if (bestError > 0) {
    int sum[3] = {}, n = 0;
    for (int k = 0; k < 16; ++k) {
      if (!(mask >> k & 1)) continue;
      for (int c = 0; c < 3; ++c) sum[c] += pixels[4 * k + c];
      ++n;
    }
    const uint16_t mean =
        quantise565((sum[0] + n / 2) / n, (sum[1] + n / 2) / n, (sum[2] + n / 2) / n);
    const uint32_t err = assign(pixels, mask, palette, makePalette(mean, mean, palette), trial);
    if (err < bestError) {
      bestError = err;
      best0 = best1 = mean;
      std::memcpy(indices, trial, 16);
    }
  }

  uint32_t word = 0;
  for (int k = 0; k < 16; ++k) word |= uint32_t(indices[k]) << (2 * k);
  zycStore16(block, best0);
  zycStore16(block + 2, best1);
  zycStore32(block + 4, word);
}

void zycCompressDxtn(int components, int width, int height, const uint8_t* pixels,
                     uint8_t* blocks) {
  if (components != 3 && components != 4) return;
  for (int y = 0; y < height; y += 4) {
    for (int x = 0; x < width; x += 4) {
      uint8_t block[64] = {};
      uint32_t mask = 0;
      for (int j = 0; j < 4 && y + j < height; ++j) {
        for (int i = 0; i < 4 && x + i < width; ++i) {
          const uint8_t* p = pixels + (size_t(y + j) * width + x + i) * components;
          uint8_t* q = block + 16 * j + 4 * i;
          q[0] = p[0];
          q[1] = p[1];
          q[2] = p[2];
          mask |= 1u << (4 * j + i);
        }
      }
      zycBaseColourBlock(block, mask, blocks);
      blocks += 8;
    }
  }
}

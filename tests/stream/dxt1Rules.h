// DXT1 colours by the format's rules written out here, apart from the decoder's tables: the
// expected pixels of the decoder, level preview, table-block and codebook tests.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>

// R5G6B5 fields widened by repeating their top bits.
inline uint32_t widen5(uint32_t v) { return (v << 3) | (v >> 2); }
inline uint32_t widen6(uint32_t v) { return (v << 2) | (v >> 4); }

// A fade level's tone curve: levels 8..15 move a field 5% per step towards white, rounded
// down; levels 0..7 move it 5% per step towards black, rounded up.
inline int tone(int level, int v) {
  const double change = (level >= 8 ? (level - 7) : -(8 - level)) * 0.05;
  const double exact = level >= 8 ? v + (255 - v) * change : v + v * change;
  return level >= 8 ? int(std::floor(exact + 1e-9)) : int(std::ceil(exact - 1e-9));
}

inline uint16_t rgb565(uint32_t high, uint32_t middle, uint32_t low) {
  return uint16_t(high << 11 | middle << 5 | low);
}

// A 32-bit pixel word from its three fields.
inline uint32_t word(uint32_t high, uint32_t middle, uint32_t low) {
  return high << 16 | middle << 8 | low;
}

// Frames and level previews round the thirds of four-colour mode to nearest; table and codebook
// blocks truncate them.
enum class Thirds { rounded, truncated };

// The four entries of a colour pair, each as its top, middle and low field. Four-colour mode
// (c0 > c1) mixes two thirds of one colour with a third of the other; three-colour mode takes
// the mean, and black as entry 3.
inline std::array<std::array<int, 3>, 4> dxt1Palette(uint16_t c0, uint16_t c1, Thirds thirds) {
  const int a[3] = {int(widen5(c0 >> 11)), int(widen6((c0 >> 5) & 63)), int(widen5(c0 & 31))};
  const int b[3] = {int(widen5(c1 >> 11)), int(widen6((c1 >> 5) & 63)), int(widen5(c1 & 31))};
  const int add = thirds == Thirds::rounded ? 1 : 0;
  std::array<std::array<int, 3>, 4> p{};
  for (int f = 0; f < 3; ++f) {
    p[0][f] = a[f];
    p[1][f] = b[f];
    p[2][f] = c0 > c1 ? (2 * a[f] + b[f] + add) / 3 : (a[f] + b[f]) / 2;
    p[3][f] = c0 > c1 ? (a[f] + 2 * b[f] + add) / 3 : 0;
  }
  return p;
}

inline uint32_t dxt1Word(uint16_t c0, uint16_t c1, int entry, Thirds thirds = Thirds::rounded) {
  const auto e = dxt1Palette(c0, c1, thirds)[entry];
  return word(e[0], e[1], e[2]);
}

// Y, Cb, Cr as 8-bit values to a pixel word by the fixed-point rule, clamped to a byte.
inline uint32_t yuvWord(int y, int cb, int cr) {
  auto fixedPoint = [](int i, int base, double scale) {
    return int(std::floor(((i - base) * scale + 32768.0) / 65536.0));
  };
  auto clampByte = [](int v) { return std::clamp(v, 0, 255); };
  const int t = fixedPoint(y, 16, 76309);
  const int r = clampByte(t + fixedPoint(cr, 128, 104597));
  const int g = clampByte(t + fixedPoint(cr, 128, -53279) + fixedPoint(cb, 128, -25674));
  const int b = clampByte(t + fixedPoint(cb, 128, 132201));
  return word(r, g, b);
}

// A palette word whose fields are Cr, Y, Cb (top to low) as the RGB word it stands for.
inline uint32_t yuvWordOf(uint32_t w) { return yuvWord((w >> 8) & 255, w & 255, w >> 16); }

#include "stream/mpmcTables.h"

#include <cmath>

namespace {

constexpr double kPi = 3.14159265358979;
constexpr double kTwoPi = 6.28318530717958;

// Scale s, frequency f, phase p of each shape.
constexpr int32_t kShapeRows[8][3] = {{2, 0, 0},  {4, 0, 0},  {6, 0, 0}, {10, 0, 0},
                                      {1, 1, 2},  {11, 1, 2}, {8, 2, 0}, {4, 2, 1}};

}  // namespace

int32_t quantRound(double v) {
  const double half = v + 0.5;
  double t = std::trunc(half);
  if (t >= half) t -= 1.0;
  return static_cast<int32_t>(t);
}

void zycOmcWindowAxis(int32_t level, double* axis) {
  const int32_t n = zycOmcWindowSize[level];
  const int32_t e = 2 * zycOmcOverlap[level];
  const double step = kPi / e;
  for (int32_t i = 0; i < n; ++i) {
    if (i < e) {
      axis[i] = 0.5 * (1.0 - std::cos((i + 0.5) * step));
    } else {
      const int32_t m = n - i;
      axis[i] = m > e ? 1.0 : 0.5 * (1.0 - std::cos((m - 0.5) * step));
    }
  }
}

void zycOmcWindow(int32_t level, int32_t* window) {
  double axis[zycOmcWindowMax];
  zycOmcWindowAxis(level, axis);
  const int32_t n = zycOmcWindowSize[level];
  for (int32_t j = 0; j < n; ++j)
    for (int32_t i = 0; i < n; ++i) window[j * n + i] = quantRound(axis[i] * axis[j] * 65536.0);
}

void zycAtomShapes(double shapes[8][8]) {
  for (int32_t row = 0; row < 8; ++row) {
    const double s = kShapeRows[row][0], f = kShapeRows[row][1], p = kShapeRows[row][2];
    double norm = 0.0;
    for (int32_t n = 0; n < 8; ++n) {
      const double t = n - 3;
      const double u = 2.0 * t / s;
      const double g = std::exp(-kPi * u * u) * std::cos(t * f * kTwoPi / 8.0 + p * kPi / 4.0);
      shapes[row][n] = g;
      norm += g * g;
    }
    norm = std::sqrt(norm);
    for (int32_t n = 0; n < 8; ++n) shapes[row][n] /= norm;
  }
}

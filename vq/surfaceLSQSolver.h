// Least-squares fit of one second-order surface
//   value(x, y) = k0 + k1 x + k2 y + k3 x^2 + k4 y^2 + k5 x y
// to one channel of one or more 8x8 blocks anywhere in a picture, x and y being absolute pixel
// positions, with the largest error of the fit. The inner loop of the surface phase of the
// still image coder; the pieces are public so that the group search can keep running sums and
// still compute exactly what a fit from the pixels computes.
#pragma once

#include <cmath>
#include <cstdint>

// Period of the surface coordinates: the decoder takes a pixel's column and row modulo 1024.
constexpr int SLSQ_MAX_RESOLUTION = 1024;
constexpr int kSlsqPowers = 5;  // powers 0 to 4

// Fills powers[i * 5 + k] = (i mod 1024)^k in 64-bit floats for i < `rows`, k < 5 (0^0 is 1):
// the coordinate a decoder gives position i. Looked up by absolute position, the table makes
// every fit use the coordinates the decoder will use, also in pictures wider or taller than
// 1024, where a surface block (8 pixels, never across a multiple of 1024) sees them wrap.
void slsqFillPowers(double* powers, int rows = SLSQ_MAX_RESOLUTION);

// Moment sums M[a][b] = sum of x^a y^b, kept for a + b < 5.
struct SlsqMoments {
  double m[5][5];
};

// Sum over the 8 columns starting at x of x^a, a = 0..4, in column order.
inline void slsqColumnSums(const double* powers, int32_t x, double columnSums[5]) {
  for (int a = 0; a < 5; ++a) {
    double sum = 0.0;
    for (int col = 0; col < 8; ++col) sum += powers[(x + col) * kSlsqPowers + a];
    columnSums[a] = sum;
  }
}

inline void slsqClearMoments(SlsqMoments& moments) {
  for (int a = 0; a < 5; ++a)
    for (int b = 0; a + b < 5; ++b) moments.m[a][b] = 0.0;
}

// Adds the moments of the block at row y (columns summed beforehand): for each row,
// pow[y][b] times the column sum of x^a.
inline void slsqAddBlockMoments(SlsqMoments& moments, const double* powers,
                                const double columnSums[5], int32_t y) {
  for (int a = 0; a < 5; ++a) {
    for (int b = 0; a + b < 5; ++b) {
      double sum = moments.m[a][b];
      for (int row = 0; row < 8; ++row) sum += powers[(y + row) * kSlsqPowers + b] * columnSums[a];
      moments.m[a][b] = sum;
    }
  }
}

// Adds s, s x, s y, s x^2, s y^2, s x y of each pixel of the block at (x, y) to `rhs`.
inline void slsqAddBlockRightSide(double rhs[6], const double* powers, const float* channel,
                                  uint32_t width, uint32_t pixelStride, int32_t x, int32_t y) {
  for (int row = 0; row < 8; ++row) {
    const double* py = powers + (y + row) * kSlsqPowers;
    const float* line = channel + (size_t(y + row) * width + x) * pixelStride;
    for (int col = 0; col < 8; ++col) {
      const double* px = powers + (x + col) * kSlsqPowers;
      const double s = line[col * pixelStride];
      rhs[0] += s;
      rhs[1] += s * px[1];
      rhs[2] += s * py[1];
      rhs[3] += s * px[2];
      rhs[4] += s * py[2];
      rhs[5] += s * (px[1] * py[1]);
    }
  }
}

// Solves the normal equations of the moments for one right side by Gauss elimination without
// pivoting; the coefficients are rounded to float.
void slsqSolveNormal(const SlsqMoments& moments, const double rhs[6], float coefficients[6]);

// The surface at (x, y) as (k3 x + k1 + k5 y) x + k0 + (k4 y + k2) y in 64-bit floats, rounded
// to float.
inline float slsqSurfaceValue(const float k[6], double x, double y) {
  double t = double(k[3]) * x;
  t += double(k[1]);
  t += double(k[5]) * y;
  t *= x;
  t += double(k[0]);
  double u = double(k[4]) * y;
  u += double(k[2]);
  u *= y;
  return float(t + u);
}

// Largest |sample - surface| over the block at (x, y), starting from `largest`.
inline float slsqBlockError(const float k[6], const double* powers, const float* channel,
                            uint32_t width, uint32_t pixelStride, int32_t x, int32_t y,
                            float largest) {
  for (int row = 0; row < 8; ++row) {
    const double yy = powers[(y + row) * kSlsqPowers + 1];
    const float* line = channel + (size_t(y + row) * width + x) * pixelStride;
    for (int col = 0; col < 8; ++col) {
      const float value = slsqSurfaceValue(k, powers[(x + col) * kSlsqPowers + 1], yy);
      const float error = std::fabs(line[col * pixelStride] - value);
      if (error > largest) largest = error;
    }
  }
  return largest;
}

struct SurfaceLSQSolver {
  // Fits the surface to one channel of the blocks whose top left corners are `positions`
  // (pairs x, y) and returns the largest absolute error; an empty list gives 0.
  // `channelPixels` points at the channel's first sample, `pixelStride` samples apart.
  static float solve(const double* powers, const float* channelPixels, uint32_t width,
                     uint32_t pixelStride, const int32_t* positions, uint32_t positionCount,
                     float coefficients[6]);
};

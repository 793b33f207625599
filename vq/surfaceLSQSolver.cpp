// Least-squares surface fit of 8x8 blocks.
#include "vq/surfaceLSQSolver.h"

void slsqFillPowers(double* powers, int rows) {
  for (int i = 0; i < rows; ++i) {
    const int coordinate = i % SLSQ_MAX_RESOLUTION;
    double p = 1.0;
    for (int k = 0; k < kSlsqPowers; ++k) {
      powers[i * kSlsqPowers + k] = p;
      p *= double(coordinate);
    }
  }
}

void slsqSolveNormal(const SlsqMoments& moments, const double rhs[6], float coefficients[6]) {
  // Exponents of x and y of the basis 1, x, y, x^2, y^2, x y.
  static constexpr int kX[6] = {0, 1, 0, 2, 0, 1};
  static constexpr int kY[6] = {0, 0, 1, 0, 2, 1};
  double a[6][6];
  double r[6];
  for (int i = 0; i < 6; ++i)
    for (int j = i; j < 6; ++j) a[i][j] = moments.m[kX[i] + kX[j]][kY[i] + kY[j]];
  for (int i = 1; i < 6; ++i)
    for (int j = 0; j < i; ++j) a[i][j] = a[j][i];
  for (int i = 0; i < 6; ++i) r[i] = rhs[i];

  // Forward pass: clear below the diagonal.
  for (int p = 0; p < 6; ++p) {
    const double inverse = 1.0 / a[p][p];
    for (int i = p + 1; i < 6; ++i) {
      const double factor = a[i][p] * inverse;
      for (int j = p; j < 6; ++j) a[i][j] -= factor * a[p][j];
      r[i] -= factor * r[p];
    }
  }
  // Backward pass: clear above the diagonal.
  for (int p = 5; p > 0; --p) {
    const double inverse = 1.0 / a[p][p];
    for (int i = p - 1; i >= 0; --i) {
      const double factor = a[i][p] * inverse;
      a[i][p] = 0.0;
      r[i] -= factor * r[p];
    }
  }
  for (int i = 0; i < 6; ++i) coefficients[i] = float(r[i] / a[i][i]);
}

float SurfaceLSQSolver::solve(const double* powers, const float* channelPixels, uint32_t width,
                              uint32_t pixelStride, const int32_t* positions,
                              uint32_t positionCount, float coefficients[6]) {
  SlsqMoments moments;
  slsqClearMoments(moments);
  double rhs[6] = {0, 0, 0, 0, 0, 0};
  for (uint32_t i = 0; i < positionCount; ++i) {
    const int32_t x = positions[2 * i], y = positions[2 * i + 1];
    double columnSums[5];
    slsqColumnSums(powers, x, columnSums);
    slsqAddBlockMoments(moments, powers, columnSums, y);
  }
  for (uint32_t i = 0; i < positionCount; ++i)
    slsqAddBlockRightSide(rhs, powers, channelPixels, width, pixelStride, positions[2 * i],
                          positions[2 * i + 1]);
  slsqSolveNormal(moments, rhs, coefficients);
  float largest = 0.0f;
  for (uint32_t i = 0; i < positionCount; ++i)
    largest = slsqBlockError(coefficients, powers, channelPixels, width, pixelStride,
                             positions[2 * i], positions[2 * i + 1], largest);
  return largest;
}

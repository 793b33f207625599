// The least-squares surface fit of 8x8 blocks.
#include "vq/surfaceLSQSolver.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

struct Channel {
  uint32_t width, height;
  std::vector<float> samples;  // three per pixel; channel 1 is the one fitted
  Channel(uint32_t w, uint32_t h) : width(w), height(h), samples(size_t(w) * h * 3, -1000.0f) {}
  float& at(uint32_t x, uint32_t y) { return samples[(size_t(y) * width + x) * 3 + 1]; }
  const float* first() const { return samples.data() + 1; }
};

class SurfaceLSQSolverTest : public ::testing::Test {
 protected:
  SurfaceLSQSolverTest() : powers(SLSQ_MAX_RESOLUTION * kSlsqPowers) { slsqFillPowers(powers.data()); }
  float solve(const Channel& c, const std::vector<int32_t>& positions, float k[6]) {
    return SurfaceLSQSolver::solve(powers.data(), c.first(), c.width, 3, positions.data(),
                                   uint32_t(positions.size() / 2), k);
  }
  std::vector<double> powers;
};

TEST_F(SurfaceLSQSolverTest, PowerTableHasZeroToTheZeroAsOne) {
  EXPECT_EQ(powers[0], 1.0);
  for (int k = 1; k < 5; ++k) EXPECT_EQ(powers[k], 0.0);
  EXPECT_EQ(powers[1023 * 5 + 4], 1023.0 * 1023.0 * 1023.0 * 1023.0);
  EXPECT_EQ(powers[7 * 5 + 3], 343.0);
}

TEST_F(SurfaceLSQSolverTest, ConstantBlockGivesItsValueAsK0) {
  Channel c(64, 48);
  for (uint32_t y = 24; y < 32; ++y)
    for (uint32_t x = 40; x < 48; ++x) c.at(x, y) = 137.0f;
  float k[6];
  const float error = solve(c, {40, 24}, k);
  EXPECT_NEAR(k[0], 137.0f, 1e-2);
  EXPECT_NEAR(k[1], 0.0f, 1e-3);
  EXPECT_NEAR(k[2], 0.0f, 1e-3);
  EXPECT_NEAR(k[3], 0.0f, 1e-4);
  EXPECT_NEAR(k[4], 0.0f, 1e-4);
  EXPECT_NEAR(k[5], 0.0f, 1e-4);
  EXPECT_LT(error, 1e-3f);
}

TEST_F(SurfaceLSQSolverTest, BlockAtTheOriginIsFitted) {
  Channel c(8, 8);
  for (uint32_t y = 0; y < 8; ++y)
    for (uint32_t x = 0; x < 8; ++x) c.at(x, y) = float(50 + 3 * x * x + 2 * x * y);
  float k[6];
  EXPECT_LT(solve(c, {0, 0}, k), 1e-3f);
  EXPECT_NEAR(k[0], 50.0f, 1e-3);
  EXPECT_NEAR(k[3], 3.0f, 1e-4);
  EXPECT_NEAR(k[5], 2.0f, 1e-4);
}

TEST_F(SurfaceLSQSolverTest, RampInXIsFittedByK1Alone) {
  Channel c(128, 16);
  for (uint32_t y = 0; y < 16; ++y)
    for (uint32_t x = 0; x < 128; ++x) c.at(x, y) = 10.0f + 1.5f * float(x);
  float k[6];
  const float error = solve(c, {64, 8, 72, 8, 80, 0}, k);
  EXPECT_LT(error, 1e-3f);
  EXPECT_NEAR(k[1], 1.5f, 1e-4);
  EXPECT_NEAR(k[2], 0.0f, 1e-4);
  EXPECT_NEAR(k[0], 10.0f, 1e-2);
}

TEST_F(SurfaceLSQSolverTest, QuadraticSurfaceOverBlocksFarApartIsExact) {
  Channel c(640, 360);
  const double k0 = 20, k1 = 0.3, k2 = -0.2, k3 = 4e-4, k4 = 6e-4, k5 = -2e-4;
  for (uint32_t y = 0; y < 360; ++y)
    for (uint32_t x = 0; x < 640; ++x)
      c.at(x, y) = float(k0 + k1 * x + k2 * y + k3 * x * x + k4 * y * y + k5 * x * y);
  float k[6];
  const float error = solve(c, {0, 0, 632, 0, 320, 176, 8, 352, 632, 352, 400, 40}, k);
  EXPECT_LT(error, 2e-3f);
  EXPECT_NEAR(k[1], k1, 1e-4);
  EXPECT_NEAR(k[3], k3, 1e-7);
  EXPECT_NEAR(k[5], k5, 1e-7);
}

TEST_F(SurfaceLSQSolverTest, ErrorIsTheLargestDeviationOfAnyPixel) {
  Channel c(16, 8);
  for (uint32_t y = 0; y < 8; ++y)
    for (uint32_t x = 0; x < 16; ++x) c.at(x, y) = 100.0f;
  c.at(12, 5) = 164.0f;  // one pixel off by 64 in the second block
  float k[6];
  const float pair = solve(c, {0, 0, 8, 0}, k);
  const float alone = solve(c, {0, 0}, k);
  EXPECT_GT(pair, 30.0f);
  EXPECT_LT(pair, 64.0f);
  EXPECT_LT(alone, 1e-3f);
  // The error is measured with the rounded coefficients.
  float expected = 0.0f;
  solve(c, {0, 0, 8, 0}, k);
  for (uint32_t y = 0; y < 8; ++y)
    for (uint32_t x = 0; x < 16; ++x)
      expected = std::max(expected, std::fabs(c.at(x, y) - slsqSurfaceValue(k, x, y)));
  EXPECT_EQ(pair, expected);
}

TEST_F(SurfaceLSQSolverTest, EmptyListGivesZeroError) {
  Channel c(8, 8);
  float k[6];
  EXPECT_EQ(solve(c, {}, k), 0.0f);
}

TEST_F(SurfaceLSQSolverTest, MomentsAreSumsOfPowersOverAllPixels) {
  SlsqMoments m;
  slsqClearMoments(m);
  const int32_t blocks[2][2] = {{16, 40}, {304, 8}};
  for (const auto& b : blocks) {
    double columns[5];
    slsqColumnSums(powers.data(), b[0], columns);
    slsqAddBlockMoments(m, powers.data(), columns, b[1]);
  }
  for (int a = 0; a < 5; ++a)
    for (int bb = 0; a + bb < 5; ++bb) {
      double direct = 0.0;
      for (const auto& b : blocks)
        for (int y = b[1]; y < b[1] + 8; ++y)
          for (int x = b[0]; x < b[0] + 8; ++x) direct += std::pow(x, a) * std::pow(y, bb);
      EXPECT_EQ(m.m[a][bb], direct) << a << "," << bb;
    }
}

}  // namespace

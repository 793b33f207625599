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

// Surfaces that the fit must find: a constant block, a block at the origin, a ramp in x, and a
// full quadratic over blocks far apart. Each fits with no error and gives its coefficients.
TEST_F(SurfaceLSQSolverTest, ExactSurfacesGiveTheirCoefficients) {
  const struct {
    const char* what;
    uint32_t width, height;
    double k[6];
    std::vector<int32_t> positions;
    double tolerance[6];
    float error;
  } cases[] = {
      {"constant", 64, 48, {137, 0, 0, 0, 0, 0}, {40, 24}, {1e-2, 1e-3, 1e-3, 1e-4, 1e-4, 1e-4}, 1e-3f},
      {"origin", 8, 8, {50, 0, 0, 3, 0, 2}, {0, 0}, {1e-3, 1, 1, 1e-4, 1, 1e-4}, 1e-3f},
      {"ramp", 128, 16, {10, 1.5, 0, 0, 0, 0}, {64, 8, 72, 8, 80, 0}, {1e-2, 1e-4, 1e-4, 1, 1, 1}, 1e-3f},
      {"quadratic", 640, 360, {20, 0.3, -0.2, 4e-4, 6e-4, -2e-4},
       {0, 0, 632, 0, 320, 176, 8, 352, 632, 352, 400, 40}, {1, 1e-4, 1, 1e-7, 1, 1e-7}, 2e-3f},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Channel channel(c.width, c.height);
    for (uint32_t y = 0; y < c.height; ++y)
      for (uint32_t x = 0; x < c.width; ++x)
        channel.at(x, y) = float(c.k[0] + c.k[1] * x + c.k[2] * y + c.k[3] * x * x + c.k[4] * y * y +
                                 c.k[5] * x * y);
    float k[6];
    EXPECT_LT(solve(channel, c.positions, k), c.error);
    for (int i = 0; i < 6; ++i) EXPECT_NEAR(k[i], c.k[i], c.tolerance[i]) << "k" << i;
  }
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

}  // namespace

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "base/cpuFeatures.h"
#include "dxt/yuvConvert.h"
#include "encoder/sad.h"
#include "tests/support/imageLoad.h"
#include "tests/support/testMedia.h"

namespace {

// Two real pictures in the encoder's YUV layout, 16-byte aligned rows: the photograph and the
// same photograph moved by a few pixels and darkened, as a motion search meets them, its alpha
// bytes made to differ.
struct PicturePair {
  uint32_t width = 128, height = 96;
  std::vector<uint8_t> a, b;
};

PicturePair MakePair() {
  PicturePair p;
  zylTestImage photo;
  EXPECT_TRUE(zylLoadPng(zylMediaPath("photo_coffee_600x400.png"), &photo));
  zylTestImage first = zylCropImage(photo, 200, 100, p.width, p.height);
  zylTestImage second = zylCropImage(photo, 203, 98, p.width, p.height);
  p.a.resize(first.pixels.size());
  p.b.resize(second.pixels.size());
  for (size_t i = 0; i < second.pixels.size(); ++i) {
    if (i % 4 != 3) second.pixels[i] = uint8_t(second.pixels[i] * 7 / 8);
  }
  zycConvertToYuv(first.pixels.data(), p.a.data(), p.width * p.height);
  zycConvertToYuv(second.pixels.data(), p.b.data(), p.width * p.height);
  srand(5);
  for (size_t i = 3; i < p.b.size(); i += 4) p.b[i] = uint8_t(rand());
  return p;
}

// The SIMD sets that this build and this processor run: SSE2, then AVX2.
std::vector<zycSadKernels> FastSets() {
  std::vector<zycSadKernels> sets;
  zycSadKernels k;
  if (zycCpuHasSse2() && zycSadSse2(&k)) sets.push_back(k);
  if (zycCpuHasAvx2() && zycSadAvx2(&k)) sets.push_back(k);
  return sets;
}

// At every size and offset of two real pictures whose alpha bytes differ (the colour kernels
// leave them out, the others count them), each SIMD kernel gives the plain kernel's sum when it
// is below the limit, and otherwise a value from the limit up to the sum.
TEST(SadKernels, SimdEqualsPlainBelowTheLimitOnRealPictures) {
  zycSadKernels plain;
  zycSadPlain(&plain);
  const std::vector<zycSadKernels> sets = FastSets();
  if (sets.empty()) GTEST_SKIP() << "built without SIMD";
  PicturePair p = MakePair();
  const uint32_t stride = p.width * 4;
  for (const zycSadKernels& fast : sets) {
    int compared = 0;
    for (int level = 0; level < 3; ++level) {
      const uint32_t s = 4u << level;
      const zycSadFn pairs[2][2] = {{plain.all[level], fast.all[level]},
                                    {plain.colour[level], fast.colour[level]}};
      for (uint32_t y = 0; y + s <= p.height; y += 4) {
        for (uint32_t x = 0; x + s <= p.width; x += 4) {
          const uint8_t* cur = p.a.data() + y * stride + x * 4;
          // The reference at a vector of up to 3 pixels, read unaligned.
          const uint32_t rx = (x + (y % 7)) + s <= p.width ? x + (y % 7) : x;
          const uint8_t* ref = p.b.data() + y * stride + rx * 4;
          for (const auto& pair : pairs) {
            const uint32_t exact = pair[0](cur, ref, stride, ~0u);
            ASSERT_EQ(pair[1](cur, ref, stride, ~0u), exact) << x << "," << y;
            ASSERT_EQ(pair[1](cur, ref, stride, exact + 1), exact);
            ASSERT_GE(pair[1](cur, ref, stride, exact), exact);
            const uint32_t early = pair[1](cur, ref, stride, exact / 4);
            ASSERT_GE(early, exact / 4);
            ASSERT_LE(early, exact);
          }
          ++compared;
        }
      }
    }
    EXPECT_GT(compared, 500);
  }
}

TEST(SadKernels, FadeLoopTakesWhatALoopOverThePlainKernelTakes) {
  zycSadKernels plain;
  zycSadPlain(&plain);
  std::vector<zycSadKernels> sets = FastSets();
  sets.push_back(plain);
  PicturePair p = MakePair();
  const uint32_t stride = p.width * 4;
  // Sixteen references: the second picture darkened and lightened in steps, some of them
  // equal to others so that ties occur.
  std::vector<std::vector<uint8_t>> fades(16, p.b);
  const uint8_t* refs[16];
  for (int f = 0; f < 16; ++f) {
    const int step = f == 9 ? 4 : f - 4;  // fade 9 equals fade 8
    for (size_t i = 0; i < p.b.size(); ++i) {
      if (i % 4 != 3) fades[f][i] = uint8_t(std::clamp(int(p.b[i]) + 3 * step, 0, 255));
    }
    refs[f] = fades[f].data();
  }
  int withFadeLoop = 0, taken = 0;
  for (const zycSadKernels& set : sets) {
    for (int level = 0; level < 3; ++level) {
      if (!set.fades[level]) continue;
      ++withFadeLoop;
      const uint32_t s = 4u << level;
      for (uint32_t y = 0; y + s <= p.height; y += 7) {
        for (uint32_t x = 0; x + s <= p.width; x += 5) {
          const uint8_t* cur = p.a.data() + y * stride + x * 4;
          const ptrdiff_t offset = ptrdiff_t(y * stride + x * 4);
          for (uint32_t mask : {0xFFFFu, 0x0300u, 0xA5C3u, 0x8001u, 0x0010u}) {
            for (uint32_t start : {~0u, 900u, 300u, 0u}) {
              uint32_t wantError = start, wantFade = 77;
              bool wantTaken = false;
              for (uint32_t m = mask; m && wantError;) {
                const uint32_t f = uint32_t(__builtin_ctz(m));
                m &= m - 1;
                const uint32_t e = plain.colour[level](cur, refs[f] + offset, stride, ~0u);
                if (e < wantError) {
                  wantError = e;
                  wantFade = f;
                  wantTaken = true;
                }
              }
              uint32_t error = start, fade = 77;
              ASSERT_EQ(set.fades[level](cur, refs, offset, stride, mask, &error, &fade),
                        wantTaken);
              ASSERT_EQ(error, wantError) << x << "," << y << " mask " << mask;
              ASSERT_EQ(fade, wantFade);
              taken += wantTaken;
            }
          }
        }
      }
    }
  }
  if (withFadeLoop == 0) GTEST_SKIP() << "no kernel set has a fade loop here";
  EXPECT_GT(taken, 100);
}

}  // namespace

// The plane coder against its reader on real planes, and the support layer's buffer plan.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "base/cpuFeatures.h"
#include "mpmc/afProcOptimized.h"
#include "mpmc/mcproc.h"
#include "mpmc/mpProcOptimized.h"
#include "mpmc/planeKernels.h"
#include "mpmc/planeWriter.h"
#include "stream/planeReader.h"
#include "tests/mpmc/planeTestSupport.h"
#include "tests/support/digest.h"

#if defined(__SANITIZE_ADDRESS__)
// The failed-allocation test needs the allocator to return null rather than report.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
#endif

namespace {

struct Coded {
  std::vector<uint8_t> stream;
  std::vector<uint8_t> recon;
  std::string log;
};

Coded CodePlane(const std::vector<uint8_t>& source, const std::vector<uint8_t>& reference,
                uint32_t bits) {
  Coded coded;
  coded.recon = reference;  // the coder writes over its reference, as the encoder has it
  coded.stream.resize(source.size() * 8 + 10240);
  uint32_t size = 0;
  testing::internal::CaptureStdout();
  encodePlane(source.data(), coded.recon.data(), coded.recon.data(), bits, coded.stream.data(), &size);
  coded.log = testing::internal::GetCapturedStdout();
  coded.stream.resize(size);
  return coded;
}

std::vector<uint8_t> ReadPlane(const Coded& coded, const std::vector<uint8_t>& reference,
                               uint32_t width, uint32_t height) {
  zycPlaneReader reader;
  EXPECT_TRUE(reader.Setup(width, height));
  std::vector<uint8_t> plane = reference;
  const char* problem = reader.Decode(coded.stream.data(), static_cast<uint32_t>(coded.stream.size()),
                                      width, height, plane.data());
  EXPECT_EQ(problem, nullptr) << problem;
  return plane;
}

// Planes of 160 x 120, their halves, and planes smaller than the largest block.
TEST(PlaneCoder, ReaderRebuildsTheCodersReconstructionOnRealPlanes) {
  const auto frames = zylClipPlanes("tree_320x240_15fps_cinepak.avi", 3, 160, 120);
  ASSERT_EQ(frames.size(), 3u);
  const zylTestPlanes& previous = frames[0];
  const zylTestPlanes& current = frames[2];
  testing::internal::CaptureStdout();
  mpmcafBeginJob(160, 120);
  testing::internal::GetCapturedStdout();
  for (uint32_t bits : {0u, 250u, 1500u}) {
    SCOPED_TRACE(bits);
    mpmcafPlaneSize(160, 120);
    const Coded y = CodePlane(current.y, previous.y, bits * 6);
    EXPECT_EQ(ReadPlane(y, previous.y, 160, 120), y.recon);
    mpmcafPlaneSize(80, 60);
    for (const auto* planes : {&current.u, &current.v}) {
      const auto& reference = planes == &current.u ? previous.u : previous.v;
      const Coded c = CodePlane(*planes, reference, bits);
      EXPECT_EQ(ReadPlane(c, reference, 80, 60), c.recon);
    }
    if (bits == 250) {
      // Every strict prefix of a real stream is refused, each read from a buffer of its own.
      zycPlaneReader reader;
      ASSERT_TRUE(reader.Setup(160, 120));
      for (size_t length = 0; length < y.stream.size(); ++length) {
        std::vector<uint8_t> prefix(y.stream.begin(), y.stream.begin() + length);
        std::vector<uint8_t> plane = previous.y;
        EXPECT_NE(reader.Decode(prefix.data(), static_cast<uint32_t>(length), 160, 120, plane.data()), nullptr);
      }
    }
    if (bits == 0) {
      EXPECT_NE(y.log.find("Normal exit: bit rate reached: bit="), std::string::npos) << y.log;
    }
  }
  // Sizes without 32- or 16-pixel block positions, one 4 modulo 8 wide, cut from the planes.
  auto cut = [](const std::vector<uint8_t>& plane, uint32_t w, uint32_t h) {
    std::vector<uint8_t> out(w * h);
    for (uint32_t y = 0; y < h; ++y)
      for (uint32_t x = 0; x < w; ++x) out[y * w + x] = plane[(y + 40) * 160 + x + 60];
    return out;
  };
  for (const auto& size : {std::pair<uint32_t, uint32_t>{4, 4}, {12, 8}, {28, 20}}) {
    SCOPED_TRACE(size.first);
    mpmcafPlaneSize(size.first, size.second);
    const auto reference = cut(previous.y, size.first, size.second);
    const Coded coded = CodePlane(cut(current.y, size.first, size.second), reference, 4000);
    EXPECT_EQ(ReadPlane(coded, reference, size.first, size.second), coded.recon);
  }
  mpmcafEndJob();
  EXPECT_EQ(allocCount, 0u);
}

// Every kernel set this build and this processor run, by name, the plain one first.
std::vector<std::pair<const char*, zycPlaneKernels>> PlaneKernelSets() {
  std::vector<std::pair<const char*, zycPlaneKernels>> sets;
  zycPlaneKernels set;
  zycPlaneKernelsPlain(&set);
  sets.emplace_back("plain", set);
  if (zycCpuHasSse2() && zycPlaneKernelsSse2(&set)) sets.emplace_back("SSE2", set);
  if (zycCpuHasAvx2() && zycPlaneKernelsAvx2(&set)) sets.emplace_back("AVX2", set);
  return sets;
}

TEST(PlaneCoder, StreamsOfRealPlanesKeepTheirDigests) {
  // Digests of streams written by the first working coder: any speed-up, and every kernel set
  // this machine runs, must keep every bit.
  const auto frames = zylClipPlanes("walkers_768x576_10fps_120f.mkv", 3, 320, 184);
  ASSERT_EQ(frames.size(), 3u);
  testing::internal::CaptureStdout();
  mpmcafBeginJob(320, 184);
  testing::internal::GetCapturedStdout();
  struct Case { int plane; uint32_t bits; uint32_t size; uint32_t digest; };
  const Case cases[] = {{0, 1200, 152, 907603288u},  {0, 6000, 823, 777714774u},
                        {0, 20000, 1366, 1916678911u}, {1, 1500, 177, 2589162053u},
                        {2, 4000, 73, 2663380614u}};
  for (const auto& [name, set] : PlaneKernelSets()) {
    planeKernels = set;
    for (const Case& c : cases) {
      SCOPED_TRACE(testing::Message() << name << " plane " << c.plane << " bits " << c.bits);
      const bool luma = c.plane == 0;
      mpmcafPlaneSize(luma ? 320 : 160, luma ? 184 : 92);
      const auto& pick = [&](const zylTestPlanes& f) -> const std::vector<uint8_t>& {
        return c.plane == 0 ? f.y : c.plane == 1 ? f.u : f.v;
      };
      const Coded coded = CodePlane(pick(frames[2]), pick(frames[0]), c.bits);
      EXPECT_EQ(coded.stream.size(), c.size);
      EXPECT_EQ(zylDigest(coded.recon, zylDigest(coded.stream)), c.digest);
    }
  }
  mpmcafEndJob();
}

TEST(PlaneCoder, FastKernelsGiveThePlainResultsOnRealPixels) {
  // Real pixels as references and targets, mp values of both signs, windows of every level, and
  // every width from 1 to 40 so that each vector width and each tail is taken.
  const auto frames = zylClipPlanes("walkers_768x576_10fps_120f.mkv", 3, 160, 96);
  ASSERT_EQ(frames.size(), 3u);
  const std::vector<uint8_t>& o = frames[2].y;
  std::vector<int32_t> r(frames[0].y.begin(), frames[0].y.end()), mc(frames[1].y.begin(), frames[1].y.end());
  std::vector<int32_t> now(o.size()), before(o.size()), window(o.size()), target(o.size()), error(o.size());
  for (size_t i = 0; i < o.size(); ++i) {
    now[i] = static_cast<int32_t>(o[i]) - r[i];
    before[i] = (static_cast<int32_t>(i * 37 % 511)) - 255;
    window[i] = static_cast<int32_t>(i * 2654435761u % 65537u);
    target[i] = static_cast<int32_t>(o[i]) - now[i] / 2;
    error[i] = (o[i] - mc[i]) * (o[i] - mc[i]);
  }
  std::vector<uint32_t> table(1024);
  for (uint32_t i = 0; i < 1024; ++i) table[i] = 700000u - r[i] * 100u;  // ties where pixels repeat
  const int32_t stride = 160;
  std::vector<int16_t> residual(o.size(), 0), firstPass(40 * 13);
  for (int32_t y = 8; y < 21; ++y)
    for (int32_t x = 8; x < 56; ++x)
      residual[y * stride + x] = static_cast<int16_t>(o[y * stride + x] - mc[y * stride + x]);
  std::vector<int32_t> best(o.size());
  std::vector<uint16_t> bestIndex(o.size());
  // The bank's 64 taps, then taps stronger than any of them that it must never reach.
  std::vector<int16_t> dict(72);
  for (size_t i = 0; i < dict.size(); ++i)
    dict[i] = static_cast<int16_t>(i < 64 ? int32_t(i * 613 % 4001) - 2000 : 30000);
  struct Result { std::vector<int64_t> values; };
  auto run = [&]() {
    Result out;
    for (int32_t count = 1; count <= 40; ++count) {
      const size_t at = static_cast<size_t>(count) * 97;
      for (int32_t fx : {0, 1})
        out.values.push_back(planeKernels.motionEstimate(
            r.data() + at, r.data() + at + stride, fx, window.data() + at, mc.data() + at,
            target.data() + at, error.data() + at, count));
      for (auto [a, b] : {std::pair{256, 0}, {-700, 255}, {3071, -256}, {130, 40}}) {
        out.values.push_back(planeKernels.affineEstimate(r.data() + at, a, b, window.data() + at,
                                                         mc.data() + at, target.data() + at,
                                                         error.data() + at, count));
        if (count <= 9)
          for (int32_t rows = 1; rows <= 8; rows += 7) {
            out.values.push_back(planeKernels.motionDelta(
                o.data() + at, stride, now.data() + at, stride, before.data() + at, stride,
                r.data() + at, stride, count, rows, 256, 0));
            out.values.push_back(planeKernels.affineDelta(
                o.data() + at, stride, now.data() + at, stride, before.data() + at, stride,
                r.data() + at, stride, count, rows, a, b));
          }
        for (int32_t size : {4, 8, 16, 32})
          if (count == size) {
            out.values.push_back(planeKernels.motionError(o.data() + at, stride, before.data() + at,
                                                          stride, r.data() + at, stride, size, 256,
                                                          0));
            out.values.push_back(planeKernels.affineError(o.data() + at, stride, before.data() + at,
                                                          stride, r.data() + at, stride, size, a,
                                                          b));
          }
      }
      table[1000 - count * 25] = 0;  // each lowest entry left of those before
      out.values.push_back(planeKernels.bestEntry32(table.data()));
      if (count % 9 == 4) {
        // The bank over a count x 5 area of the residual, which has an 8-pixel margin of zeros.
        std::fill(best.begin(), best.end(), 0);
        std::fill(bestIndex.begin(), bestIndex.end(), uint16_t(0));
        const zycFilterArea area{residual.data(), stride, firstPass.data(), best.data(),
                                 bestIndex.data(), stride, 8, 8, 8 + count, 13};
        planeKernels.filterBank(area, dict.data());
        out.values.insert(out.values.end(), best.begin(), best.end());
        out.values.insert(out.values.end(), bestIndex.begin(), bestIndex.end());
      }
    }
    for (uint32_t i = 0; i < 1024; ++i) table[i] = 700000u - r[i] * 100u;
    return out;
  };
  zycPlaneKernelsPlain(&planeKernels);
  const Result plain = run();
  for (const auto& [name, set] : PlaneKernelSets()) {
    planeKernels = set;
    SCOPED_TRACE(name);
    EXPECT_EQ(run().values, plain.values);
  }
  zycPlaneKernelsPlain(&planeKernels);
}

TEST(PlaneCoder, VectorCodesFollowTheTable) {
  // magnitude: code, bits
  const uint32_t table[33][2] = {{1, 1},  {1, 2},  {1, 3},  {1, 4},  {3, 6},  {5, 7},  {4, 7},
                                 {3, 7},  {11, 9}, {10, 9}, {9, 9},  {17, 10}, {16, 10}, {15, 10},
                                 {14, 10}, {13, 10}, {12, 10}, {11, 10}, {10, 10}, {9, 10}, {8, 10},
                                 {7, 10}, {6, 10}, {5, 10}, {4, 10}, {7, 11}, {6, 11}, {5, 11},
                                 {4, 11}, {3, 11}, {2, 11}, {3, 12}, {2, 12}};
  for (int32_t m = 0; m <= 32; ++m) {
    EXPECT_EQ(zycVectorCode(m), table[m][0]) << m;
    EXPECT_EQ(zycVectorCodeBits(m), static_cast<int32_t>(table[m][1])) << m;
  }
}

TEST(PlaneCoder, LevelCostsCarryTheSwapFromOneParameterToTheNext) {
  // Magnitudes 5 and 7 over a minimum of 5: n = 0 and 2. Worked by hand; the value 2 is swapped
  // to 0 at k = 1 and carried, so at k = 2 it is swapped to 4 and costs 5 instead of 4.
  const int32_t magnitudes[] = {5, 7};
  int64_t costs[16];
  zycLevelCosts(magnitudes, 2, 5, costs);
  const int64_t expected[16] = {6, 7, 8, 10, 12, 14, 16, 18, 7, 6, 9, 10, 12, 14, 16, 18};
  for (int32_t c = 0; c < 16; ++c) EXPECT_EQ(costs[c], expected[c]) << c;
}

TEST(PlaneCoder, NullFreesSayWhatWentWrong) {
  testing::internal::CaptureStdout();
  free_label(nullptr);
  free_matrix(nullptr);
  mpmcFree(nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Null pointer free_label()\nNull free_matrix()\nCan't free memory\n");
  EXPECT_EQ(allocCount, 0u);
}

TEST(PlaneCoderDeathTest, FailedAllocationEndsTheProcessWithItsMessage) {
  // The message goes to standard output with the rest of the coder's console.
  EXPECT_EXIT(mpmcAlloc(static_cast<size_t>(1) << 62), testing::ExitedWithCode(1), "");
}

}  // namespace

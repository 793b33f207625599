// The plane coder against its reader on real planes, and the support layer's buffer plan.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mpmc/mcproc.h"
#include "stream/planeReader.h"
#include "tests/mpmc/planeTestSupport.h"

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
    if (bits == 0) {
      EXPECT_NE(y.log.find("Normal exit: bit rate reached: bit="), std::string::npos) << y.log;
    }
  }
  mpmcafEndJob();
  EXPECT_EQ(allocCount, 0u);
}

TEST(PlaneCoder, BuffersAreAllFreedAfterTwoPlaneSizes) {
  testing::internal::CaptureStdout();
  mpmcafBeginJob(64, 48);
  const uint32_t fullSize = allocCount;
  EXPECT_GT(fullSize, 0u);
  mpmcafPlaneSize(32, 24);
  EXPECT_EQ(allocCount, fullSize);
  mpmcafPlaneSize(64, 48);
  mpmcafEndJob();
  const std::string log = testing::internal::GetCapturedStdout();
  EXPECT_EQ(allocCount, 0u);
  // The windows and the dictionary say what they made: 6 + 12 + 22 + 40 rows, 64 taps.
  size_t windows = 0, taps = 0;
  for (size_t at = 0; (at = log.find("init_omc_window: ", at)) != std::string::npos; ++at) ++windows;
  for (size_t at = 0; (at = log.find("make_dictionary[", at)) != std::string::npos; ++at) ++taps;
  EXPECT_EQ(windows, 80u);
  EXPECT_EQ(taps, 64u);
  EXPECT_NE(log.find("init_omc_window: 0.146447\n"), std::string::npos);
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

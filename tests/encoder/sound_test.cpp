#include <gtest/gtest.h>

#include <cstdio>
#include <vector>

#include "encoder/sound.h"

namespace {

struct Supplier {
  std::vector<uint32_t> asked;
  std::vector<uint8_t> pcm;
  static const uint8_t* Read(uint32_t bytes, void* user) {
    Supplier* s = static_cast<Supplier*>(user);
    s->asked.push_back(bytes);
    s->pcm.assign(bytes + 1, 0);  // one byte more, so the samples start unaligned below
    return s->pcm.data() + 1;
  }
};

TEST(SoundStep, LeadAndChunkLimitMixSamplesAndBytes) {
  EXPECT_EQ(zycSoundLead(16000, 1), 32000u);
  EXPECT_EQ(zycSoundLead(16000, 2), 16000u);
  EXPECT_EQ(zycSoundLead(16000, 0), 0u);
  const double perFrame = zycSamplesPerFrame(44100, 33366, 1000000);
  EXPECT_NEAR(perFrame, 1471.44, 0.01);
  EXPECT_EQ(zycSoundChunkLimit(32000, perFrame, 1), 32000u + 1472u * 2u);
}

TEST(SoundStep, FirstFrameTakesTheLeadThenAChunkEachTimeThatManySamplesPassed) {
  Supplier supplier;
  zycSoundStep step;
  step.Start(16000, 1, 16000, 100000, 1000000, Supplier::Read, &supplier);  // 1600 a frame
  EXPECT_EQ(step.soundLead, 32000u);
  // Frame 0: 32000 + 1600 owed: 33600 samples, already a multiple of 4.
  EXPECT_EQ(step.Take(32, nullptr), 33600u);
  ASSERT_EQ(supplier.asked.size(), 1u);
  EXPECT_EQ(supplier.asked[0], 33600u * 2);
  EXPECT_GT(step.soundSize, 0u);
  // 20 more frames give 32000 samples: the next chunk comes with the 20th.
  uint32_t frames = 0;
  uint32_t taken = 0;
  while (taken == 0 && frames < 40) {
    taken = step.Take(32, nullptr);
    ++frames;
  }
  EXPECT_EQ(frames, 20u);
  EXPECT_EQ(taken, 32000u);
}

TEST(SoundStep, ChunksAreRoundedUpToWholeSamplesAndMultiplesOfFour) {
  Supplier supplier;
  zycSoundStep step;
  step.Start(44100, 2, 16000, 33366, 1000000, Supplier::Read, &supplier);
  const uint32_t n = step.Take(32, nullptr);
  EXPECT_EQ(n % 4, 0u);
  EXPECT_GE(double(n), 16000.0 + step.samplesPerFrame);
  EXPECT_LT(double(n), 16000.0 + step.samplesPerFrame + 4.0);
  EXPECT_EQ(supplier.asked[0], n * 2 * 2);
  EXPECT_LE(step.soundPhase, 0.0);
}

TEST(SoundStep, NoAdpcmBitFetchesButStoresNothing) {
  Supplier supplier;
  zycSoundStep step;
  step.Start(16000, 1, 16000, 100000, 1000000, Supplier::Read, &supplier);
  EXPECT_GT(step.Take(0, nullptr), 0u);
  EXPECT_EQ(supplier.asked.size(), 1u);
  EXPECT_EQ(step.soundSize, 0u);
}

TEST(SoundStep, NoSoundRateNoStep) {
  Supplier supplier;
  zycSoundStep step;
  step.Start(0, 0, 16000, 40000, 1000000, Supplier::Read, &supplier);
  EXPECT_EQ(step.Take(32, nullptr), 0u);
  EXPECT_TRUE(supplier.asked.empty());
}

void TakeWithPhoneFile() {
  Supplier supplier;
  zycSoundStep step;
  step.Start(16000, 1, 16000, 100000, 1000000, Supplier::Read, &supplier);
  FILE* files[5] = {nullptr, std::tmpfile(), nullptr, nullptr, nullptr};
  step.Take(2 | 32, files);
}

TEST(SoundStepDeathTest, PhoneFormatFileEndsTheProcess) {
  EXPECT_EXIT(TakeWithPhoneFile(), ::testing::ExitedWithCode(1), "");
}

}  // namespace

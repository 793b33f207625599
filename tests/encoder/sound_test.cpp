// The sound step on its own: lead and limit sums and the refusal of the phone format. What it
// fetches and stores frame by frame is pinned on whole movies in soundMovie_test.cpp.
#include <gtest/gtest.h>

#include <cstdio>
#include <vector>

#include "stream/sound.h"

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

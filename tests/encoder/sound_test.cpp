// The sound step's lead and limit sums. What it fetches and stores frame by frame, and its
// refusal of the phone format, are pinned on whole movies in soundMovie_test.cpp.
#include <gtest/gtest.h>

#include "stream/sound.h"

namespace {

TEST(SoundStep, LeadAndChunkLimitMixSamplesAndBytes) {
  EXPECT_EQ(zycSoundLead(16000, 1), 32000u);
  EXPECT_EQ(zycSoundLead(16000, 2), 16000u);
  EXPECT_EQ(zycSoundLead(16000, 0), 0u);
  const double perFrame = zycSamplesPerFrame(44100, 33366, 1000000);
  EXPECT_NEAR(perFrame, 1471.44, 0.01);
  EXPECT_EQ(zycSoundChunkLimit(32000, perFrame, 1), 32000u + 1472u * 2u);
}

}  // namespace

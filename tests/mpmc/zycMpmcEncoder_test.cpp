#include "mpmc/zycMpmcEncoder.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(ZycMpmcEncoder, ParameterDefaults) {
  zycMpmcEncoder encoder;
  EXPECT_EQ(encoder.paramS, 0u);
  EXPECT_EQ(encoder.paramT, 0u);
  EXPECT_EQ(encoder.compressionRatio, 100u);
  EXPECT_EQ(encoder.iFrameWeight, 0.18f);
  EXPECT_EQ(encoder.iFrameCreditMax, 2500u);
  EXPECT_EQ(encoder.iFrameCreditMin, 1000u);
  EXPECT_EQ(encoder.iFrameCreditCap, 7500u);
  EXPECT_EQ(encoder.soundFlags, 0x20u);
  EXPECT_EQ(encoder.SoundFlags(), 0x20u);
  EXPECT_EQ(encoder.soundBitRate, 16000u);
  EXPECT_EQ(encoder.keyFrameOnSoundBlock, 0u);
  EXPECT_EQ(encoder.lastFrameIsKey, 0u);
  EXPECT_EQ(encoder.embedRequest, 0u);
  EXPECT_TRUE(encoder.verbose);
  EXPECT_EQ(encoder.header.frameDuration, 66666u);
  EXPECT_EQ(encoder.header.timeScale, 1000000u);
}

}  // namespace

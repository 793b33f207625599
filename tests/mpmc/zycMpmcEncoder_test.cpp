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

TEST(ZycMpmcEncoder, BeginRefusesTheJobAndSaysWhy) {
  zycMpmcEncoder encoder;
  encoder.SetJobRange(3, 9);
  EXPECT_EQ(encoder.firstFrame, 3u);
  EXPECT_EQ(encoder.frameCount, 9u);
  zycStreamHeader header;
  zylFrameImage image;
  zycFileHolder output;
  zylProgress progress = {};
  zylKeyframeRange plan = {0, 1, nullptr, 0, nullptr};
  testing::internal::CaptureStdout();
  int32_t result =
      encoder.Begin(header, image, &output, nullptr, nullptr, nullptr, &progress, &plan);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "ZYL1 encoding is not available in this build\n");
  EXPECT_NE(result, 0);
  EXPECT_EQ(encoder.keyframePlan, &plan);
  EXPECT_EQ(encoder.Reconstructed(), nullptr);
  encoder.framesWritten = 4;
  encoder.End();
  EXPECT_EQ(encoder.framesWritten, 0u);
}

}  // namespace

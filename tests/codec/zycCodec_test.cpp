#include "codec/zycCodec.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

// Catches the full form of Encode to see what the short forms hand it.
class CatchingCodec : public zycCodec {
 public:
  CatchingCodec() : zycCodec(nullptr, 0) {}
  using zycCodec::Encode;
  int32_t Encode(zylSource* source, uint32_t reserved, const char16_t* outputName,
                 uint32_t firstFrame, uint32_t frameCount, const zylKeyframeRange* keyframePlan,
                 char16_t* outputNameBuffer) override {
    seen.push_back({source, reserved, outputName, firstFrame, frameCount, keyframePlan,
                    outputNameBuffer});
    return 42;
  }
  struct Call {
    zylSource* source;
    uint32_t reserved;
    const char16_t* outputName;
    uint32_t firstFrame;
    uint32_t frameCount;
    const zylKeyframeRange* keyframePlan;
    char16_t* outputNameBuffer;
  };
  std::vector<Call> seen;
};

// Mode 0 drives the ZYL0 encoder, mode 1 the ZYL1 encoder, any other none.
TEST(ZycCodec, TheModeChoosesTheEncoder) {
  zylCodec* made = zycCreateCodec(nullptr, 7);
  ASSERT_NE(made, nullptr);
  zycCodec* codec = static_cast<zycCodec*>(made);
  EXPECT_EQ(codec->progressUser, 7u);
  EXPECT_EQ(codec->ModeEncoder(), &codec->encoder);
  codec->SetCodecMode(1);
  EXPECT_EQ(codec->ModeEncoder(), &codec->mpmcEncoder);
  codec->SetCodecMode(5);
  EXPECT_EQ(codec->mode, 5u);
  EXPECT_EQ(codec->ModeEncoder(), nullptr);
  made->Destroy();
}

TEST(ZycCodec, ShortEncodeFormsReachTheFullFormThroughTheInterface) {
  CatchingCodec codec;
  zylCodec* api = &codec;
  zylSource source;
  EXPECT_EQ(api->Encode(&source, 9, u"a.zyl"), 42);
  EXPECT_EQ(api->Encode(&source, 9, u"b.zyl", 4, 5), 42);
  EXPECT_EQ(api->Encode(&source, 9, u"c.zyl", 6, 7, 8u), 42);
  ASSERT_EQ(codec.seen.size(), 3u);
  EXPECT_EQ(codec.seen[0].source, &source);
  EXPECT_EQ(codec.seen[0].reserved, 9u);
  EXPECT_EQ(std::u16string(codec.seen[0].outputName), u"a.zyl");
  EXPECT_EQ(codec.seen[0].firstFrame, 0u);
  EXPECT_EQ(codec.seen[0].frameCount, 0u);
  EXPECT_EQ(codec.seen[1].firstFrame, 4u);
  EXPECT_EQ(codec.seen[1].frameCount, 5u);
  EXPECT_EQ(codec.seen[2].firstFrame, 6u);
  EXPECT_EQ(codec.seen[2].frameCount, 7u);
  for (const CatchingCodec::Call& call : codec.seen) {
    EXPECT_EQ(call.keyframePlan, nullptr);
    EXPECT_EQ(call.outputNameBuffer, nullptr);
  }
}

TEST(ZycCodec, NullSourceIsStatusTwoAndIsStored) {
  zylCodec* api = zycCreateCodec(nullptr, 0);
  zycCodec* codec = static_cast<zycCodec*>(api);
  zylSource dummy;
  codec->source = &dummy;
  EXPECT_EQ(api->Encode(nullptr, 0, u"never.zyl"), 2);
  EXPECT_EQ(codec->source, nullptr);
  api->Destroy();
}

TEST(ZycCodec, SourceInfoCopiesSixValues) {
  zylCodec* api = zycCreateCodec(nullptr, 0);
  zylSource source;
  source.width = 640;
  source.height = 480;
  source.frameRate = 29.97002997;
  source.frameCount = 1234;
  source.audioChannels = 2;
  source.audioSampleRate = 44100;
  zylSourceInfo info = api->GetSourceInfo(0, &source);
  EXPECT_EQ(info.width, 640u);
  EXPECT_EQ(info.height, 480u);
  EXPECT_EQ(info.frameRate, float(29.97002997));
  EXPECT_EQ(info.frameCount, 1234u);
  EXPECT_EQ(info.audioChannels, 2u);
  EXPECT_EQ(info.audioSampleRate, 44100u);
  api->Destroy();
}

TEST(ZycCodec, ReplaceSectionInAnUnknownModeIsStatusSix) {
  zylCodec* api = zycCreateCodec(nullptr, 0);
  api->SetCodecMode(2);
  EXPECT_EQ(api->ReplaceSection(u"missing1.zyl", u"missing2.zyl", 0, 1), 6);
  api->Destroy();
}

}  // namespace

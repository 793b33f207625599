#include "codec/zycCodec.h"

#include <gtest/gtest.h>

#include <filesystem>
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

// Mode 0 drives the ZYL0 encoder, mode 1 the ZYL1 encoder, any other none; in an unknown mode
// ReplaceSection is status 6. A null source is status 2, is stored, and makes no movie.
TEST(ZycCodec, TheModeChoosesTheEncoder) {
  zylCodec* made = zycCreateCodec(nullptr, 7);
  ASSERT_NE(made, nullptr);
  zycCodec* codec = static_cast<zycCodec*>(made);
  EXPECT_EQ(codec->progressUser, 7u);
  EXPECT_EQ(codec->ModeEncoder(), &codec->encoder);
  zylSource dummy;
  codec->source = &dummy;
  EXPECT_EQ(made->Encode(nullptr, 0, u"never.zyl"), 2);
  EXPECT_EQ(codec->source, nullptr);
  EXPECT_FALSE(std::filesystem::exists("never.zyl"));
  codec->SetCodecMode(1);
  EXPECT_EQ(codec->ModeEncoder(), &codec->mpmcEncoder);
  codec->SetCodecMode(5);
  EXPECT_EQ(codec->mode, 5u);
  EXPECT_EQ(codec->ModeEncoder(), nullptr);
  EXPECT_EQ(made->ReplaceSection(u"missing1.zyl", u"missing2.zyl", 0, 1), 6);
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
  EXPECT_EQ(std::u16string(codec.seen[0].outputName), u"a.zyl");
  const uint32_t range[3][2] = {{0, 0}, {4, 5}, {6, 7}};
  for (size_t i = 0; i < 3; ++i) {
    const CatchingCodec::Call& call = codec.seen[i];
    EXPECT_EQ(call.source, &source);
    EXPECT_EQ(call.reserved, 9u);
    EXPECT_EQ(call.firstFrame, range[i][0]) << i;
    EXPECT_EQ(call.frameCount, range[i][1]) << i;
    EXPECT_EQ(call.keyframePlan, nullptr);
    EXPECT_EQ(call.outputNameBuffer, nullptr);
  }
}

}  // namespace

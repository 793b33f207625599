// Whole ZYL1 movies through the codec interface, from pictures and sound of real clips, read
// back by the safe reader: after every frame the file on disk is a whole movie, and every frame
// decodes to exactly the picture the host was shown. Frame modes and the I-frame credit on
// hand-computed cases.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "base/fileIo.h"
#include "codec/zycCodec.h"
#include "stream/safeReader.h"
#include "tests/support/audioSamples.h"
#include "tests/support/memorySource.h"
#include "tests/support/testMedia.h"
#include "tests/support/videoFrames.h"

namespace fs = std::filesystem;

namespace {

uint32_t Tag(const char* name) { return zylTag(name[0], name[1], name[2], name[3]); }

struct Shown {
  std::string file;
  int stopAt = -1;
  std::vector<std::vector<uint8_t>> pictures;  // B, G, R of each reconstruction
  std::vector<uint8_t> keyFrames;
  std::vector<int32_t> credits;
  std::vector<std::string> walkErrors;  // the file as it stood after each frame
};

Shown* gShown = nullptr;

std::vector<uint8_t> Bgr(const uint8_t* pixels, uint32_t pitch, uint32_t width,
                         uint32_t height) {
  std::vector<uint8_t> bgr;
  for (uint32_t y = 0; y < height; ++y) {
    const uint8_t* row = pixels + size_t(y) * pitch;
    for (uint32_t x = 0; x < width; ++x) bgr.insert(bgr.end(), row + x * 4, row + x * 4 + 3);
  }
  return bgr;
}

int32_t RecordShown(zylProgress* progress, uint32_t) {
  Shown& s = *gShown;
  s.pictures.push_back(Bgr(progress->reconstructed, progress->pitch, progress->width,
                           progress->height));
  s.keyFrames.push_back(progress->keyFrame);
  s.credits.push_back(progress->credit);
  zycSafeReader reader;
  std::string error;
  if (!reader.Open(s.file)) {
    error = reader.error();
  } else if (reader.header().frameCount != s.pictures.size()) {
    error = "frame count " + std::to_string(reader.header().frameCount);
  } else if (!reader.notes().empty()) {
    error = reader.notes()[0];
  }
  s.walkErrors.push_back(error);
  return int(s.pictures.size()) - 1 == s.stopAt ? 0 : 1;
}

class Zyl1Movie : public testing::Test {
 protected:
  void SetUp() override {
    std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
    for (char& c : name) c = c == '/' ? '_' : c;
    file_ = fs::path(testing::TempDir()) / ("zyl1_" + name + "_" + std::to_string(getpid()) + ".zyl");
    shown_.file = file_.string();
    gShown = &shown_;
    codec_ = zycCreateCodec(RecordShown, 0);
    codec_->SetCodecMode(1);
    codec_->SetParam(Tag("wFMT"), 0);
    codec_->SetParam(Tag("uFMT"), 230400);
  }
  void TearDown() override {
    if (codec_) codec_->Destroy();
    gShown = nullptr;
    fs::remove(file_);
  }
  zycMpmcEncoder& encoder() { return static_cast<zycCodec*>(codec_)->mpmcEncoder; }

  // `count` pictures of the walkers clip at `width` x `height`; `hold` repeats the first.
  static std::vector<zycTestPicture> Clip(
      int count, int32_t width, int32_t height, bool hold = false,
      const char* clip = "walkers_speech_384x288_10fps_16k.mkv") {
    std::vector<zylTestPicture> frames =
        zylDecodeVideoFrames(zylMediaPath(clip), hold ? 1 : count, width, height);
    std::vector<zycTestPicture> pictures;
    for (int i = 0; i < count && !frames.empty(); ++i) {
      const zylTestPicture& frame = frames[hold ? 0 : size_t(i) % frames.size()];
      zycTestPicture picture;
      picture.width = frame.width;
      picture.height = frame.height;
      for (size_t p = 0; p < frame.pixels.size(); p += 4)
        picture.bgr.insert(picture.bgr.end(), &frame.pixels[p], &frame.pixels[p] + 3);
      pictures.push_back(std::move(picture));
    }
    return pictures;
  }

  int32_t Encode(std::vector<zycTestPicture> pictures, bool withSound,
                 const zylKeyframeRange* plan = nullptr, std::string* printed = nullptr) {
    std::vector<int16_t> pcm;
    if (withSound) {
      zylTestSound sound =
          zylDecodeSound(zylMediaPath("walkers_speech_384x288_10fps_16k.mkv"), 32000);
      pcm = sound.samples;
    } else {
      codec_->SetParam(Tag("SND\0"), 0);
    }
    const uint32_t frames = uint32_t(pictures.size());
    zycMemorySource media(std::move(pictures), 10.0, pcm, withSound ? 1 : 0,
                          withSound ? 16000 : 0, 1600);
    std::u16string name = zycUtf16(file_.string());
    testing::internal::CaptureStdout();
    const int32_t status =
        codec_->Encode(media.source(), 0, name.c_str(), 0, frames, plan, nullptr);
    const std::string out = testing::internal::GetCapturedStdout();
    if (printed) *printed = out;
    return status;
  }

  // Every frame decodes, by the safe reader, to what the host was shown; returns the kinds.
  std::vector<uint8_t> CheckDecodes(uint32_t width, uint32_t height, uint32_t* soundBytes) {
    std::vector<uint8_t> kinds;
    zycSafeReader reader;
    EXPECT_TRUE(reader.Open(file_.string())) << reader.error();
    EXPECT_TRUE(reader.CheckAll().empty());
    reader.Rewind();
    for (size_t i = 0; i < shown_.pictures.size(); ++i) {
      EXPECT_EQ(shown_.walkErrors[i], "") << "after frame " << i;
      const zycSafeStatus status = reader.NextFrame();
      EXPECT_EQ(status, zycSafeStatus::decoded) << "frame " << i << " " << reader.frameError();
      if (status != zycSafeStatus::decoded) break;
      EXPECT_EQ(Bgr(reader.picture().data(), reader.pictureWidth() * 4, width, height),
                shown_.pictures[i])
          << "frame " << i;
      kinds.push_back(reader.frames()[i].kind);
      EXPECT_EQ(reader.frames()[i].key, shown_.keyFrames[i] != 0) << "frame " << i;
      if (soundBytes) *soundBytes += reader.soundBytes();
    }
    EXPECT_EQ(reader.NextFrame(), zycSafeStatus::end);
    return kinds;
  }

  fs::path file_;
  Shown shown_;
  zylCodec* codec_ = nullptr;
};

// Both key frame formats, with and without sound, on moving pictures of 160 x 120.
struct MovieCase {
  const char* name;
  uint32_t iFMT;
  bool sound;
};

const MovieCase kMovieCases[] = {
    {"StillKeys", 1, false},
    {"StillKeysWithSound", 1, true},
    {"QuadTreeKeys", 0, false},
    {"QuadTreeKeysWithSound", 0, true},
};

class Zyl1Movies : public Zyl1Movie, public testing::WithParamInterface<MovieCase> {};

TEST_P(Zyl1Movies, EveryFrameDecodesToWhatTheHostWasShown) {
  const MovieCase& c = GetParam();
  codec_->SetParam(Tag("iFMT"), int32_t(c.iFMT));
  codec_->SetParam(Tag("RATI"), 20);
  ASSERT_EQ(Encode(Clip(6, 160, 120), c.sound), 0);
  ASSERT_EQ(shown_.pictures.size(), 6u);
  uint32_t soundBytes = 0;
  const std::vector<uint8_t> kinds = CheckDecodes(160, 120, &soundBytes);
  ASSERT_EQ(kinds.size(), 6u);
  EXPECT_EQ(kinds[0], c.iFMT == 1 ? kFrameKindStill : kFrameKindQuadTree);
  EXPECT_EQ(std::count(kinds.begin(), kinds.end(), kFrameKindPlanes), 5);
  EXPECT_EQ(soundBytes > 0, c.sound);
}

INSTANTIATE_TEST_SUITE_P(Cases, Zyl1Movies, testing::ValuesIn(kMovieCases),
                         [](const testing::TestParamInfo<MovieCase>& info) {
                           return std::string(info.param.name);
                         });

// The quality test is looser on the frame right behind an I-frame.
TEST_F(Zyl1Movie, QualityLimitIsLooserRightBehindAnIFrame) {
  codec_->SetParam(Tag("iFMT"), 1);
  codec_->SetParam(Tag("RATI"), 20);
  codec_->SetParam(Tag("wFMT"), 1);
  std::string printed;
  ASSERT_EQ(Encode(Clip(4, 100, 60), false, nullptr, &printed), 0);
  std::vector<std::string> limits;
  for (size_t at = printed.find("(qualityLimite:"); at != std::string::npos;
       at = printed.find("(qualityLimite:", at + 1)) {
    limits.push_back(printed.substr(at + 15, 8));
  }
  EXPECT_EQ(limits, (std::vector<std::string>{"4.500000", "2.500000", "2.500000"}));
}

// Frame modes on sources and plans chosen to force them; pictures of 100 x 60 (padded to
// 104 x 64). Sources: the clip's first frame, then four times the picture
// the encoder made of it (so the source is unchanged against what a player shows); two frames
// of one clip and then three times a photograph (a hard cut).
enum class Source { unchanged, cut };
constexpr uint8_t kAny = 9;  // a kind the case does not decide

struct ModeCase {
  const char* name;
  Source source;
  uint32_t rFMT;
  uint32_t zFMT;                 // least credit for an I-frame by the quality test, ms
  uint32_t planFirst, planLast;  // a no-key range, when planLast > 0
  std::vector<uint32_t> planKeys;
  std::vector<uint8_t> kinds;
};

const ModeCase kModeCases[] = {
    {"UnchangedSourceRepeats", Source::unchanged, 0, 1000, 0, 0, {}, {0, 3, 3, 3, 3}},
    {"LastFrameForcedKey", Source::unchanged, 1, 1000, 0, 0, {}, {0, 3, 3, 3, 0}},
    {"ForcedKeyInsideNoKeyRange", Source::unchanged, 0, 1000, 0, 9, {2}, {0, 3, 0, kAny, kAny}},
    {"HardCutMakesAKeyFrame", Source::cut, 0, 100, 0, 0, {}, {0, 2, 0, kAny, kAny}},
    {"NoKeyFrameInsideNoKeyRange", Source::cut, 0, 100, 0, 9, {}, {0, 2, 2, 2, 2}},
    {"NoCreditNoKeyFrame", Source::cut, 0, 1000, 0, 0, {}, {0, 2, 2, 2, 2}},
};

class Zyl1FrameModes : public Zyl1Movie, public testing::WithParamInterface<ModeCase> {};

TEST_P(Zyl1FrameModes, FollowTheSourceAndThePlan) {
  const ModeCase& c = GetParam();
  codec_->SetParam(Tag("iFMT"), 1);
  codec_->SetParam(Tag("RATI"), 20);
  codec_->SetParam(Tag("rFMT"), int32_t(c.rFMT));
  codec_->SetParam(Tag("zFMT"), int32_t(c.zFMT));
  std::vector<zycTestPicture> pictures;
  if (c.source == Source::cut) {
    pictures = Clip(2, 100, 60);
    std::vector<zycTestPicture> other = Clip(3, 100, 60, false, "photo_baboon.jpg");
    pictures.insert(pictures.end(), other.begin(), other.end());
  } else {
    pictures = Clip(1, 100, 60);
    ASSERT_EQ(Encode(pictures, false), 0);
    zycTestPicture shown = pictures[0];
    shown.bgr = shown_.pictures[0];
    pictures.assign(5, shown);
    pictures[0] = Clip(1, 100, 60)[0];
    shown_.pictures.clear();
    shown_.keyFrames.clear();
    shown_.credits.clear();
    shown_.walkErrors.clear();
  }
  const zylKeyframeRange plan = {c.planFirst, c.planLast, c.planKeys.data(),
                                 uint32_t(c.planKeys.size()), nullptr};
  ASSERT_EQ(Encode(pictures, false, c.planLast ? &plan : nullptr), 0);
  ASSERT_EQ(shown_.pictures.size(), c.kinds.size());
  std::vector<uint8_t> kinds = CheckDecodes(100, 60, nullptr);
  ASSERT_EQ(kinds.size(), c.kinds.size());
  for (size_t i = 0; i < kinds.size(); ++i) {
    if (c.kinds[i] == kAny) kinds[i] = kAny;
  }
  EXPECT_EQ(kinds, c.kinds);
}

INSTANTIATE_TEST_SUITE_P(Cases, Zyl1FrameModes, testing::ValuesIn(kModeCases),
                         [](const testing::TestParamInfo<ModeCase>& info) {
                           return std::string(info.param.name);
                         });

// The wanted size printed for a frame: `wanted` moved by a sixteenth of the bonus `bonus`, at
// most half of it upward and a third downward.
std::string CreditLine(uint32_t count, uint32_t used, int32_t wanted, int32_t bonus) {
  int32_t adjustment = bonus >> 4;
  if (adjustment >= 0 && adjustment > wanted * 0.5) adjustment = int32_t(wanted * 0.5);
  if (adjustment < 0 && -adjustment > wanted * 0.33333334) {
    adjustment = int32_t(-wanted * 0.33333334);
  }
  char line[200];
  std::snprintf(line, sizeof line,
                "---IFrameCreditCount:%d  IFrameCreditToBeUsed:%d   --> wantedSize:%d (bonus "
                "Size: %d, adjustment size:%d)\n",
                int32_t(count), int32_t(used), wanted + adjustment, bonus - adjustment,
                adjustment);
  return line;
}

// 320 x 240 with no sound at "RATI" 100: a frame budget of 320 * 240 * 3 / 100 = 2304 bytes.
// At 10 frames a second the first I-frame spends the full 2500 ms of credit:
// 2.5 * 10 * 2304 * 0.18 = 10368 bytes. Each further frame adds 100 ms. A forced key with
// 100 ms spends the minimum of 1000 ms (4147 bytes) and wraps the unsigned credit to
// 2^32 - 900; the next forced key then has "plenty" and spends the maximum again.
TEST_F(Zyl1Movie, CreditArithmetic) {
  codec_->SetParam(Tag("iFMT"), 1);
  codec_->SetParam(Tag("wFMT"), 1);
  const uint32_t keys[] = {1, 2};
  const zylKeyframeRange plan = {0, 0, keys, 2, nullptr};
  std::string printed;
  ASSERT_EQ(Encode(Clip(3, 320, 240, true), false, &plan, &printed), 0);
  EXPECT_EQ(encoder().frameBudget, 2304u);
  EXPECT_NE(printed.find("---IFrameCreditCount:2500  IFrameCreditToBeUsed:2500   --> "
                         "wantedSize:10368 (bonus Size: -60)\n"),
            std::string::npos)
      << printed;
  const std::string second = CreditLine(100, 1000, 4147, shown_.credits[0]);
  EXPECT_NE(printed.find(second), std::string::npos) << second << printed;
  const std::string third = CreditLine(100u - 1000u + 100u, 2500, 10368, shown_.credits[1]);
  EXPECT_NE(printed.find(third), std::string::npos) << third << printed;
  EXPECT_EQ(encoder().IFrameCreditCount, 100u - 1000u + 100u - 2500u);
  EXPECT_EQ(shown_.keyFrames, (std::vector<uint8_t>{1, 1, 1}));
  CheckDecodes(320, 240, nullptr);
}

TEST_F(Zyl1Movie, NoSoundFlagMeansABudgetOfNothing) {
  codec_->SetParam(Tag("iFMT"), 1);
  codec_->SetParam(Tag("pFMT"), 0);
  codec_->SetParam(Tag("wFMT"), 1);
  std::string printed;
  ASSERT_EQ(Encode(Clip(3, 64, 48, true), false, nullptr, &printed), 0);
  EXPECT_EQ(encoder().frameBudget, 0u);
  EXPECT_NE(printed.find("--> wantedSize:0 (bonus Size: -60)\n"), std::string::npos);
  CheckDecodes(64, 48, nullptr);
}

TEST_F(Zyl1Movie, AStoppedJobLeavesAMovieOfWholeFrames) {
  codec_->SetParam(Tag("iFMT"), 1);
  shown_.stopAt = 1;
  ASSERT_EQ(Encode(Clip(5, 100, 60, true), true), 1);
  zycSafeReader reader;
  ASSERT_TRUE(reader.Open(file_.string())) << reader.error();
  EXPECT_EQ(reader.header().frameCount, 2u);
  EXPECT_TRUE(reader.CheckAll().empty());
  EXPECT_TRUE(reader.notes().empty());
}

}  // namespace


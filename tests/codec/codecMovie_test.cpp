// Whole jobs through the codec interface with the real ZYL0 encoder, on pictures and sound of a
// real clip, read back by the safe reader.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "base/fileIo.h"
#include "codec/zycCodec.h"
#include "stream/safeReader.h"
#include "tests/support/audioSamples.h"
#include "tests/support/fileSizeLimit.h"
#include "tests/support/memorySource.h"
#include "tests/support/testMedia.h"
#include "tests/support/videoFrames.h"

namespace fs = std::filesystem;

namespace {

uint32_t Tag(const char* name) { return zylTag(name[0], name[1], name[2], name[3]); }

constexpr int32_t kWidth = 64;
constexpr int32_t kHeight = 48;

struct Shown {
  int stopAt = -1;
  std::vector<std::vector<uint8_t>> pictures;  // B, G, R of each reconstructed picture
  std::vector<uint32_t> sizes;
};

Shown* gShown = nullptr;

int32_t RecordShown(zylProgress* progress, uint32_t) {
  std::vector<uint8_t> bgr;
  for (uint32_t y = 0; y < progress->height; ++y) {
    const uint8_t* row = progress->reconstructed + size_t(y) * progress->pitch;
    for (uint32_t x = 0; x < progress->width; ++x) bgr.insert(bgr.end(), row + x * 4, row + x * 4 + 3);
  }
  gShown->pictures.push_back(std::move(bgr));
  gShown->sizes.push_back(uint32_t(progress->size));
  return int(gShown->pictures.size()) - 1 == gShown->stopAt ? 0 : 1;
}

// The decoded picture's B, G, R inside the source's size.
std::vector<uint8_t> Decoded(const zycSafeReader& reader) {
  std::vector<uint8_t> bgr;
  for (int32_t y = 0; y < kHeight; ++y) {
    const uint8_t* row = reader.picture().data() + size_t(y) * reader.pictureWidth() * 4;
    for (int32_t x = 0; x < kWidth; ++x) bgr.insert(bgr.end(), row + x * 4, row + x * 4 + 3);
  }
  return bgr;
}

class CodecMovie : public testing::Test {
 protected:
  void SetUp() override {
    const std::string clip = zylMediaPath("walkers_speech_384x288_10fps_16k.mkv");
    std::vector<zylTestPicture> frames = zylDecodeVideoFrames(clip, 5, kWidth, kHeight);
    ASSERT_EQ(frames.size(), 5u) << clip;
    for (const zylTestPicture& frame : frames) {
      zycTestPicture picture;
      picture.width = frame.width;
      picture.height = frame.height;
      for (size_t i = 0; i < frame.pixels.size(); i += 4) {
        picture.bgr.insert(picture.bgr.end(), &frame.pixels[i], &frame.pixels[i] + 3);
      }
      pictures_.push_back(std::move(picture));
    }
    sound_ = zylDecodeSound(clip, 16000);
    ASSERT_EQ(sound_.sampleRate, 16000u);
    ASSERT_EQ(sound_.channels, 1u);
    file_ = fs::path(testing::TempDir()) /
            ("zyl_movie_" +
             std::string(testing::UnitTest::GetInstance()->current_test_info()->name()) + "_" +
             std::to_string(getpid()) + ".zyl");
    gShown = &shown_;
    codec_ = zycCreateCodec(RecordShown, 0);
    codec_->SetParam(Tag("wFMT"), 0);
  }
  void TearDown() override {
    if (codec_) codec_->Destroy();
    gShown = nullptr;
    fs::remove(file_);
  }

  // Encodes the five pictures; the console is caught through a pipe (a file would meet the file
  // size limit), and `reason` is errno as the job left it.
  int32_t Encode(std::string* console = nullptr, int* reason = nullptr) {
    zycMemorySource media(pictures_, 10.0, sound_.samples, 1, 16000, 1600);
    std::u16string name = zycUtf16(file_.string());
    zycPipedStdout caught;
    errno = 0;
    const int32_t status = codec_->Encode(media.source(), 0, name.c_str());
    const int error = errno;
    const std::string printed = caught.Take();
    if (console) *console = printed;
    if (reason) *reason = error;
    return status;
  }

  std::string Bytes() const {
    std::ifstream in(file_, std::ios::binary);
    std::stringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
  }

  std::vector<zycTestPicture> pictures_;
  zylTestSound sound_;
  fs::path file_;
  Shown shown_;
  zylCodec* codec_ = nullptr;
};

// Block-tree and still-image key frames: every frame decodes to what the host was shown.
TEST_F(CodecMovie, DecodesToWhatTheHostWasShownWithTheSoundInside) {
  codec_->SetParam(Tag("EXTC"), 1);  // sound into the frames of the main stream
  for (const int still : {0, 1}) {
    SCOPED_TRACE(still ? "still image key frame" : "block tree key frame");
    codec_->SetParam(Tag("iFMT"), still);
    codec_->SetParam(Tag("uFMT"), still ? 230400 : 0);
    shown_ = Shown();
    ASSERT_EQ(Encode(), 0);
    ASSERT_EQ(shown_.pictures.size(), 5u);  // all five pictures, from the first

    zycSafeReader reader;
    ASSERT_TRUE(reader.Open(file_.string())) << reader.error();
    const zycStreamHeader& h = reader.header();
    EXPECT_EQ(h.magic, kMagicZyl0);
    EXPECT_EQ(std::vector<uint32_t>({h.width, h.height, h.frameCount, h.soundRate,
                                     h.soundChannels, h.timeScale, h.frameDuration}),
              std::vector<uint32_t>({uint32_t(kWidth), uint32_t(kHeight), 5, 16000, 1, 1000000,
                                     100000}));
    EXPECT_NE(h.flags & kHeaderFlagSound, 0u);
    ASSERT_FALSE(reader.frames().empty());
    EXPECT_EQ(reader.frames()[0].flags & kFrameFlagImage, still ? kFrameFlagImage : 0);
    EXPECT_TRUE(reader.CheckAll().empty());

    reader.Rewind();
    uint32_t soundBytes = 0;
    for (size_t i = 0; i < shown_.pictures.size(); ++i) {
      ASSERT_EQ(reader.NextFrame(), zycSafeStatus::decoded) << "frame " << i << reader.frameError();
      EXPECT_EQ(Decoded(reader), shown_.pictures[i]) << "frame " << i;
      soundBytes += reader.soundBytes();
    }
    EXPECT_EQ(reader.NextFrame(), zycSafeStatus::end);
    EXPECT_GT(soundBytes, 0u);
  }
}

TEST_F(CodecMovie, AStoppedJobLeavesAValidMovieOfTheFramesDone) {
  shown_.stopAt = 2;
  ASSERT_EQ(Encode(), 1);
  zycSafeReader reader;
  ASSERT_TRUE(reader.Open(file_.string())) << reader.error();
  EXPECT_EQ(reader.header().frameCount, 3u);
  EXPECT_TRUE(reader.CheckAll().empty());
}

// The disk fills up in the fourth frame (or before the header): the job ends with status 3
// and the system's reason, and the movie is cut back to exactly the movie of a job stopped
// after the last frame that fitted. LZMA rewrites its section in place, so its cut puts the
// old section back.
TEST_F(CodecMovie, AFullDiskCutsTheMovieBackToItsLastWholeFrame) {
  const struct {
    uint32_t mode;  // 1: ZYL1
    int packing;
    int framesThatFit;
  } cases[] = {{0, 0, 3}, {0, 1, 3}, {0, 0, 0}, {1, 0, 3}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "mode " << c.mode << ", packing " << c.packing << ", "
                                    << c.framesThatFit);
    codec_->SetCodecMode(c.mode);
    codec_->SetParam(Tag("EXTC"), 1);
    codec_->SetParam(Tag("nFMT"), c.packing);
    std::string whole;  // the movie of the frames that fit
    if (c.framesThatFit > 0) {
      shown_ = Shown();
      shown_.stopAt = c.framesThatFit - 1;
      ASSERT_EQ(Encode(), 1);
      whole = Bytes();
    }
    shown_ = Shown();
    std::string console;
    int reason = 0;
    int32_t status;
    {
      // Not a byte more: an LZMA section packed afresh with one more frame grows only a little.
      zycFileSizeLimit limit(whole.empty() ? 10 : whole.size());
      ASSERT_TRUE(limit.ok());
      status = Encode(&console, &reason);
    }
    EXPECT_EQ(status, 3);
    EXPECT_EQ(reason, EFBIG);
    EXPECT_NE(console.find("Could not write " + file_.string() + ": File too large\n"),
              std::string::npos)
        << console;
    EXPECT_EQ(shown_.pictures.size(), size_t(c.framesThatFit));  // the failed frame is not shown
    EXPECT_TRUE(Bytes() == whole) << Bytes().size() << " bytes against " << whole.size();
  }
}

TEST_F(CodecMovie, ASecondJobOnTheSameCodecWritesTheSameMovie) {
  codec_->SetParam(Tag("SND\0"), 0);
  ASSERT_EQ(Encode(), 0);
  const std::string first = Bytes();
  ASSERT_EQ(Encode(), 0);
  EXPECT_EQ(first.size(), Bytes().size());
  EXPECT_TRUE(first == Bytes());
}

}  // namespace

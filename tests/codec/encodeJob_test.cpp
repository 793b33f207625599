#include "codec/encodeJob.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "base/fileIo.h"
#include "base/timers.h"
#include "codec/zycCodec.h"
#include "stream/zylFormat.h"
#include "tests/support/memorySource.h"
#include "tests/support/recordingEncoder.h"

namespace fs = std::filesystem;

namespace {

uint32_t Tag(const char* name) { return zylTag(name[0], name[1], name[2], name[3]); }

std::string ReadFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

// What the progress callback saw.
struct Watcher {
  int calls = 0;
  int stopAfter = -1;  // returns 0 on this call (counted from 0)
  uint32_t user = 0;
  std::vector<zylProgress> records;
  std::vector<std::vector<uint8_t>> shown;  // the reconstructed picture at each call
};
Watcher* gWatcher = nullptr;

int32_t Watch(zylProgress* progress, uint32_t user) {
  Watcher& w = *gWatcher;
  w.user = user;
  w.records.push_back(*progress);
  std::vector<uint8_t> shown;
  for (uint32_t y = 0; progress->reconstructed && y < progress->height; ++y) {
    const uint8_t* row = progress->reconstructed + size_t(y) * progress->pitch;
    shown.insert(shown.end(), row, row + size_t(progress->width) * 4);
  }
  w.shown.push_back(std::move(shown));
  return w.calls++ == w.stopAfter ? 0 : 1;
}

class EncodeJob : public testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::path(testing::TempDir()) /
           ("zyl_job_" + std::string(testing::UnitTest::GetInstance()->current_test_info()->name()) +
            "_" + std::to_string(getpid()));
    fs::remove_all(dir_);
    fs::create_directories(dir_);
    gWatcher = &watcher_;
    codec_ = new zycCodec(Watch, 0x1234);
  }
  void TearDown() override {
    codec_->Destroy();
    gWatcher = nullptr;
    fs::remove_all(dir_);
  }

  std::u16string Name(const std::string& file) const { return zycUtf16((dir_ / file).string()); }

  // Runs a job behind the recording encoder and captures what it printed.
  int32_t Run(zycMemorySource& media, const std::string& file, uint32_t firstFrame = 0,
              uint32_t frameCount = 0, const zylKeyframeRange* plan = nullptr,
              char16_t* nameBuffer = nullptr) {
    std::u16string name = Name(file);
    testing::internal::CaptureStdout();
    codec_->source = media.source();
    int32_t status = RunEncodeJob(codec_->JobSettings(), &encoder_, media.source(), name.c_str(),
                                  firstFrame, frameCount, plan, nameBuffer);
    printed_ = testing::internal::GetCapturedStdout();
    return status;
  }

  size_t Count(const std::string& text) const {
    size_t n = 0;
    for (size_t at = printed_.find(text); at != std::string::npos; at = printed_.find(text, at + 1))
      ++n;
    return n;
  }

  fs::path dir_;
  Watcher watcher_;
  zycCodec* codec_ = nullptr;
  zycRecordingEncoder encoder_;
  std::string printed_;
};

TEST_F(EncodeJob, StopsAfterTheAskedNumberOfFramesTakingOneGrabTooMany) {
  std::vector<zycTestPicture> pictures = zycTestPicture::Patterns(8, 4, 10);
  zycMemorySource media(pictures, 25.0);
  EXPECT_EQ(Run(media, "a.zyl", 2, 3), 0);
  EXPECT_EQ(encoder_.firstFrame, 2u);
  EXPECT_EQ(encoder_.frameTotal, 3u);
  ASSERT_EQ(encoder_.pictures.size(), 3u);
  EXPECT_EQ(encoder_.pictures[0].pixels, pictures[2].Bgra());
  EXPECT_EQ(encoder_.pictures[2].pixels, pictures[4].Bgra());
  EXPECT_EQ(media.videoSeeks(), (std::vector<int64_t>{800000, 800000}));  // 2 / 25 s, twice
  EXPECT_EQ(encoder_.CallCount("Next"), 2);
}

// The header record the encoder gets at Begin; with "SND" 0 (here a ZYL1 job) the source's sound
// stays out.
TEST_F(EncodeJob, FillsTheHeaderRecordBeforeBegin) {
  const zycStreamHeader& h = encoder_.header;
  for (const bool sound : {true, false}) {
    zycMemorySource media(zycTestPicture::Patterns(8, 4, 3), sound ? 29.97 : 25.0,
                          std::vector<int16_t>(6000), 2, 22050);
    codec_->SetParam(Tag("HXTC"), 2);
    codec_->SetParam(Tag("SND\0"), sound);
    codec_->SetCodecMode(sound ? 0 : 1);
    encoder_.soundFlags = 32 | 16;
    EXPECT_EQ(Run(media, "a.zyl"), 0);
    EXPECT_EQ(std::vector<uint32_t>({h.magic, h.version, h.timeScale, h.frameDuration, h.flags,
                                     h.width, h.height, h.soundChannels, h.soundRate}),
              std::vector<uint32_t>({sound ? kMagicZyl0 : kMagicZyl1, 2, 1000000,
                                     sound ? 33366u : 40000u,  // 1000000 / 29.97, truncated
                                     48, 8, 4, sound ? 2u : 0u, sound ? 22050u : 0u}));
  }
}

TEST_F(EncodeJob, ProgressRecordAfterEveryFrame) {
  std::vector<zycTestPicture> pictures = zycTestPicture::Patterns(6, 3, 4);
  zycMemorySource media(pictures, 25.0);
  zylKeyframeRange plan = {0, 3, nullptr, 0, nullptr};
  EXPECT_EQ(Run(media, "a.zyl", 0, 0, &plan), 0);
  EXPECT_EQ(encoder_.keyframePlan, &plan);
  ASSERT_EQ(watcher_.calls, 4);
  EXPECT_EQ(watcher_.user, 0x1234u);
  for (int i = 0; i < 4; ++i) {
    const zylProgress& p = watcher_.records[size_t(i)];
    EXPECT_EQ(p.frameIndex, uint32_t(i));
    EXPECT_EQ(p.size, 100 + i);
    EXPECT_EQ(p.sourceFrameCount, 4u);
    EXPECT_EQ(p.width, 6u);
    EXPECT_EQ(p.height, 3u);
    EXPECT_EQ(p.pitch, 32u);  // the recording encoder's padded row
    EXPECT_EQ(watcher_.shown[size_t(i)], pictures[size_t(i)].Bgra());
  }
  EXPECT_EQ(watcher_.records[0].keyFrame, 1);
  EXPECT_EQ(watcher_.records[1].keyFrame, 0);
}

// How a job ends: the frames asked for, a callback that stops it, a source that runs dry or
// stalls, an encoder that refuses. End is called once in every case.
TEST_F(EncodeJob, EndsAfterTheFramesAskedForOrWhenStopped) {
  const struct {
    const char* what;
    int pictures;
    uint32_t first, count;
    int stopAfter;       // the callback's call that returns 0
    uint32_t stallAt;    // the picture the source never delivers (0: none)
    int32_t beginResult;
    int32_t status;
    int nexts, callbacks, doneLines;
  } cases[] = {
      {"one frame", 4, 0, 1, -1, 0, 0, 0, 0, 1, 1},
      {"stopped at once", 6, 0, 0, 0, 0, 0, 1, 0, 1, 1},
      {"stopped later", 8, 0, 0, 2, 0, 0, 1, 2, 3, 1},
      {"first beyond the end", 3, 10, 0, -1, 0, 0, 0, 0, 1, 1},
      {"stalled", 6, 0, 0, -1, 3, 0, 0, 2, 3, 1},
      {"refused", 3, 0, 0, -1, 0, 1, 3, 0, 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    watcher_ = Watcher();
    watcher_.stopAfter = c.stopAfter;
    encoder_ = zycRecordingEncoder();
    encoder_.beginResult = c.beginResult;
    zycMemorySource media(zycTestPicture::Patterns(8, 4, c.pictures), 25.0);
    if (c.stallAt) media.StallVideoAt(c.stallAt);
    EXPECT_EQ(Run(media, "a.zyl", c.first, c.count), c.status);
    EXPECT_EQ(encoder_.CallCount("SetJobRange"), 1);
    EXPECT_EQ(encoder_.CallCount("Begin"), 1);
    EXPECT_EQ(encoder_.CallCount("Next"), c.nexts);
    EXPECT_EQ(encoder_.calls.back(), "End");
    EXPECT_EQ(encoder_.CallCount("End"), 1);
    EXPECT_EQ(watcher_.calls, c.callbacks);
    EXPECT_EQ(ReadFile(dir_ / "a.zyl"), "main");  // closed, so everything written is there
    EXPECT_EQ(Count("Encoding done...\n"), size_t(c.doneLines));
    EXPECT_EQ(Count("Detailed statistics"), size_t(c.doneLines));
    EXPECT_EQ(Count("Frame enccoding time (sec):"), size_t(c.nexts));
    if (c.first >= uint32_t(c.pictures)) {
      // Begins on an empty picture.
      ASSERT_EQ(encoder_.pictures.size(), 1u);
      EXPECT_EQ(encoder_.pictures[0].width, 0);
      EXPECT_EQ(encoder_.pictures[0].height, 0);
      EXPECT_EQ(encoder_.header.width, 0u);
    }
  }
}

TEST_F(EncodeJob, PrintsTheFrameTimesAndTheEndLinesInOrder) {
  zycMemorySource media(zycTestPicture::Patterns(8, 4, 4), 25.0);
  // What an earlier job left in the timers is cleared when a job starts.
  TimerSlot(kTimerGeneric0).calls = 3;
  TimerAddValue(kTimerGeneric1, 5);
  EXPECT_EQ(Run(media, "a.zyl"), 0);
  EXPECT_EQ(Count("Generic Timer"), 0u);
  EXPECT_EQ(TimerSlot(kTimerGeneric1).sum, 0u);
  EXPECT_EQ(TimerSlot(kTimerGeneric0).calls, 0u);
  EXPECT_EQ(Count("Frame encoding time: "), 1u);
  EXPECT_EQ(Count("s  Total Encoding time: "), 1u);
  EXPECT_EQ(Count("Frame enccoding time (sec):"), 3u);
  const std::string tail =
      "------------------------------------------------------\n"
      "Encoding done...\n"
      "Total timings (sec):";
  size_t at = printed_.find(tail);
  ASSERT_NE(at, std::string::npos) << printed_;
  size_t line = printed_.find("~~~~~~~~~~~~~~~\n"
                              "------------------------------------------------------\n"
                              "Detailed statistics (Total time since begining in min:sec:ms)\n",
                              at);
  EXPECT_NE(line, std::string::npos) << printed_;
}

TEST_F(EncodeJob, MainOutputThatCantBeOpenedTouchesNothingElse) {
  zycMemorySource media(zycTestPicture::Patterns(8, 4, 3), 25.0);
  EXPECT_EQ(Run(media, "missing/a.zyl"), 3);
  EXPECT_TRUE(encoder_.calls.empty());
  EXPECT_EQ(media.videoRunCount(), 0u);
  EXPECT_TRUE(media.videoSeeks().empty());
  EXPECT_EQ(watcher_.calls, 0);
  EXPECT_EQ(printed_, "");
}

// The phone sound outputs ("pFMT" bits 1, 2, 4, 8) go to numbered files beside the movie, cut
// at the last ".zyl" after the first character (".zyl" alone keeps it); with "EXTC" the
// numbered files take the movie itself and the main output is not made.
TEST_F(EncodeJob, ExtraOutputsAreNamedBesideTheMovie) {
  const struct {
    uint32_t soundFlags;
    std::vector<std::pair<const char*, int32_t>> params;  // "SKIP" for SetSkipExtraFiles
    std::string name;
    std::vector<std::pair<std::string, std::string>> files;  // name and bytes ("?" any)
    std::vector<std::string> absent;
    std::string buffer;  // the name handed back; "" when no buffer is given
  } cases[] = {
      {3, {{"pFMT", 3}}, "movie.zyl",
       {{"movie.zyl", "main"}, {"movie_1.mds", "extra1"}, {"movie_2.mds", "extra2"}},
       {"movie_3.mds", "movie_4.mds"}, "movie.zyl"},
      {3, {{"EXTC", 1}}, "movie.zyl", {{"movie_1.zyl", "extra1"}, {"movie_2.zyl", "extra2"}},
       {"movie.zyl"}, "movie_2.zyl"},
      {8 | 2, {}, "a.zyl.zyl", {{"a.zyl_2.mds", "extra2"}, {"a.zyl_4.mds", "extra4"}}, {}, ""},
      {1, {}, "clip", {{"clip_1.mds", "extra1"}, {"clip", "main"}}, {}, ""},
      {3, {{"SKIP", 1}}, "a.zyl", {{"a.zyl", "main"}}, {"a_1.mds"}, ""},
      {3, {{"SND\0", 0}}, "b.zyl", {{"b.zyl", "main"}}, {"b_1.mds"}, ""},
      {1, {}, ".zyl", {{".zyl_1.mds", "extra1"}, {".zyl", "main"}}, {}, ""},
  };
  // Names relative to the scratch folder, so that ".zyl" is the whole name.
  const fs::path previous = fs::current_path();
  fs::current_path(dir_);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name + " " + std::to_string(c.soundFlags));
    codec_->Destroy();
    codec_ = new zycCodec(Watch, 0x1234);
    zycRecordingEncoder encoder;
    encoder.soundFlags = c.soundFlags;
    for (const auto& [tag, value] : c.params) {
      if (std::string(tag) == "SKIP") {
        codec_->SetSkipExtraFiles(value);
      } else {
        codec_->SetParam(Tag(tag), value);
      }
    }
    zycMemorySource media(zycTestPicture::Patterns(8, 4, 3), 25.0);
    char16_t buffer[kOutputNameBufferLength] = {};
    const std::u16string name = zycUtf16(c.name);
    testing::internal::CaptureStdout();
    EXPECT_EQ(RunEncodeJob(codec_->JobSettings(), &encoder, media.source(), name.c_str(), 0, 0, nullptr,
                           c.buffer.empty() ? nullptr : buffer),
              0);
    testing::internal::GetCapturedStdout();
    for (const auto& [file, bytes] : c.files) EXPECT_EQ(ReadFile(dir_ / file), bytes) << file;
    for (const std::string& file : c.absent) EXPECT_FALSE(fs::exists(dir_ / file)) << file;
    if (!c.buffer.empty()) {
      EXPECT_EQ(std::u16string(buffer), zycUtf16(c.buffer));
    }
    EXPECT_EQ(encoder.hadExtraOutputs, c.files.size() > 1);
    for (const auto& entry : fs::directory_iterator(dir_)) fs::remove_all(entry.path());
  }
  fs::current_path(previous);
}

TEST_F(EncodeJob, SoundFilesOutsideZyl0AreRefused) {
  encoder_.soundFlags = 1;
  codec_->SetCodecMode(1);
  zycMemorySource media(zycTestPicture::Patterns(8, 4, 3), 25.0);
  EXPECT_EQ(Run(media, "a.zyl"), 3);
  EXPECT_EQ(printed_, "docomo sound is only implemented for ZYL0\n");
  EXPECT_TRUE(encoder_.calls.empty());
  EXPECT_TRUE(fs::is_empty(dir_));
}

TEST_F(EncodeJob, AnExtraOutputThatCantBeOpenedRefusesTheJob) {
  encoder_.soundFlags = 1;
  fs::create_directories(dir_ / "a_1.mds");  // a directory where the file should go
  zycMemorySource media(zycTestPicture::Patterns(8, 4, 3), 25.0);
  EXPECT_EQ(Run(media, "a.zyl"), 3);
  EXPECT_TRUE(encoder_.calls.empty());
  EXPECT_FALSE(fs::exists(dir_ / "a.zyl"));
  EXPECT_EQ(media.videoRunCount(), 0u);
}

TEST_F(EncodeJob, SoundThatEndsIsFilledWithZerosAndStaysEnded) {
  // 2500 mono samples; the encoder takes 1000 samples a frame.
  std::vector<int16_t> pcm(2500);
  for (size_t i = 0; i < pcm.size(); ++i) pcm[i] = int16_t(1000 + i);
  zycMemorySource media(zycTestPicture::Patterns(8, 4, 6), 25.0, pcm, 1, 16000);
  encoder_.audioBytesPerFrame = 2000;
  EXPECT_EQ(Run(media, "a.zyl"), 0);
  ASSERT_EQ(encoder_.audio.size(), 6u);
  auto samples = [&](size_t i) {
    const std::vector<uint8_t>& bytes = encoder_.audio[i];
    return std::vector<int16_t>(reinterpret_cast<const int16_t*>(bytes.data()),
                                reinterpret_cast<const int16_t*>(bytes.data()) + 1000);
  };
  EXPECT_EQ(samples(0), std::vector<int16_t>(pcm.begin(), pcm.begin() + 1000));
  EXPECT_EQ(samples(1), std::vector<int16_t>(pcm.begin() + 1000, pcm.begin() + 2000));
  std::vector<int16_t> tail(pcm.begin() + 2000, pcm.end());
  tail.resize(1000, 0);
  EXPECT_EQ(samples(2), tail);
  for (size_t i = 3; i < 6; ++i) EXPECT_EQ(samples(i), std::vector<int16_t>(1000, 0)) << i;
  EXPECT_EQ(media.source()->audioEnded, 1);
}

TEST_F(EncodeJob, UnknownModeDrivesNoEncoder) {
  codec_->SetCodecMode(2);
  codec_->SetParam(Tag("SND\0"), 0);  // stays 1: other tags do nothing in mode 2
  codec_->SetSkipExtraFiles(1);
  zycMemorySource media(zycTestPicture::Patterns(8, 4, 3), 25.0);
  std::u16string name = Name("a.zyl");
  testing::internal::CaptureStdout();
  EXPECT_EQ(codec_->Encode(media.source(), 0, name.c_str()), 0);
  testing::internal::GetCapturedStdout();
  EXPECT_EQ(codec_->source, media.source());  // left in place after the job
  EXPECT_EQ(watcher_.calls, 3);
  EXPECT_EQ(watcher_.records[0].reconstructed, nullptr);
  EXPECT_EQ(ReadFile(dir_ / "a.zyl"), "");
}

}  // namespace

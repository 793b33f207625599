// The FFmpeg source driven through the library's own frame pump: sizes and rates, exact
// pictures, seeks that land on the frame a sequential decode reaches, sound in order, the end of
// the streams.
#include "host/source/ffmpegSource.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "codec/framePump.h"
#include "tests/host/syntheticClip.h"
#include "tests/host/toolRun.h"
#include "tests/support/digest.h"
#include "tests/support/testMedia.h"

namespace {

uint32_t ImageHash(const zylFrameImage& image) {
  return zylDigest(image.pixels, size_t(image.width) * image.height * 4);
}

// A clip of known pictures (37 x 21: rows of 111 bytes padded to 112) and sound: every pixel and
// sample arrives, the sound across uneven reads, and the end is known as soon as the last
// picture went out, before any further "go".
TEST(FfmpegSource, SyntheticPicturesAndSoundArriveExactlyAndInOrder) {
  SyntheticClip clip;
  const std::string path = Dir() + "synthetic.nut";
  ASSERT_EQ(WriteSyntheticClip(clip, path), "");
  zycFfmpegSource media;
  ASSERT_TRUE(media.Open(path)) << media.error();
  zylSource* source = media.source();
  EXPECT_DOUBLE_EQ(source->frameRate, 10.0);
  EXPECT_EQ(source->audioSampleRate, 8000);
  zylFrameImage image;
  ASSERT_TRUE(SeekToFrame(source, 0));
  for (int i = 0; i < clip.frames; ++i) {
    ASSERT_TRUE(GrabFrame(source, image)) << "frame " << i;
    const std::vector<uint8_t> want = SyntheticPicture(clip, i);
    for (int p = 0; p < clip.width * clip.height; ++p) {
      for (int c = 0; c < 3; ++c) {
        ASSERT_EQ(image.pixels[p * 4 + c], want[p * 3 + c]) << "frame " << i << " pixel " << p;
      }
    }
  }
  int32_t code = 0;
  EXPECT_EQ(source->videoEvent->WaitForCompletion(0, &code), 0);
  EXPECT_FALSE(GrabFrame(source, image));

  ASSERT_TRUE(SeekToFrame(source, 0));
  const std::vector<int16_t> want = SyntheticSound(clip);
  const size_t wantBytes = want.size() * 2;
  std::vector<uint8_t> got;
  const uint32_t reads[] = {3200, 4, 1000, 6400, 12};
  bool running = true;
  for (size_t i = 0; got.size() < wantBytes + 4000; ++i) {
    std::vector<uint8_t> chunk(reads[i % 5]);
    running = ReadAudio(source, chunk.data(), uint32_t(chunk.size()));
    got.insert(got.end(), chunk.begin(), chunk.end());
  }
  EXPECT_FALSE(running);
  ASSERT_GE(got.size(), wantBytes);
  EXPECT_EQ(0, std::memcmp(got.data(), want.data(), wantBytes));
  for (size_t i = wantBytes; i < got.size(); ++i) ASSERT_EQ(got[i], 0) << "byte " << i;
  EXPECT_EQ(source->audioEnded, 1);
}

// What opening says about a file: refusals by name, and the streams of real clips, whose first
// frame comes even where the file starts on a frame that is not a key frame.
TEST(FfmpegSource, OpeningReportsTheStreamsOrWhyNot) {
  const std::string text = Dir() + "notes.txt", wav = Dir() + "sound.wav";
  WriteFile(text, "these are notes, not a movie\n");
  SyntheticClip soundOnly;
  soundOnly.video = false;
  ASSERT_EQ(WriteSyntheticClip(soundOnly, wav), "");
  const std::string mov = zylMediaPath("coin_pen_568x320_30fps_sound.mov");
  const std::string avi = zylMediaPath("tree_320x240_15fps_cinepak.avi");
  const struct {
    std::string path;
    bool sound;        // asked for
    std::string said;  // the error of a refusal, or the note of an opened file
    int32_t width, height, channels, rate;
    uint32_t frames;
    double fps;  // 0: not compared
  } cases[] = {
      {"no_such_clip.mp4", true, "no_such_clip.mp4: No input!", 0, 0, 0, 0, 0, 0},
      {text, true, text + ": No input!", 0, 0, 0, 0, 0, 0},
      {wav, true, wav + ": No video stream found!", 0, 0, 0, 0, 0, 0},
      {mov, true, "", 568, 320, 1, 44100, 243, 30.0},
      {mov, false, "", 568, 320, 0, 0, 243, 30.0},
      {avi, true, avi + ": No Audio stream found!", 320, 240, 0, 0, 444, 0},
      {zylMediaPath("handheld_box_640x480_30fps_sound.mp4"), true, "", 640, 480, 1, 44100, 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    zycFfmpegSource media;
    const bool opened = media.Open(c.path, c.sound);
    EXPECT_EQ(opened, c.width > 0);
    if (!opened) {
      EXPECT_EQ(media.error().rfind(c.said, 0), 0u) << media.error();
      continue;
    }
    zylSource* source = media.source();
    EXPECT_EQ(media.note(), c.said);
    EXPECT_EQ(source->width, c.width);
    EXPECT_EQ(source->height, c.height);
    if (c.frames > 0) {
      EXPECT_EQ(source->frameCount, c.frames);
    }
    if (c.fps > 0) {
      EXPECT_DOUBLE_EQ(source->frameRate, c.fps);
    }
    EXPECT_EQ(source->audioChannels, c.channels);
    EXPECT_EQ(source->audioSampleRate, c.rate);
    EXPECT_EQ(source->audioControl != nullptr, c.rate > 0);
    zylFrameImage image;
    ASSERT_TRUE(SeekToFrame(source, 0));
    ASSERT_TRUE(GrabFrame(source, image));
    EXPECT_EQ(image.width, c.width);
  }
}

// The capture has gaps in its time stamps (68 pictures over 444 frame times at 15 fps): a
// picture repeats until the next one is due, so the count and the seeks agree.
TEST(FfmpegSource, GappedTimeStampsRepeatPicturesAtTheFrameRate) {
  zycFfmpegSource media;
  ASSERT_TRUE(media.Open(zylMediaPath("tree_320x240_15fps_cinepak.avi"))) << media.error();
  zylSource* source = media.source();
  zylFrameImage image;
  ASSERT_TRUE(SeekToFrame(source, 0));
  std::vector<uint32_t> hashes;
  for (int i = 0; i < 20; ++i) {
    ASSERT_TRUE(GrabFrame(source, image));
    hashes.push_back(ImageHash(image));
  }
  // Pictures at time stamps 0, 11 and 17.
  for (int i = 1; i < 11; ++i) EXPECT_EQ(hashes[i], hashes[0]) << "frame " << i;
  EXPECT_NE(hashes[11], hashes[0]);
  for (int i = 12; i < 17; ++i) EXPECT_EQ(hashes[i], hashes[11]) << "frame " << i;
  EXPECT_NE(hashes[17], hashes[11]);
  ASSERT_TRUE(SeekToFrame(source, 14));
  ASSERT_TRUE(GrabFrame(source, image));
  EXPECT_EQ(ImageHash(image), hashes[14]);
}

// Seeks give the pictures and the sound of a sequential decode; the streams' times convert
// between media time (100 ns units) and their own frames or samples, and no other format.
TEST(FfmpegSource, SeeksGiveThePicturesAndSoundOfASequentialDecode) {
  zycFfmpegSource media;
  ASSERT_TRUE(media.Open(zylMediaPath("walkers_speech_384x288_10fps_16k.mkv"))) << media.error();
  zylSource* source = media.source();
  EXPECT_EQ(source->frameCount, 100u);
  ASSERT_EQ(source->audioSampleRate, 16000);
  std::vector<uint32_t> hashes;
  zylFrameImage image;
  ASSERT_TRUE(SeekToFrame(source, 0));
  while (GrabFrame(source, image)) hashes.push_back(ImageHash(image));
  ASSERT_EQ(hashes.size(), 100u);
  int32_t code = -1;
  EXPECT_EQ(source->videoEvent->WaitForCompletion(0, &code), 0);  // the end is reported
  for (uint32_t target : {99u, 0u, 50u, 13u, 14u, 75u, 1u}) {
    ASSERT_TRUE(SeekToFrame(source, target));
    ASSERT_TRUE(GrabFrame(source, image)) << "target " << target;
    EXPECT_EQ(ImageHash(image), hashes[target]) << "target " << target;
    if (target + 1 < hashes.size()) {
      ASSERT_TRUE(GrabFrame(source, image));
      EXPECT_EQ(ImageHash(image), hashes[target + 1]) << "after " << target;
    } else {
      EXPECT_FALSE(GrabFrame(source, image));
    }
  }

  ASSERT_TRUE(SeekToFrame(source, 0));
  std::vector<uint8_t> all(16000 * 2 * 6);
  ReadAudio(source, all.data(), uint32_t(all.size()));
  for (uint32_t frame : {40u, 7u}) {
    ASSERT_TRUE(SeekToFrame(source, frame));
    std::vector<uint8_t> part(3200);
    ReadAudio(source, part.data(), uint32_t(part.size()));
    const size_t start = size_t(frame) * 1600 * 2;
    EXPECT_EQ(0, std::memcmp(part.data(), all.data() + start, part.size())) << "frame " << frame;
  }

  const zylTimeFormat media100ns = zylTimeFormatMediaTime, frames = zylTimeFormatFrame,
                      samples = zylTimeFormatSample;
  const struct {
    zylMediaSeeking* seeking;
    zylTimeFormat from, to;
    int64_t value;
    int32_t result;
    int64_t converted;
  } conversions[] = {
      {source->videoSeeking, frames, media100ns, 25, 0, 25000000},
      {source->videoSeeking, media100ns, frames, 25000000, 0, 25},
      {source->videoSeeking, frames, frames, 7, 0, 7},
      {source->videoSeeking, samples, media100ns, 7, -1, 0},
      {source->audioSeeking, samples, media100ns, 8000, 0, 5000000},
      {source->audioSeeking, media100ns, samples, 5000000, 0, 8000},
      {source->audioSeeking, frames, media100ns, 8000, -1, 0},
  };
  for (const auto& c : conversions) {
    SCOPED_TRACE(testing::Message() << c.from << " to " << c.to << " on "
                                    << (c.seeking == source->videoSeeking ? "video" : "sound"));
    int64_t converted = 0;
    EXPECT_EQ(c.seeking->ConvertTimeFormat(&converted, c.to, c.value, c.from), c.result);
    if (c.result == 0) {
      EXPECT_EQ(converted, c.converted);
    }
  }
}

TEST(FfmpegSource, CloseReleasesStreamsWaitingForGo) {
  zycFfmpegSource media;
  ASSERT_TRUE(media.Open(zylMediaPath("coin_pen_568x320_30fps_sound.mov"))) << media.error();
  zylSource* source = media.source();
  zylFrameImage image;
  ASSERT_TRUE(SeekToFrame(source, 10));
  ASSERT_TRUE(GrabFrame(source, image));
  std::vector<uint8_t> sound(2000);
  ReadAudio(source, sound.data(), 2000);
  // Both streams now wait inside their callbacks; closing must not hang.
  media.Close();
  EXPECT_EQ(media.source()->videoControl, nullptr);
  ASSERT_TRUE(media.Open(zylMediaPath("coin_pen_568x320_30fps_sound.mov")));
  ASSERT_TRUE(SeekToFrame(media.source(), 0));
  EXPECT_TRUE(GrabFrame(media.source(), image));
}

}  // namespace

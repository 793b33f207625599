#include "codec/framePump.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "codec/zycCodec.h"
#include "tests/support/memorySource.h"

namespace {

std::vector<uint8_t> Pixels(const zylFrameImage& image) {
  return std::vector<uint8_t>(image.pixels,
                              image.pixels + size_t(image.width) * size_t(image.height) * 4);
}

std::vector<int16_t> Ramp(size_t samples) {
  std::vector<int16_t> pcm(samples);
  for (size_t i = 0; i < samples; ++i) pcm[i] = int16_t(i * 3 + 1);
  return pcm;
}

TEST(GrabFrame, ConvertsOddWidthsTopRowFirst) {
  for (int32_t width : {5, 7, 13}) {
    std::vector<zycTestPicture> pictures = zycTestPicture::Patterns(width, 3, 2);
    zycMemorySource media(pictures, 25.0);
    zylFrameImage image;
    ASSERT_TRUE(GrabFrame(media.source(), image));
    ASSERT_EQ(image.width, width);
    ASSERT_EQ(image.height, 3);
    EXPECT_EQ(Pixels(image), pictures[0].Bgra()) << "width " << width;
    ASSERT_TRUE(GrabFrame(media.source(), image));
    EXPECT_EQ(Pixels(image), pictures[1].Bgra()) << "width " << width;
  }
}

// A stream that ends answers false with no further sample asked for; one that stalls times out
// and leaves the last picture that came; no video control means no source; an empty picture
// size is true with nothing done.
TEST(GrabFrame, EndsStallsAndMissingPictures) {
  zycMemorySource ends(zycTestPicture::Patterns(4, 4, 2), 25.0);
  zylFrameImage image;
  EXPECT_TRUE(GrabFrame(ends.source(), image));
  EXPECT_TRUE(GrabFrame(ends.source(), image));
  EXPECT_FALSE(GrabFrame(ends.source(), image));
  EXPECT_FALSE(GrabFrame(ends.source(), image));
  EXPECT_EQ(ends.videoDelivered(), 2u);

  std::vector<zycTestPicture> pictures = zycTestPicture::Patterns(4, 2, 4);
  zycMemorySource stalls(pictures, 25.0);
  stalls.StallVideoAt(1);
  ASSERT_TRUE(GrabFrame(stalls.source(), image));
  EXPECT_FALSE(GrabFrame(stalls.source(), image));
  EXPECT_EQ(Pixels(image), pictures[0].Bgra());

  zycMemorySource idle(zycTestPicture::Patterns(4, 4, 1), 25.0);
  zylSource noControl = *idle.source();
  noControl.videoControl = nullptr;
  zylFrameImage none;
  EXPECT_FALSE(GrabFrame(&noControl, none));
  EXPECT_EQ(none.pixels, nullptr);
  EXPECT_EQ(idle.videoRunCount(), 0u);
  zycMemorySource empty({zycTestPicture::Pattern(4, 0, 0)}, 25.0);
  EXPECT_TRUE(GrabFrame(empty.source(), none));
  EXPECT_EQ(none.pixels, nullptr);
}

TEST(SeekToFrame, PositionsVideoAndSoundByTime) {
  zycMemorySource media(zycTestPicture::Patterns(4, 2, 8), 30.0, Ramp(16000), 1, 16000);
  ASSERT_TRUE(SeekToFrame(media.source(), 3));
  // 3 / 30 s in 100 ns units; sound 3 / 30 * 16000 = 1600 samples, a multiple of 4 already.
  EXPECT_EQ(media.videoSeeks(), std::vector<int64_t>{1000000});
  EXPECT_EQ(media.audioSeeks(), std::vector<int64_t>{1600});
  ASSERT_TRUE(SeekToFrame(media.source(), 1));
  // 533.33 samples: truncated to 533, rounded up to 536.
  EXPECT_EQ(media.videoSeeks().back(), 333333);
  EXPECT_EQ(media.audioSeeks().back(), 536);
  zylFrameImage image;
  ASSERT_TRUE(GrabFrame(media.source(), image));
  EXPECT_EQ(Pixels(image), zycTestPicture::Pattern(4, 2, 1).Bgra());
}

// The grabber timeout is put back; without sound only the video moves; a stream that can't
// seek answers false.
TEST(SeekToFrame, TimeoutSoundlessAndUnseekableStreams) {
  zycMemorySource media(zycTestPicture::Patterns(4, 2, 4), 25.0, Ramp(8000), 1, 16000);
  media.source()->grabberTimeout = 1000;
  media.source()->audioSampleRate = 0;
  EXPECT_TRUE(SeekToFrame(media.source(), 2));
  EXPECT_EQ(media.source()->grabberTimeout, 1000u);
  EXPECT_EQ(media.videoSeeks().size(), 1u);
  EXPECT_TRUE(media.audioSeeks().empty());

  zycMemorySource fixed(zycTestPicture::Patterns(4, 2, 4), 25.0, Ramp(8000), 1, 16000);
  fixed.SetSeekable(false, true);
  EXPECT_FALSE(SeekToFrame(fixed.source(), 2));
  EXPECT_TRUE(fixed.videoSeeks().empty());
  fixed.SetSeekable(true, false);
  EXPECT_FALSE(SeekToFrame(fixed.source(), 2));
  EXPECT_EQ(fixed.videoSeeks().size(), 1u);
  EXPECT_TRUE(fixed.audioSeeks().empty());
}

// The sound in order and then zeros once it ends: the job test SoundThatEndsIsFilledWithZeros
// reads it through the codec's supplier.
TEST(ReadAudio, KeepsWhatIsLeftForTheNextRead) {
  std::vector<int16_t> pcm = Ramp(4000);
  zycMemorySource media(zycTestPicture::Patterns(4, 2, 1), 25.0, pcm, 2, 16000,
                        1000);  // chunks of 4000 bytes
  std::vector<int16_t> buffer(300);
  ASSERT_TRUE(ReadAudio(media.source(), reinterpret_cast<uint8_t*>(buffer.data()), 600));
  EXPECT_EQ(buffer, std::vector<int16_t>(pcm.begin(), pcm.begin() + 300));
  EXPECT_EQ(media.source()->audioGrabber->fill, 4000 - 600);
  ASSERT_TRUE(ReadAudio(media.source(), reinterpret_cast<uint8_t*>(buffer.data()), 600));
  EXPECT_EQ(buffer, std::vector<int16_t>(pcm.begin() + 300, pcm.begin() + 600));
}

TEST(ReadAudio, NoAudioControlLeavesTheBufferAlone) {
  zycMemorySource media(zycTestPicture::Patterns(4, 2, 1), 25.0);
  std::vector<uint8_t> buffer(16, 0x5A);
  EXPECT_FALSE(ReadAudio(media.source(), buffer.data(), 16));
  EXPECT_EQ(buffer, std::vector<uint8_t>(16, 0x5A));
}

// The sample callback of a host's video stream waits for "go" no longer than the grabber
// timeout, and then takes the sample anyway. (Its row padding is dropped on every grab above:
// the memory source delivers through it, and the host's source tests read its sound callback
// across uneven reads.)
TEST(VideoGrabber, WaitsNoLongerThanTheTimeoutForGo) {
  zylSource source;
  zylVideoGrabber video;
  zylEvent go, done;
  source.width = 2;
  source.height = 1;
  source.videoGoEvent = &go;
  source.grabberTimeout = 5;
  video.source = &source;
  video.doneEvent = &done;
  const uint8_t sample[8] = {0, 1, 2, 3, 4, 5, 0xEE, 0xEE};  // one row, padded to 8 bytes
  EXPECT_EQ(video.BufferCB(0.0, sample, 8), 0);
  EXPECT_EQ(done.Wait(0), zylWaitObject0);
  EXPECT_EQ(std::vector<uint8_t>(video.data, video.data + 6),
            std::vector<uint8_t>(sample, sample + 6));
}

}  // namespace

// The sample callbacks the host's streams call: they run on the stream's thread in real use;
// here "go" is set beforehand so that they return at once. The video callback's row padding is
// dropped on every grab of the frame pump tests, whose memory source delivers through it.
#include <gtest/gtest.h>

#include <vector>

#include "codec/zylCodec.h"

namespace {

struct Grabbers {
  zylSource source;
  zylVideoGrabber video;
  zylAudioGrabber audio;
  zylEvent videoGo, videoDone, audioGo, audioDone;

  Grabbers(int32_t width, int32_t height) {
    source.width = width;
    source.height = height;
    source.videoGoEvent = &videoGo;
    source.audioGoEvent = &audioGo;
    video.source = &source;
    video.doneEvent = &videoDone;
    audio.source = &source;
    audio.doneEvent = &audioDone;
  }
};

// A sample of `height` rows at the padded pitch; byte i of row r is r * 16 + i, padding 0xEE.
std::vector<uint8_t> PaddedSample(int32_t width, int32_t height) {
  const int32_t pitch = ((width + 1) * 3) & ~3;
  std::vector<uint8_t> sample(size_t(pitch) * height, 0xEE);
  for (int32_t r = 0; r < height; ++r) {
    for (int32_t i = 0; i < width * 3; ++i) sample[size_t(r) * pitch + i] = uint8_t(r * 16 + i);
  }
  return sample;
}

TEST(VideoGrabber, WaitsNoLongerThanTheTimeoutForGo) {
  Grabbers g(2, 1);
  g.source.grabberTimeout = 5;
  std::vector<uint8_t> sample = PaddedSample(2, 1);
  // Nobody sets "go": the callback gives up waiting and takes the sample anyway.
  EXPECT_EQ(g.video.BufferCB(0.0, sample.data(), int32_t(sample.size())), 0);
  EXPECT_EQ(g.videoDone.Wait(0), zylWaitObject0);
  EXPECT_EQ(g.video.data[5], uint8_t(5));
}

TEST(AudioGrabber, AppendsBehindTheFillAndKeepsOldBytes) {
  Grabbers g(0, 0);
  const uint8_t a[] = {1, 2, 3, 4};
  const uint8_t b[] = {5, 6, 7, 8, 9, 10};
  g.audioGo.Set();
  g.audio.BufferCB(0.0, a, 4);
  EXPECT_EQ(g.audioDone.Wait(0), zylWaitObject0);
  EXPECT_EQ(g.audio.fill, 4);
  EXPECT_EQ(g.audio.capacity, 4);
  g.audioGo.Set();
  g.audio.BufferCB(0.0, b, 6);
  EXPECT_EQ(g.audio.fill, 10);
  EXPECT_EQ(g.audio.capacity, 10);
  for (int i = 0; i < 10; ++i) EXPECT_EQ(g.audio.data[i], uint8_t(i + 1));
  // Taken by the pump: the next sample lands at the start without growing the buffer.
  g.audio.fill = 0;
  g.audioGo.Set();
  g.audio.BufferCB(0.0, a, 4);
  EXPECT_EQ(g.audio.fill, 4);
  EXPECT_EQ(g.audio.capacity, 10);
}

}  // namespace

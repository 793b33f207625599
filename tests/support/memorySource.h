// A media source in memory behind zylSource, for tests.
//
// It behaves like a host's pair of streams: each stream runs a real streaming thread that calls
// the library's grabber callbacks (which block on the "go" events as with a real graph). Video
// is delivered as packed 24-bit pictures, bottom row first, rows padded to 4 bytes; sound as
// interleaved 16-bit PCM in fixed chunks. A seek flushes the stream: a sample in flight is let
// through and dropped, and the stream restarts at the new position when it is run again. So
// the first picture grabbed after a seek is the one at the seek position.
//
//   zycMemorySource media({picture0, picture1}, 25.0);
//   codec->Encode(media.source(), 0, u"out.zyl");
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "codec/zylCodec.h"

// One picture: packed B, G, R bytes, rows top first, no padding.
struct zycTestPicture {
  int32_t width = 0;
  int32_t height = 0;
  std::vector<uint8_t> bgr;

  // A picture whose pixel (x, y) is (x + 7 * y + 31 * seed, 3 * x + y + seed, x ^ y ^ seed) mod 256:
  // every pixel and every picture differ.
  static zycTestPicture Pattern(int32_t width, int32_t height, int32_t seed);
  // `count` patterns of seeds 0, 1, 2...
  static std::vector<zycTestPicture> Patterns(int32_t width, int32_t height, int count);
  // The 32-bit B, G, R, 255 picture that the frame pump makes of this one.
  std::vector<uint8_t> Bgra() const;
};

class zycMemoryStream;

class zycMemorySource {
 public:
  // Pictures at `frameRate`; optional interleaved PCM with `channels` channels at `sampleRate`
  // (0: no sound), handed out in chunks of `chunkSamples` samples per channel.
  zycMemorySource(std::vector<zycTestPicture> pictures, double frameRate,
                  std::vector<int16_t> pcm = {}, int32_t channels = 0, int32_t sampleRate = 0,
                  uint32_t chunkSamples = 1000);
  ~zycMemorySource();
  zycMemorySource(const zycMemorySource&) = delete;
  zycMemorySource& operator=(const zycMemorySource&) = delete;

  zylSource* source() { return &source_; }

  // The video stream stops delivering (without ending) from this picture on.
  void StallVideoAt(uint32_t frame);
  // The streams answer the null time format: they can't seek.
  void SetSeekable(bool video, bool audio);

  // What the library asked of the streams.
  uint32_t videoRunCount() const;
  std::vector<int64_t> videoSeeks() const;  // positions in 100 ns units
  std::vector<int64_t> audioSeeks() const;  // positions in samples
  uint32_t videoDelivered() const;          // pictures handed to the grabber callback

 private:
  zylSource source_;
  zylVideoGrabber videoGrabber_;
  zylAudioGrabber audioGrabber_;
  zylEvent videoGo_, videoDone_, audioGo_, audioDone_;
  std::vector<zycTestPicture> pictures_;
  std::vector<std::vector<uint8_t>> samples_;  // pictures as the stream delivers them
  std::vector<int16_t> pcm_;
  std::unique_ptr<zycMemoryStream> video_;
  std::unique_ptr<zycMemoryStream> audio_;
};

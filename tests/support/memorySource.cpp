#include "tests/support/memorySource.h"

#include <cmath>
#include <cstring>
#include <functional>

zycTestPicture zycTestPicture::Pattern(int32_t width, int32_t height, int32_t seed) {
  zycTestPicture picture;
  picture.width = width;
  picture.height = height;
  picture.bgr.resize(size_t(width) * size_t(height) * 3);
  for (int32_t y = 0; y < height; ++y) {
    for (int32_t x = 0; x < width; ++x) {
      uint8_t* p = &picture.bgr[(size_t(y) * size_t(width) + size_t(x)) * 3];
      p[0] = uint8_t(x + 7 * y + 31 * seed);
      p[1] = uint8_t(3 * x + y + seed);
      p[2] = uint8_t(x ^ y ^ seed);
    }
  }
  return picture;
}

std::vector<zycTestPicture> zycTestPicture::Patterns(int32_t width, int32_t height, int count) {
  std::vector<zycTestPicture> pictures;
  for (int i = 0; i < count; ++i) pictures.push_back(Pattern(width, height, i));
  return pictures;
}

std::vector<uint8_t> zycTestPicture::Bgra() const {
  std::vector<uint8_t> out;
  for (size_t i = 0; i < bgr.size(); i += 3)
    out.insert(out.end(), {bgr[i], bgr[i + 1], bgr[i + 2], 255});
  return out;
}

// One stream: a position counted in units (pictures or samples), a streaming thread that hands
// out one sample at a time through `deliver`, and the three media interfaces.
class zycMemoryStream : public zylMediaControl, public zylMediaEvent, public zylMediaSeeking {
 public:
  zycMemoryStream(uint64_t unitCount, uint64_t step, zylTimeFormat format, double unitsPerSecond,
                  zylEvent* go, zylEvent* done, std::function<void(uint64_t)> deliver)
      : unitCount_(unitCount),
        step_(step),
        format_(format),
        unitsPerSecond_(unitsPerSecond),
        go_(go),
        done_(done),
        deliver_(std::move(deliver)) {
    thread_ = std::thread([this] { Loop(); });
  }

  ~zycMemoryStream() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
      cond_.notify_all();
    }
    // A callback waiting without limit for "go" is let through.
    for (;;) {
      {
        std::lock_guard<std::mutex> lock(mutex_);
        if (finished_) break;
      }
      go_->Set();
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    thread_.join();
  }

  int32_t Run() override {
    std::lock_guard<std::mutex> lock(mutex_);
    ++runCount_;
    running_ = true;
    cond_.notify_all();
    return 0;
  }

  int32_t WaitForCompletion(uint32_t, int32_t* eventCode) override {
    std::unique_lock<std::mutex> lock(mutex_);
    // The last sample's callback may have set "done" without the thread having counted it yet.
    if (inCallback_ && inFlight_ + step_ >= unitCount_) {
      cond_.wait_for(lock, std::chrono::milliseconds(20), [this] { return !inCallback_; });
    }
    const bool ended = position_ >= unitCount_ && !inCallback_;
    if (eventCode) *eventCode = ended ? 1 : 0;
    return ended ? 0 : 1;
  }

  int32_t GetTimeFormat(zylTimeFormat* format) override {
    std::lock_guard<std::mutex> lock(mutex_);
    *format = seekable_ ? format_ : zylTimeFormatNone;
    return 0;
  }

  int32_t SetPositions(int64_t position) override {
    uint64_t unit = 0;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      seeks_.push_back(position);
      if (!seekable_) return 1;
      unit = ToUnits(position, format_);
    }
    Flush(unit);
    return 0;
  }

  int32_t ConvertTimeFormat(int64_t* target, zylTimeFormat targetFormat, int64_t source,
                            zylTimeFormat sourceFormat) override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!seekable_) return 1;
    double seconds = sourceFormat == zylTimeFormatMediaTime ? source / 10000000.0
                                                            : source / unitsPerSecond_;
    *target = targetFormat == zylTimeFormatMediaTime ? std::llround(seconds * 10000000.0)
                                                     : std::llround(seconds * unitsPerSecond_);
    return 0;
  }

  void StallAt(uint64_t unit) {
    std::lock_guard<std::mutex> lock(mutex_);
    stallAt_ = unit;
  }
  void SetSeekable(bool seekable) {
    std::lock_guard<std::mutex> lock(mutex_);
    seekable_ = seekable;
  }
  uint32_t runCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return runCount_;
  }
  std::vector<int64_t> seeks() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return seeks_;
  }
  uint32_t delivered() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return delivered_;
  }

 private:
  uint64_t ToUnits(int64_t position, zylTimeFormat format) const {
    if (position <= 0) return 0;
    if (format == zylTimeFormatMediaTime) {
      return uint64_t(std::llround(double(position) * unitsPerSecond_ / 10000000.0));
    }
    return uint64_t(position);
  }

  // A seek: the sample in flight is let through, its "done" and any unused "go" are dropped, and
  // the stream goes on from `unit` at its next Run.
  void Flush(uint64_t unit) {
    std::unique_lock<std::mutex> lock(mutex_);
    ++generation_;
    position_ = unit;
    flushing_ = true;
    running_ = false;
    if (inCallback_) {
      lock.unlock();
      go_->Set();
      lock.lock();
      cond_.wait(lock, [this] { return !inCallback_; });
    }
    done_->Wait(0);
    go_->Wait(0);
    flushing_ = false;
    cond_.notify_all();
  }

  void Loop() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
      cond_.wait(lock, [this] {
        return stop_ || (running_ && !flushing_ && position_ < unitCount_ && position_ < stallAt_);
      });
      if (stop_) break;
      const uint64_t unit = position_;
      const uint64_t generation = generation_;
      inCallback_ = true;
      inFlight_ = unit;
      lock.unlock();
      deliver_(unit);
      lock.lock();
      inCallback_ = false;
      ++delivered_;
      if (generation == generation_) position_ = unit + step_;
      cond_.notify_all();
    }
    finished_ = true;
  }

  const uint64_t unitCount_;
  const uint64_t step_;
  const zylTimeFormat format_;
  const double unitsPerSecond_;
  zylEvent* const go_;
  zylEvent* const done_;
  const std::function<void(uint64_t)> deliver_;

  mutable std::mutex mutex_;
  std::condition_variable cond_;
  uint64_t position_ = 0;
  uint64_t inFlight_ = 0;
  uint64_t generation_ = 0;
  uint64_t stallAt_ = UINT64_MAX;
  bool running_ = false;
  bool inCallback_ = false;
  bool flushing_ = false;
  bool stop_ = false;
  bool finished_ = false;
  bool seekable_ = true;
  uint32_t runCount_ = 0;
  uint32_t delivered_ = 0;
  std::vector<int64_t> seeks_;
  std::thread thread_;
};

zycMemorySource::zycMemorySource(std::vector<zycTestPicture> pictures, double frameRate,
                                 std::vector<int16_t> pcm, int32_t channels, int32_t sampleRate,
                                 uint32_t chunkSamples)
    : pictures_(std::move(pictures)), pcm_(std::move(pcm)) {
  // The pictures as a stream hands them out: bottom row first, rows padded to 4 bytes.
  for (const zycTestPicture& picture : pictures_) {
    const size_t rowBytes = size_t(picture.width) * 3;
    const size_t pitch = (size_t(picture.width + 1) * 3) & ~size_t(3);
    std::vector<uint8_t> sample(pitch * size_t(picture.height), 0xCD);
    for (int32_t y = 0; y < picture.height; ++y) {
      std::memcpy(&sample[size_t(picture.height - 1 - y) * pitch],
                  &picture.bgr[size_t(y) * rowBytes], rowBytes);
    }
    samples_.push_back(std::move(sample));
  }

  source_.frameRate = frameRate;
  source_.frameCount = uint32_t(pictures_.size());
  source_.width = pictures_.empty() ? 0 : pictures_[0].width;
  source_.height = pictures_.empty() ? 0 : pictures_[0].height;
  source_.audioChannels = channels;
  source_.audioSampleRate = sampleRate;
  source_.videoGrabber = &videoGrabber_;
  source_.videoGoEvent = &videoGo_;
  source_.audioGoEvent = &audioGo_;
  videoGrabber_.source = &source_;
  videoGrabber_.doneEvent = &videoDone_;

  video_ = std::make_unique<zycMemoryStream>(
      pictures_.size(), 1, zylTimeFormatMediaTime, frameRate, &videoGo_, &videoDone_,
      [this](uint64_t frame) {
        const zycTestPicture& picture = pictures_[frame];
        const std::vector<uint8_t>& sample = samples_[frame];
        if (picture.width != source_.width || picture.height != source_.height) {
          // A new picture size is told only once the pump has let the sample through, when it
          // is done with the previous picture.
          videoGo_.Wait(source_.grabberTimeout ? source_.grabberTimeout : zylInfinite);
          source_.width = picture.width;
          source_.height = picture.height;
          videoGo_.Set();
        }
        videoGrabber_.BufferCB(double(frame) / source_.frameRate, sample.data(),
                               int32_t(sample.size()));
      });
  source_.videoControl = video_.get();
  source_.videoEvent = video_.get();
  source_.videoSeeking = video_.get();

  if (sampleRate > 0 && channels > 0) {
    const uint64_t totalSamples = pcm_.size() / size_t(channels);
    audioGrabber_.source = &source_;
    audioGrabber_.doneEvent = &audioDone_;
    source_.audioGrabber = &audioGrabber_;
    audio_ = std::make_unique<zycMemoryStream>(
        totalSamples, chunkSamples, zylTimeFormatSample, double(sampleRate), &audioGo_,
        &audioDone_, [this, channels, totalSamples, chunkSamples, sampleRate](uint64_t sample) {
          const uint64_t count =
              sample + chunkSamples <= totalSamples ? chunkSamples : totalSamples - sample;
          audioGrabber_.BufferCB(double(sample) / sampleRate,
                                 reinterpret_cast<const uint8_t*>(&pcm_[sample * channels]),
                                 int32_t(count * channels * 2));
        });
    source_.audioControl = audio_.get();
    source_.audioEvent = audio_.get();
    source_.audioSeeking = audio_.get();
  }
}

zycMemorySource::~zycMemorySource() {
  // The threads stop before the events and grabbers they use go away.
  video_.reset();
  audio_.reset();
}

void zycMemorySource::StallVideoAt(uint32_t frame) { video_->StallAt(frame); }

void zycMemorySource::SetSeekable(bool video, bool audio) {
  video_->SetSeekable(video);
  if (audio_) audio_->SetSeekable(audio);
}

uint32_t zycMemorySource::videoRunCount() const { return video_->runCount(); }
std::vector<int64_t> zycMemorySource::videoSeeks() const { return video_->seeks(); }
std::vector<int64_t> zycMemorySource::audioSeeks() const {
  return audio_ ? audio_->seeks() : std::vector<int64_t>();
}
uint32_t zycMemorySource::videoDelivered() const { return video_->delivered(); }

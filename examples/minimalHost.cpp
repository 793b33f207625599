// A minimal host of the zyl library: it makes a codec, sets two parameters and encodes a
// generated picture (a gradient that drifts to the right) into a movie. It uses nothing but
// the installed header <zyl/zylCodec.h> and the library.
//
// The source side shows what any host has to provide: a stream that delivers one picture at a
// time from its own thread through the grabber's BufferCB, which waits for the "go" event the
// library sets; a seek that makes the picture at the new position the next one delivered; and
// WaitForCompletion answering 0 once the last picture has gone out.
//
//   build:  cmake -S examples -B build-example -DCMAKE_PREFIX_PATH=<install prefix>
//           cmake --build build-example
//   run:    build-example/minimalHost out.zyl
#include <zyl/zylCodec.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int kWidth = 96;
constexpr int kHeight = 64;
constexpr uint32_t kFrames = 12;
constexpr double kRate = 25.0;

// A generated picture stream behind the three media interfaces.
class GradientStream : public zylMediaControl, public zylMediaEvent, public zylMediaSeeking {
 public:
  GradientStream(zylSource* source, zylVideoGrabber* grabber, zylEvent* go, zylEvent* done)
      : source_(source), grabber_(grabber), go_(go), done_(done) {}

  ~GradientStream() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      quit_ = true;
      if (inCallback_) go_->Set();  // let a waiting callback go so that the thread can end
    }
    cond_.notify_all();
    if (thread_.joinable()) thread_.join();
  }

  int32_t Run() override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!thread_.joinable()) thread_ = std::thread([this] { Loop(); });
    return 0;
  }

  int32_t WaitForCompletion(uint32_t, int32_t*) override {
    std::unique_lock<std::mutex> lock(mutex_);
    // The library asks here before every "go"; the callback that answers the n-th go is the
    // n-th one entered. Wait for it (a callback still returning from the previous picture is
    // not it), or for the end.
    const uint64_t want = asks_ + 1;
    cond_.wait(lock, [this, want] { return quit_ || entered_ >= want || next_ >= kFrames; });
    if (entered_ < want && next_ >= kFrames) return 0;  // no picture left
    asks_ = want;
    return 1;
  }

  int32_t GetTimeFormat(zylTimeFormat* format) override {
    *format = zylTimeFormatMediaTime;
    return 0;
  }

  int32_t SetPositions(int64_t time) override {
    std::unique_lock<std::mutex> lock(mutex_);
    next_ = uint32_t(double(time) / 10000000.0 * kRate + 0.5);
    ++generation_;
    seeking_ = true;  // holds the thread out of the callback until the events are clean
    if (inCallback_) {
      // The waiting picture is from before the seek: release it and take back its "done".
      lock.unlock();
      go_->Set();
      lock.lock();
      cond_.wait(lock, [this] { return !inCallback_; });
    }
    done_->Wait(0);
    go_->Wait(0);
    asks_ = entered_;
    afterSeek_ = true;
    seeking_ = false;
    cond_.notify_all();
    return 0;
  }

  int32_t ConvertTimeFormat(int64_t* target, zylTimeFormat, int64_t value,
                            zylTimeFormat) override {
    *target = value;
    return 0;
  }

 private:
  // The library writes the limit from its own thread.
  uint32_t TimeLimit() const { return std::atomic_ref<uint32_t>(source_->grabberTimeout).load(); }

  void Loop() {
    const int pitch = (kWidth * 3 + 3) & ~3;
    std::vector<uint8_t> picture(size_t(pitch) * kHeight);
    std::unique_lock<std::mutex> lock(mutex_);
    while (!quit_) {
      if (seeking_) {
        cond_.wait(lock, [this] { return quit_ || !seeking_; });
        continue;
      }
      if (next_ >= kFrames) {
        cond_.notify_all();
        cond_.wait(lock, [this] { return quit_ || next_ < kFrames; });
        continue;
      }
      const uint32_t frame = next_;
      const uint64_t generation = generation_;
      lock.unlock();
      // 24-bit B, G, R rows, bottom row first, each padded to 4 bytes.
      for (int y = 0; y < kHeight; ++y) {
        uint8_t* row = picture.data() + size_t(kHeight - 1 - y) * pitch;
        for (int x = 0; x < kWidth; ++x) {
          row[x * 3 + 0] = uint8_t(y * 4);
          row[x * 3 + 1] = uint8_t(128);
          row[x * 3 + 2] = uint8_t((x + frame * 4) * 2);
        }
      }
      lock.lock();
      if (generation != generation_ || seeking_ || quit_) continue;  // a seek came meanwhile
      // The library raises the callback's time limit while it seeks; the first picture after a
      // seek must not enter the callback before the limit is back to 0, or it would go out
      // unasked.
      for (int i = 0; afterSeek_ && TimeLimit() != 0 && i < 100; ++i) {
        cond_.wait_for(lock, std::chrono::milliseconds(1));
      }
      if (generation != generation_ || seeking_ || quit_) continue;
      next_ = frame + 1;
      inCallback_ = true;
      ++entered_;
      cond_.notify_all();
      lock.unlock();
      grabber_->BufferCB(frame / kRate, picture.data(), int32_t(picture.size()));
      lock.lock();
      inCallback_ = false;
      afterSeek_ = false;
      cond_.notify_all();
    }
  }

  zylSource* source_;
  zylVideoGrabber* grabber_;
  zylEvent* go_;
  zylEvent* done_;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable cond_;
  uint32_t next_ = 0;
  uint64_t generation_ = 0;
  uint64_t entered_ = 0;  // callbacks entered
  uint64_t asks_ = 0;     // WaitForCompletion answers that a go followed
  bool afterSeek_ = false;
  bool seeking_ = false;
  bool inCallback_ = false;
  bool quit_ = false;
};

int32_t Progress(zylProgress* progress, uint32_t) {
  std::fprintf(stderr, "frame %u: %d bytes%s\n", progress->frameIndex, progress->size,
               progress->keyFrame ? " (key frame)" : "");
  return 1;  // 0 would stop the job here
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: minimalHost OUTPUT.zyl\n");
    return 1;
  }
  zylSource source;
  zylVideoGrabber grabber;
  zylAudioGrabber noSound;
  zylEvent go, done, audioGo;
  source.frameRate = kRate;
  source.frameCount = kFrames;
  source.width = kWidth;
  source.height = kHeight;
  source.videoGoEvent = &go;
  source.audioGoEvent = &audioGo;
  source.audioGrabber = &noSound;
  grabber.source = &source;
  grabber.doneEvent = &done;
  source.videoGrabber = &grabber;
  GradientStream stream(&source, &grabber, &go, &done);
  source.videoControl = &stream;
  source.videoEvent = &stream;
  source.videoSeeking = &stream;

  zylCodec* codec = zylInitCodec(Progress, 0);
  if (!codec) return 3;
  codec->SetCodecMode(0);                     // ZYL0
  codec->SetParam(zylTag('R', 'A', 'T', 'I'), 30);  // a thirtieth of the raw size
  codec->SetParam(zylTag('w', 'F', 'M', 'T'), 0);   // no console messages

  std::u16string name;
  for (const char* c = argv[1]; *c; ++c) name += char16_t(uint8_t(*c));  // ASCII names
  const int32_t status = codec->Encode(&source, 0, name.c_str(), 0, 0, nullptr, nullptr);
  codec->Destroy();
  std::fprintf(stderr, "status %d\n", status);
  return status == 0 ? 0 : 3;
}

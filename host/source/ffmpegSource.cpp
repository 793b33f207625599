// The FFmpeg media source: demuxing, decoding, conversion and the two streaming threads.
#include "host/source/ffmpegSource.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavfilter/avfilter.h>
#include <libavfilter/buffersink.h>
#include <libavfilter/buffersrc.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/display.h>
#include <libavutil/imgutils.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

namespace {

constexpr double kMediaTimeUnits = 10000000.0;  // 100 ns units per second
constexpr double kSoundPreroll = 0.1;           // seconds decoded ahead of a sound seek target
// How long WaitForCompletion lets a stream settle (a sample ready, or its end) before it
// answers "still running".
constexpr auto kSettleLimit = std::chrono::seconds(20);

// Converts a position between media time (100 ns units) and a stream's own unit, of which
// there are `unitsPerSecond` a second. 0 on success, -1 for formats the stream doesn't speak.
int32_t ConvertStreamTime(int64_t* target, zylTimeFormat targetFormat, int64_t value,
                          zylTimeFormat sourceFormat, zylTimeFormat ownFormat,
                          double unitsPerSecond) {
  if (sourceFormat == targetFormat) {
    *target = value;
    return 0;
  }
  if (sourceFormat == zylTimeFormatMediaTime && targetFormat == ownFormat) {
    *target = llround(double(value) * unitsPerSecond / kMediaTimeUnits);
    return 0;
  }
  if (sourceFormat == ownFormat && targetFormat == zylTimeFormatMediaTime) {
    *target = int64_t(double(value) * kMediaTimeUnits / unitsPerSecond);
    return 0;
  }
  return -1;
}

std::string AvErrorText(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(code, text, sizeof(text));
  return text;
}

// One demuxer and decoder for one stream of the file; the file's other streams are discarded.
class StreamReader {
 public:
  ~StreamReader() { Close(); }

  // Opens the best stream of `type`. Errors: 1 no input, 2 no such stream, 3 no decoder.
  int Open(const std::string& path, AVMediaType type, std::string* detail) {
    Close();
    path_ = path;
    type_ = type;
    int result = avformat_open_input(&format_, path.c_str(), nullptr, nullptr);
    if (result < 0) {
      *detail = AvErrorText(result);
      format_ = nullptr;
      return 1;
    }
    result = avformat_find_stream_info(format_, nullptr);
    if (result < 0) {
      *detail = AvErrorText(result);
      return 1;
    }
    const AVCodec* decoder = nullptr;
    index_ = av_find_best_stream(format_, type, -1, -1, &decoder, 0);
    if (index_ == AVERROR_STREAM_NOT_FOUND) return 2;
    if (index_ < 0 || !decoder) {
      if (index_ >= 0) {
        *detail = avcodec_get_name(format_->streams[index_]->codecpar->codec_id);
      }
      return 3;
    }
    for (unsigned i = 0; i < format_->nb_streams; ++i) {
      format_->streams[i]->discard = int(i) == index_ ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    }
    codec_ = avcodec_alloc_context3(decoder);
    if (!codec_ || avcodec_parameters_to_context(codec_, stream()->codecpar) < 0) return 3;
    codec_->thread_count = 0;
    if (avcodec_open2(codec_, decoder, nullptr) < 0) {
      *detail = decoder->name;
      return 3;
    }
    packet_ = av_packet_alloc();
    frame_ = av_frame_alloc();
    return packet_ && frame_ ? 0 : 3;
  }

  // Opens the same file and stream again, at its start.
  bool Reopen() {
    std::string detail;
    return Open(std::string(path_), type_, &detail) == 0;
  }

  void Close() {
    av_frame_free(&frame_);
    av_packet_free(&packet_);
    avcodec_free_context(&codec_);
    if (format_) avformat_close_input(&format_);
    format_ = nullptr;
    draining_ = false;
  }

  // Decodes the next frame into frame(). False at the end of the stream or on a read error.
  bool Receive() {
    for (;;) {
      const int result = avcodec_receive_frame(codec_, frame_);
      if (result == 0) return true;
      if (result != AVERROR(EAGAIN)) return false;
      if (draining_) return false;
      if (av_read_frame(format_, packet_) < 0) {
        avcodec_send_packet(codec_, nullptr);
        draining_ = true;
        continue;
      }
      if (packet_->stream_index == index_) {
        // A packet the decoder refuses is skipped; the next key frame brings it back.
        avcodec_send_packet(codec_, packet_);
      }
      av_packet_unref(packet_);
    }
  }

  // Positions the demuxer on the key frame at or before `timestamp` (stream time base).
  bool SeekBefore(int64_t timestamp) {
    if (av_seek_frame(format_, index_, timestamp, AVSEEK_FLAG_BACKWARD) < 0) return false;
    avcodec_flush_buffers(codec_);
    draining_ = false;
    return true;
  }

  AVFormatContext* format() const { return format_; }
  AVCodecContext* codec() const { return codec_; }
  AVStream* stream() const { return format_->streams[index_]; }
  AVFrame* frame() const { return frame_; }
  double timeBase() const { return av_q2d(stream()->time_base); }

 private:
  std::string path_;
  AVMediaType type_ = AVMEDIA_TYPE_UNKNOWN;
  AVFormatContext* format_ = nullptr;
  AVCodecContext* codec_ = nullptr;
  AVPacket* packet_ = nullptr;
  AVFrame* frame_ = nullptr;
  int index_ = -1;
  bool draining_ = false;
};

// The thread and the handshake shared by both streams. The streaming thread prepares one sample
// ahead, then calls the grabber, which waits for the stream's "go" event. A seek sets a pending
// target; the thread takes it before it hands over any further sample.
class StreamThread : public zylMediaControl, public zylMediaEvent, public zylMediaSeeking {
 public:
  virtual ~StreamThread() = default;

  void Attach(zylSource* source, zylSampleGrabberCB* grabber, zylEvent* go, zylEvent* done) {
    source_ = source;
    grabber_ = grabber;
    go_ = go;
    done_ = done;
  }

  int32_t Run() override {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!started_) {
      started_ = true;
      thread_ = std::thread([this] { Loop(); });
    }
    return 0;
  }

  int32_t WaitForCompletion(uint32_t, int32_t* eventCode) override {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!started_) return 1;
    if (countsAsks_) {
      // Pictures: the pump asks here before every "go", and the callback that answers the
      // n-th such go is the n-th one entered. A callback that is still returning from the
      // previous sample is not an answer: wait for the next one to be entered, or the end.
      const uint64_t want = asks_ + 1;
      cond_.wait_for(lock, kSettleLimit, [this, want] {
        return quit_ || entered_ >= want || (ended_ && !seekPending_) ||
               (seekPending_ && !seekArmed_);
      });
      if (entered_ < want && ended_ && !seekPending_) {
        if (eventCode) *eventCode = 1;  // the stream completed
        return 0;
      }
      asks_ = want;
      return 1;
    }
    // Sound: the pump asks after each round of "go" and then reads the grabber's buffer, so no
    // callback may still be appending, nor one be let through later by a go that is still
    // pending. The thread takes its go under the lock (see Loop), which makes both checkable.
    auto settled = [this] {
      return quit_ || (ended_ && !seekPending_) || (ready_ && !inCallback_) ||
             (seekPending_ && !seekArmed_);
    };
    cond_.wait_for(lock, kSettleLimit, settled);
    if (!quit_ && ready_ && !inCallback_ && go_->Wait(0) == zylWaitObject0) {
      // A go is still pending: hand it to the thread and wait for its sample to be in.
      const uint64_t before = entered_;
      go_->Set();
      cond_.wait_for(lock, kSettleLimit, [this, before] {
        return quit_ || seekPending_ || (ended_ && !inCallback_) ||
               (entered_ > before && !inCallback_);
      });
    }
    if (ended_ && !inCallback_ && !seekPending_) {
      if (eventCode) *eventCode = 1;
      return 0;
    }
    return 1;
  }

  int32_t SetPositions(int64_t position) override {
    std::unique_lock<std::mutex> lock(mutex_);
    seekTarget_ = position;
    seekPending_ = true;
    seekArmed_ = false;
    if (started_) {
      // A callback holding a sample from before the seek is let go, and what it signalled is
      // taken back, so that the next "go" meets the sample at the new position.
      if (inCallback_) {
        lock.unlock();
        go_->Set();
        lock.lock();
        cond_.wait(lock, [this] { return !inCallback_; });
      }
      done_->Wait(0);
      go_->Wait(0);
    }
    SeekRequested();
    asks_ = entered_;  // every callback so far has had its go
    seekArmed_ = true;
    cond_.notify_all();
    return 0;
  }

  // Stops the thread; a callback that waits for "go" is released.
  void Stop() {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      quit_ = true;
      cond_.notify_all();
      if (inCallback_) go_->Set();
    }
    if (thread_.joinable()) thread_.join();
    std::lock_guard<std::mutex> lock(mutex_);
    started_ = false;
    quit_ = false;
    ready_ = false;
    inCallback_ = false;
    ended_ = false;
    entered_ = 0;
    asks_ = 0;
  }

 protected:
  // On the streaming thread: positions the stream so that the next sample is the one at
  // `target` (in the stream's time format).
  virtual void Seek(int64_t target) = 0;
  // On the streaming thread: makes the next sample ready. False at the end.
  virtual bool Prepare() = 0;
  // On the streaming thread: the ready sample.
  virtual const uint8_t* SampleData() const = 0;
  virtual int32_t SampleBytes() const = 0;
  virtual double SampleTime() const = 0;
  // On the caller's thread, inside SetPositions, while no callback runs.
  virtual void SeekRequested() {}

  zylSource* source_ = nullptr;

 private:
  void Loop() {
    std::unique_lock<std::mutex> lock(mutex_);
    bool havePrepared = false;
    bool afterSeek = false;  // the sample prepared is the first at a new position
    for (;;) {
      if (quit_) break;
      if (seekPending_) {
        ready_ = false;
        cond_.wait(lock, [this] { return quit_ || seekArmed_; });
        if (quit_) break;
        const int64_t target = seekTarget_;
        seekPending_ = false;
        seekArmed_ = false;
        ended_ = false;
        havePrepared = false;
        afterSeek = true;
        lock.unlock();
        Seek(target);
        lock.lock();
        continue;
      }
      if (ended_) {
        cond_.notify_all();
        cond_.wait(lock, [this] { return quit_ || seekPending_; });
        continue;
      }
      if (!havePrepared) {
        lock.unlock();
        const bool prepared = Prepare();
        lock.lock();
        if (!prepared) {
          ended_ = true;
          continue;
        }
        havePrepared = true;
        continue;  // a seek may have come meanwhile
      }
      ready_ = true;
      cond_.notify_all();
      // The pump raises the callbacks' time limit while it seeks and lowers it when the seek has
      // returned. The first sample at the new position, entered with the limit still raised,
      // would give up waiting and go out unasked: wait for the limit to drop. (A sample from
      // before the seek that does so is harmless: the seek takes back what it signalled.)
      for (int tries = 0; afterSeek && tries < 100 && !quit_ && !seekPending_ &&
                          std::atomic_ref<uint32_t>(source_->grabberTimeout).load() != 0;
           ++tries) {
        cond_.wait_for(lock, std::chrono::milliseconds(1));
      }
      if (quit_ || seekPending_) continue;
      if (takesGoItself_) {
        // The sound thread takes the pump's go itself, under the lock, and passes it on to the
        // callback, whose own wait then returns at once.
        bool go = false;
        while (!quit_ && !seekPending_ && !(go = go_->Wait(0) == zylWaitObject0)) {
          cond_.wait_for(lock, std::chrono::milliseconds(1));
        }
        if (!go) continue;
        go_->Set();
      }
      inCallback_ = true;
      ++entered_;
      cond_.notify_all();
      lock.unlock();
      grabber_->BufferCB(SampleTime(), SampleData(), SampleBytes());
      lock.lock();
      inCallback_ = false;
      ready_ = false;
      havePrepared = false;
      afterSeek = false;
      cond_.notify_all();
    }
    ready_ = false;
    cond_.notify_all();
  }

  zylSampleGrabberCB* grabber_ = nullptr;
  zylEvent* go_ = nullptr;
  zylEvent* done_ = nullptr;
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable cond_;
  bool started_ = false;
  bool quit_ = false;
  bool ready_ = false;       // a sample is prepared and about to go to the grabber
  bool inCallback_ = false;  // the grabber callback runs
  bool ended_ = false;       // no sample after the last one delivered
  bool seekPending_ = false;
  bool seekArmed_ = false;   // the caller has cleared the events; the thread may seek
  int64_t seekTarget_ = 0;
  uint64_t entered_ = 0;     // grabber callbacks entered
  uint64_t asks_ = 0;        // WaitForCompletion answers "running" that a go followed

 protected:
  bool countsAsks_ = false;     // the picture stream's pump asks before every go
  bool takesGoItself_ = false;  // the sound stream's thread takes the go before the callback
};

// ---------------------------------------------------------------------------------------------
// Pictures.

class VideoStream final : public StreamThread {
 public:
  VideoStream() { countsAsks_ = true; }
  ~VideoStream() override {
    Stop();
    av_frame_free(&current_);
    av_frame_free(&upcoming_);
    av_frame_free(&filtered_);
    av_frame_free(&spare_);
    avfilter_graph_free(&graph_);
    sws_freeContext(scaler_);
  }

  // Opens the picture stream, takes the frame rate and the count, and decodes the first frame,
  // whose time stamp is frame 0. Returns the error text, or empty on success.
  std::string Open(const std::string& path, const zycSourceOptions& options,
                   std::string* description, std::vector<std::string>* changes) {
    std::string detail;
    const int result = reader_.Open(path, AVMEDIA_TYPE_VIDEO, &detail);
    if (result == 1) return "No input! (" + detail + ")";
    if (result == 2) return "No video stream found!";
    if (result == 3) {
      return "Unsupported media type!" + (detail.empty() ? "" : " (" + detail + ")");
    }
    AVStream* stream = reader_.stream();
    width_ = stream->codecpar->width;
    height_ = stream->codecpar->height;
    if (width_ <= 0 || height_ <= 0) return "Unsupported media type! (no picture size)";
    fps_ = av_q2d(av_guess_frame_rate(reader_.format(), stream, nullptr));
    const double fileFps = fps_;
    if (options.frameRate > 0) fps_ = options.frameRate;
    if (!(fps_ > 0 && fps_ < 1000 && std::isfinite(fps_))) return "Invalid FPS";
    current_ = av_frame_alloc();
    upcoming_ = av_frame_alloc();
    if (!current_ || !upcoming_) return "Set format failed";
    if (!reader_.Receive()) return "Unsupported media type! (no picture could be decoded)";
    const int64_t first = reader_.frame()->best_effort_timestamp;
    origin_ = first == AV_NOPTS_VALUE ? 0 : first;
    const int fileWidth = width_, fileHeight = height_;
    std::string graph;
    const int turn = options.autoRotate ? Rotation(stream) : 0;
    if (turn == 90) graph = "transpose=clock";
    if (turn == 180) graph = "hflip,vflip";
    if (turn == 270) graph = "transpose=cclock";
    if (turn != 0) {
      changes->push_back("pictures turned " + std::to_string(turn) +
                         " degrees clockwise by the file's rotation");
    }
    if (!options.filters.empty()) graph += (graph.empty() ? "" : ",") + options.filters;
    if (!graph.empty()) {
      const std::string failure = MakeFilters(graph, reader_.frame());
      if (!failure.empty()) return failure;
    }
    TakeFirst();
    frameCount_ = CountFrames(path);
    pitch_ = (width_ * 3 + 3) & ~3;
    picture_.assign(size_t(pitch_) * size_t(height_), 0);
    if (width_ != fileWidth || height_ != fileHeight) {
      changes->push_back("pictures made " + std::to_string(width_) + "x" +
                         std::to_string(height_) + " from " + std::to_string(fileWidth) + "x" +
                         std::to_string(fileHeight));
    }
    if (fps_ != fileFps) {
      char text[96];
      std::snprintf(text, sizeof(text), "pictures taken at %.5g fps instead of %.5g", fps_,
                    fileFps);
      changes->push_back(text);
    }
    char text[160];
    std::snprintf(text, sizeof(text), "%s %dx%d %.5g fps, %u frames",
                  avcodec_get_name(stream->codecpar->codec_id), fileWidth, fileHeight, fileFps,
                  frameCount_);
    *description = text;
    return "";
  }

  int32_t GetTimeFormat(zylTimeFormat* format) override {
    *format = zylTimeFormatMediaTime;
    return 0;
  }
  int32_t ConvertTimeFormat(int64_t* target, zylTimeFormat targetFormat, int64_t value,
                            zylTimeFormat sourceFormat) override {
    return ConvertStreamTime(target, targetFormat, value, sourceFormat, zylTimeFormatFrame, fps_);
  }

  double fps() const { return fps_; }
  double originSeconds() const { return double(origin_) * reader_.timeBase(); }
  double endSeconds() const { return originSeconds() + double(frameCount_) / fps_; }
  int32_t width() const { return width_; }
  int32_t height() const { return height_; }
  uint32_t frameCount() const { return frameCount_; }

 protected:
  void Seek(int64_t target) override {
    const int64_t frame = std::max<int64_t>(llround(double(target) / kMediaTimeUnits * fps_), 0);
    nextIndex_ = frame;
    // The picture shown at `frame` is the last one decoded at or before it. A short way
    // forward is decoded; a way back or a long way forward seeks.
    if (haveCurrent_ && currentIndex_ <= frame &&
        frame - currentIndex_ <= int64_t(fps_ * 2) + 2) {
      return;
    }
    const double timeBase = reader_.timeBase();
    double backOff = 0;
    for (;;) {
      const double seconds = double(frame) / fps_ - backOff;
      if (seconds <= 0 || !reader_.SeekBefore(origin_ + int64_t(seconds / timeBase))) {
        Restart();
        return;
      }
      haveCurrent_ = haveUpcoming_ = false;
      if (!reader_.Receive()) {
        backOff = backOff > 0 ? backOff * 2 : 1;
        continue;
      }
      const AVFrame* first = reader_.frame();
      // Where the demuxer lands behind the target, or on a frame without a time stamp, the
      // numbering can't be trusted: start from further back.
      if (first->best_effort_timestamp == AV_NOPTS_VALUE || StampIndex(first) > frame) {
        backOff = backOff > 0 ? backOff * 2 : 1;
        continue;
      }
      lastDecoded_ = StampIndex(first);
      av_frame_unref(current_);
      av_frame_move_ref(current_, reader_.frame());
      currentIndex_ = lastDecoded_;
      haveCurrent_ = true;
      converted_ = false;
      haveUpcoming_ = DecodeUpcoming();
      return;
    }
  }

  // Pictures go out at a constant rate: frame k is the last picture whose time stamp is at or
  // before k, so a picture repeats over a gap in the time stamps and two pictures on one
  // frame number leave only the later.
  bool Prepare() override {
    const int64_t frame = nextIndex_;
    while (haveUpcoming_ && upcomingIndex_ <= frame) {
      std::swap(current_, upcoming_);
      currentIndex_ = upcomingIndex_;
      haveCurrent_ = true;
      converted_ = false;
      haveUpcoming_ = DecodeUpcoming();
    }
    if (!haveCurrent_ || currentIndex_ > frame) return false;
    if (!haveUpcoming_ && frame > currentIndex_) return false;  // behind the last picture
    if (!converted_) Convert();
    converted_ = true;
    sampleIndex_ = frame;
    nextIndex_ = frame + 1;
    return true;
  }

  const uint8_t* SampleData() const override { return picture_.data(); }
  int32_t SampleBytes() const override { return int32_t(picture_.size()); }
  double SampleTime() const override { return double(sampleIndex_) / fps_; }

 private:
  int64_t StampIndex(const AVFrame* frame) const {
    return llround(double(frame->best_effort_timestamp - origin_) * reader_.timeBase() * fps_);
  }

  // Decodes the next picture into upcoming_; a picture without a time stamp follows the last.
  bool DecodeUpcoming() {
    if (!reader_.Receive()) return false;
    AVFrame* frame = reader_.frame();
    const int64_t index = frame->best_effort_timestamp == AV_NOPTS_VALUE
                              ? lastDecoded_ + 1
                              : std::max(StampIndex(frame), lastDecoded_);
    lastDecoded_ = index;
    av_frame_unref(upcoming_);
    av_frame_move_ref(upcoming_, frame);
    upcomingIndex_ = index;
    return true;
  }

  // The frame in reader_.frame() is frame 0.
  void TakeFirst() {
    av_frame_unref(current_);
    av_frame_move_ref(current_, reader_.frame());
    currentIndex_ = 0;
    lastDecoded_ = 0;
    haveCurrent_ = true;
    converted_ = false;
    haveUpcoming_ = DecodeUpcoming();
  }

  // Back to frame 0 by opening the file again: a seek to the very start is not exact in every
  // container.
  void Restart() {
    haveCurrent_ = haveUpcoming_ = false;
    if (reader_.Reopen() && reader_.Receive()) TakeFirst();
  }

  // The rotation of the stream's display matrix, clockwise, in steps of 90 degrees.
  static int Rotation(const AVStream* stream) {
    const uint8_t* matrix = av_stream_get_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, nullptr);
    if (!matrix) return 0;
    double theta = -std::round(av_display_rotation_get(reinterpret_cast<const int32_t*>(matrix)));
    theta -= 360 * std::floor(theta / 360 + 0.9 / 360);
    const int turn = int(std::lround(theta / 90)) % 4 * 90;
    return std::fabs(theta - turn) < 1 ? turn : 0;
  }

  // Builds the filter graph for pictures like `sample`; the picture size becomes the graph's.
  std::string MakeFilters(const std::string& description, const AVFrame* sample) {
    graph_ = avfilter_graph_alloc();
    filtered_ = av_frame_alloc();
    if (!graph_ || !filtered_) return "Set format failed";
    graph_->nb_threads = 1;
    char arguments[256];
    const AVRational aspect = sample->sample_aspect_ratio.num > 0 ? sample->sample_aspect_ratio
                                                                  : AVRational{1, 1};
    std::snprintf(arguments, sizeof(arguments),
                  "video_size=%dx%d:pix_fmt=%d:time_base=1/%d:pixel_aspect=%d/%d",
                  sample->width, sample->height, sample->format, 1000, aspect.num, aspect.den);
    AVFilterInOut* inputs = nullptr;
    AVFilterInOut* outputs = nullptr;
    int result = avfilter_graph_create_filter(&graphIn_, avfilter_get_by_name("buffer"), "in",
                                              arguments, nullptr, graph_);
    if (result >= 0) {
      result = avfilter_graph_create_filter(&graphOut_, avfilter_get_by_name("buffersink"),
                                            "out", nullptr, nullptr, graph_);
    }
    if (result >= 0) {
      outputs = avfilter_inout_alloc();
      inputs = avfilter_inout_alloc();
      if (!outputs || !inputs) result = AVERROR(ENOMEM);
    }
    if (result >= 0) {
      outputs->name = av_strdup("in");
      outputs->filter_ctx = graphIn_;
      inputs->name = av_strdup("out");
      inputs->filter_ctx = graphOut_;
      result = avfilter_graph_parse_ptr(graph_, description.c_str(), &inputs, &outputs, nullptr);
    }
    avfilter_inout_free(&inputs);
    avfilter_inout_free(&outputs);
    if (result >= 0) result = avfilter_graph_config(graph_, nullptr);
    if (result < 0) {
      return "the picture filters '" + description + "' were refused (" + AvErrorText(result) +
             ")";
    }
    width_ = av_buffersink_get_w(graphOut_);
    height_ = av_buffersink_get_h(graphOut_);
    if (width_ <= 0 || height_ <= 0) return "the picture filters give no picture size";
    return "";
  }

  // The picture to convert: current_, or what the filters made of it.
  const AVFrame* Filtered() {
    if (!graph_) return current_;
    AVFrame* input = av_frame_clone(current_);
    if (!input) return nullptr;
    input->pts = filterClock_++;  // filters see a steady clock whatever the seeks did
    const int pushed = av_buffersrc_add_frame(graphIn_, input);
    av_frame_free(&input);
    if (pushed < 0) return nullptr;
    // A filter may hold pictures back: the last one out is the one to show.
    const AVFrame* result = nullptr;
    while (av_buffersink_get_frame(graphOut_, spare()) >= 0) {
      std::swap(filtered_, spare_);
      result = filtered_;
    }
    return result;
  }

  AVFrame* spare() {
    if (!spare_) spare_ = av_frame_alloc();
    av_frame_unref(spare_);
    return spare_;
  }

  void Convert() {
    const AVFrame* frame = Filtered();
    // A filter that holds a picture back leaves the last one in place.
    if (!frame) return;
    if (frame->width != width_ || frame->height != height_) {
      std::fill(picture_.begin(), picture_.end(), 0);
      return;
    }
    scaler_ = sws_getCachedContext(scaler_, frame->width, frame->height,
                                   AVPixelFormat(frame->format), width_, height_,
                                   AV_PIX_FMT_BGR24,
                                   SWS_BILINEAR | SWS_ACCURATE_RND | SWS_BITEXACT, nullptr,
                                   nullptr, nullptr);
    if (!scaler_) {
      std::fill(picture_.begin(), picture_.end(), 0);
      return;
    }
    // Bottom row first: start at the last row and step back by the padded pitch.
    uint8_t* planes[4] = {picture_.data() + size_t(pitch_) * size_t(height_ - 1), nullptr,
                          nullptr, nullptr};
    int strides[4] = {-pitch_, 0, 0, 0};
    sws_scale(scaler_, frame->data, frame->linesize, 0, frame->height, planes, strides);
  }

  // The number of frames at the constant rate: one behind the frame number of the latest
  // picture packet. Containers' own counts are not trusted; some count index entries.
  uint32_t CountFrames(const std::string& path) const {
    const AVStream* stream = reader_.stream();
    AVFormatContext* format = nullptr;
    int64_t latest = AV_NOPTS_VALUE;
    uint32_t packets = 0;
    if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) == 0) {
      if (avformat_find_stream_info(format, nullptr) >= 0) {
        const int index = stream->index;
        for (unsigned i = 0; i < format->nb_streams; ++i) {
          format->streams[i]->discard = int(i) == index ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
        }
        AVPacket* packet = av_packet_alloc();
        while (packet && av_read_frame(format, packet) >= 0) {
          if (packet->stream_index == index) {
            ++packets;
            const int64_t pts = packet->pts;
            if (pts != AV_NOPTS_VALUE && (latest == AV_NOPTS_VALUE || pts > latest)) latest = pts;
          }
          av_packet_unref(packet);
        }
        av_packet_free(&packet);
      }
      avformat_close_input(&format);
    }
    if (latest != AV_NOPTS_VALUE) {
      const int64_t last = llround(double(latest - origin_) * reader_.timeBase() * fps_);
      if (last >= 0) return uint32_t(last + 1);
    }
    return packets;
  }

  StreamReader reader_;
  SwsContext* scaler_ = nullptr;
  AVFilterGraph* graph_ = nullptr;  // the picture filters, or none
  AVFilterContext* graphIn_ = nullptr;
  AVFilterContext* graphOut_ = nullptr;
  AVFrame* filtered_ = nullptr;
  AVFrame* spare_ = nullptr;
  int64_t filterClock_ = 0;
  AVFrame* current_ = nullptr;   // the picture shown at currentIndex_
  AVFrame* upcoming_ = nullptr;  // the next decoded picture
  bool haveCurrent_ = false;
  bool haveUpcoming_ = false;
  bool converted_ = false;  // picture_ holds current_
  int64_t currentIndex_ = 0;
  int64_t upcomingIndex_ = 0;
  int64_t lastDecoded_ = 0;
  int64_t nextIndex_ = 0;  // the frame number that goes out next
  int64_t origin_ = 0;     // time stamp of frame 0
  int64_t sampleIndex_ = 0;
  double fps_ = 0;
  int32_t width_ = 0;
  int32_t height_ = 0;
  int32_t pitch_ = 0;
  uint32_t frameCount_ = 0;
  std::vector<uint8_t> picture_;  // the converted picture handed to the grabber
};

// ---------------------------------------------------------------------------------------------
// Sound.

class AudioStream final : public StreamThread {
 public:
  AudioStream() { takesGoItself_ = true; }
  ~AudioStream() override {
    Stop();
    swr_free(&resampler_);
  }

  // Opens the sound stream. Returns 0, 2 when there is none, or another code with `error`.
  int Open(const std::string& path, double originSeconds, std::string* error,
           std::string* description, std::vector<std::string>* changes) {
    std::string detail;
    const int result = reader_.Open(path, AVMEDIA_TYPE_AUDIO, &detail);
    if (result == 2) return 2;
    if (result != 0) {
      *error = "Unsupported media type!" + (detail.empty() ? "" : " (sound: " + detail + ")");
      return result;
    }
    const AVCodecParameters* parameters = reader_.stream()->codecpar;
    channels_ = parameters->ch_layout.nb_channels;
    rate_ = parameters->sample_rate;
    if (channels_ <= 0 || rate_ <= 0) {
      *error = "Unsupported media type! (sound without channels or rate)";
      return 3;
    }
    originSeconds_ = originSeconds;
    const int sourceChannels = channels_;
    channels_ = std::min(channels_, 2);  // the movie holds mono or stereo
    if (!MakeResampler()) {
      *error = "Set format failed";
      return 3;
    }
    if (sourceChannels != channels_) {
      changes->push_back("sound downmixed from " + std::to_string(sourceChannels) +
                         " to 2 channels");
    }
    nextPosition_ = 0;
    trimming_ = true;
    startChecked_ = false;
    char text[120];
    std::snprintf(text, sizeof(text), "%s %d ch %d Hz",
                  avcodec_get_name(parameters->codec_id), sourceChannels, rate_);
    *description = text;
    return 0;
  }

  int32_t GetTimeFormat(zylTimeFormat* format) override {
    *format = zylTimeFormatSample;
    return 0;
  }
  int32_t ConvertTimeFormat(int64_t* target, zylTimeFormat targetFormat, int64_t value,
                            zylTimeFormat sourceFormat) override {
    return ConvertStreamTime(target, targetFormat, value, sourceFormat, zylTimeFormatSample,
                             rate_);
  }

  int32_t channels() const { return channels_; }
  int32_t rate() const { return rate_; }
  // The stream's span in seconds on the file's clock; false when the file does not tell.
  bool Span(double* start, double* end) const {
    const AVStream* stream = reader_.stream();
    const double timeBase = reader_.timeBase();
    *start = stream->start_time == AV_NOPTS_VALUE ? 0 : double(stream->start_time) * timeBase;
    if (stream->duration != AV_NOPTS_VALUE && stream->duration > 0) {
      *end = *start + double(stream->duration) * timeBase;
      return true;
    }
    const AVFormatContext* format = reader_.format();
    if (format->duration == AV_NOPTS_VALUE || format->duration <= 0) return false;
    const double formatStart =
        format->start_time == AV_NOPTS_VALUE ? 0 : double(format->start_time) / AV_TIME_BASE;
    *end = formatStart + double(format->duration) / AV_TIME_BASE;
    return true;
  }
  void SetGrabber(zylAudioGrabber* grabber) { grabber_ = grabber; }

 protected:
  void SeekRequested() override {
    // Sound taken before the seek belongs to the old position.
    grabber_->fill = 0;
    source_->audioEnded = 0;
  }

  void Seek(int64_t target) override {
    target = std::max<int64_t>(target, 0);
    nextPosition_ = target;
    pendingSilence_ = 0;
    haveFirst_ = false;
    trimming_ = true;
    const double timeBase = reader_.timeBase();
    double preroll = kSoundPreroll;
    for (;;) {
      const double seconds = double(target) / rate_ - preroll;
      if (seconds <= 0) {
        reader_.Reopen();
        MakeResampler();
        startChecked_ = false;
        return;
      }
      const int64_t stamp = int64_t((seconds + originSeconds_) / timeBase);
      if (!reader_.SeekBefore(stamp)) {
        preroll = 1e9;  // nothing to do but start over
        continue;
      }
      MakeResampler();
      // The demuxer must land before the target; where it does not, go back further.
      if (!reader_.Receive()) {
        preroll *= 2;
        continue;
      }
      const AVFrame* frame = reader_.frame();
      if (frame->pts != AV_NOPTS_VALUE && PositionOf(frame->pts) > target) {
        preroll *= 2;
        continue;
      }
      haveFirst_ = true;
      startChecked_ = true;
      return;
    }
  }

  bool Prepare() override {
    sample_.clear();
    const int frameBytes = 2 * channels_;
    for (;;) {
      if (haveFirst_) {
        haveFirst_ = false;
      } else if (!reader_.Receive()) {
        return false;
      }
      const AVFrame* frame = reader_.frame();
      int64_t position = frame->pts == AV_NOPTS_VALUE ? decodedPosition_ : PositionOf(frame->pts);
      if (!startChecked_) {
        // Sound that starts after the first picture is preceded by silence.
        startChecked_ = true;
        if (position > nextPosition_) pendingSilence_ = position - nextPosition_;
      }
      std::vector<uint8_t> converted(size_t(frame->nb_samples + 64) * size_t(frameBytes));
      uint8_t* out = converted.data();
      const int samples =
          swr_convert(resampler_, &out, frame->nb_samples + 64,
                      const_cast<const uint8_t**>(frame->extended_data), frame->nb_samples);
      decodedPosition_ = position + frame->nb_samples;
      if (samples <= 0) continue;
      if (pendingSilence_ > 0) {
        sample_.assign(size_t(pendingSilence_) * size_t(frameBytes), 0);
        nextPosition_ += pendingSilence_;
        position = nextPosition_;
        pendingSilence_ = 0;
      }
      // Drop what lies before the position asked for (the pre-roll of a seek); once sound
      // flows, frames follow each other without gaps whatever their rounded time stamps say.
      const int64_t skip =
          trimming_ ? std::clamp<int64_t>(nextPosition_ - position, 0, samples) : 0;
      const int keep = samples - int(skip);
      if (keep <= 0) continue;
      sample_.insert(sample_.end(), converted.begin() + skip * frameBytes,
                     converted.begin() + int64_t(samples) * frameBytes);
      trimming_ = false;
      sampleTime_ = double(nextPosition_) / rate_;
      nextPosition_ += keep;
      return true;
    }
  }

  const uint8_t* SampleData() const override { return sample_.data(); }
  int32_t SampleBytes() const override { return int32_t(sample_.size()); }
  double SampleTime() const override { return sampleTime_; }

 private:
  // The sample position of a time stamp, counted from the first picture.
  int64_t PositionOf(int64_t pts) const {
    return llround((double(pts) * reader_.timeBase() - originSeconds_) * rate_);
  }

  bool MakeResampler() {
    swr_free(&resampler_);
    AVChannelLayout layout;
    av_channel_layout_default(&layout, channels_);
    AVCodecContext* codec = reader_.codec();
    // Channels without names can't be mixed by position: take the usual layout of their count.
    AVChannelLayout input;
    if (codec->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC) {
      av_channel_layout_default(&input, codec->ch_layout.nb_channels);
    } else {
      av_channel_layout_copy(&input, &codec->ch_layout);
    }
    const int result = swr_alloc_set_opts2(&resampler_, &layout, AV_SAMPLE_FMT_S16, rate_,
                                           &input, codec->sample_fmt, codec->sample_rate, 0,
                                           nullptr);
    av_channel_layout_uninit(&layout);
    av_channel_layout_uninit(&input);
    return result >= 0 && swr_init(resampler_) >= 0;
  }

  StreamReader reader_;
  SwrContext* resampler_ = nullptr;
  zylAudioGrabber* grabber_ = nullptr;
  int32_t channels_ = 0;
  int32_t rate_ = 0;
  double originSeconds_ = 0;    // time of the first picture: sound position 0
  int64_t nextPosition_ = 0;    // sample position of the next sample to hand over
  int64_t decodedPosition_ = 0; // behind the last decoded frame, for frames without pts
  int64_t pendingSilence_ = 0;
  bool haveFirst_ = false;      // reader_.frame() holds a frame not yet used
  bool startChecked_ = false;
  bool trimming_ = true;        // samples before nextPosition_ are still to be dropped
  double sampleTime_ = 0;
  std::vector<uint8_t> sample_;
};

}  // namespace

// ---------------------------------------------------------------------------------------------

struct zycFfmpegSource::State {
  zylSource source;
  zylVideoGrabber videoGrabber;
  zylAudioGrabber audioGrabber;
  zylEvent videoGo;
  zylEvent audioGo;
  zylEvent videoDone;
  zylEvent audioDone;
  std::unique_ptr<VideoStream> video;
  std::unique_ptr<AudioStream> audio;
  std::string error;
  std::string note;
  std::string description;
  std::vector<std::string> changes;
  std::vector<std::string> warnings;
};

zycFfmpegSource::zycFfmpegSource() : state_(std::make_unique<State>()) {}

zycFfmpegSource::~zycFfmpegSource() { Close(); }

bool zycFfmpegSource::Open(const std::string& path, bool wantSound) {
  zycSourceOptions options;
  options.wantSound = wantSound;
  return Open(path, options);
}

bool zycFfmpegSource::Open(const std::string& path, const zycSourceOptions& options) {
  Close();
  State& s = *state_;
  s.error.clear();
  s.note.clear();
  s.description.clear();
  s.changes.clear();
  s.warnings.clear();
  av_log_set_level(AV_LOG_FATAL);

  auto video = std::make_unique<VideoStream>();
  std::string videoText;
  const std::string failure = video->Open(path, options, &videoText, &s.changes);
  if (!failure.empty()) {
    s.error = path + ": " + failure;
    return false;
  }
  s.description = videoText;

  std::unique_ptr<AudioStream> audio;
  if (options.wantSound) {
    audio = std::make_unique<AudioStream>();
    std::string audioError, audioText;
    // Sound position 0 is the time of the first picture.
    const int result =
        audio->Open(path, video->originSeconds(), &audioError, &audioText, &s.changes);
    if (result == 2) {
      s.note = path + ": No Audio stream found!";
      audio.reset();
    } else if (result != 0) {
      s.note = path + ": " + audioError + "; going on without sound";
      audio.reset();
    } else {
      s.description += ", " + audioText;
      double soundStart = 0, soundEnd = 0;
      const double pictureStart = video->originSeconds(), pictureEnd = video->endSeconds();
      if (audio->Span(&soundStart, &soundEnd) &&
          (soundEnd <= pictureStart || soundStart >= pictureEnd)) {
        char text[200];
        std::snprintf(text, sizeof(text),
                      "the sound (%.2f s to %.2f s) and the pictures (%.2f s to %.2f s) do not "
                      "overlap in time: the movie will be silent",
                      soundStart, soundEnd, pictureStart, pictureEnd);
        s.warnings.push_back(path + ": " + text);
      }
    }
  }

  zylSource& source = s.source;
  source = zylSource();
  source.frameRate = video->fps();
  source.frameCount = video->frameCount();
  source.width = video->width();
  source.height = video->height();
  source.grabberTimeout = 0;
  source.videoGoEvent = &s.videoGo;
  source.audioGoEvent = &s.audioGo;

  s.videoGrabber.source = &source;
  s.videoGrabber.doneEvent = &s.videoDone;
  video->Attach(&source, &s.videoGrabber, &s.videoGo, &s.videoDone);
  source.videoControl = video.get();
  source.videoEvent = video.get();
  source.videoSeeking = video.get();
  source.videoGrabber = &s.videoGrabber;

  s.audioGrabber.source = &source;
  s.audioGrabber.doneEvent = &s.audioDone;
  s.audioGrabber.fill = 0;
  if (audio) {
    source.audioChannels = audio->channels();
    source.audioSampleRate = audio->rate();
    audio->Attach(&source, &s.audioGrabber, &s.audioGo, &s.audioDone);
    audio->SetGrabber(&s.audioGrabber);
    source.audioControl = audio.get();
    source.audioEvent = audio.get();
    source.audioSeeking = audio.get();
  }
  source.audioGrabber = &s.audioGrabber;

  s.video = std::move(video);
  s.audio = std::move(audio);
  return true;
}

void zycFfmpegSource::Close() {
  State& s = *state_;
  s.audio.reset();  // stops and joins its thread
  s.video.reset();
  s.audioGrabber.fill = 0;
  s.source = zylSource();
  // Events may hold a signal from the last job; a fresh source starts with none.
  s.videoGo.Wait(0);
  s.audioGo.Wait(0);
  s.videoDone.Wait(0);
  s.audioDone.Wait(0);
}

zylSource* zycFfmpegSource::source() { return &state_->source; }
const std::string& zycFfmpegSource::error() const { return state_->error; }
const std::string& zycFfmpegSource::note() const { return state_->note; }
const std::string& zycFfmpegSource::description() const { return state_->description; }
const std::vector<std::string>& zycFfmpegSource::changes() const { return state_->changes; }
const std::vector<std::string>& zycFfmpegSource::warnings() const { return state_->warnings; }

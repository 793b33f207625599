// The FFmpeg source as the encode job meets it: pictures through the frame pump's handshake,
// against the same decode and conversion done directly, and seeks.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswscale/swscale.h>
}

#include "codec/framePump.h"
#include "host/source/ffmpegSource.h"

namespace {

std::string Clip() { return std::string(ZYL_MEDIA_DIR) + "/walkers_speech_384x288_10fps_16k.mkv"; }

// Baseline: every picture decoded and converted to bottom-up BGR rows, with no thread, no
// handshake and no pixel conversion to 32 bits.
void BM_DirectDecodeAndConvert(benchmark::State& state) {
  int64_t frames = 0;
  for (auto _ : state) {
    AVFormatContext* format = nullptr;
    avformat_open_input(&format, Clip().c_str(), nullptr, nullptr);
    avformat_find_stream_info(format, nullptr);
    const AVCodec* decoder = nullptr;
    const int index = av_find_best_stream(format, AVMEDIA_TYPE_VIDEO, -1, -1, &decoder, 0);
    AVCodecContext* codec = avcodec_alloc_context3(decoder);
    avcodec_parameters_to_context(codec, format->streams[index]->codecpar);
    codec->thread_count = 0;
    avcodec_open2(codec, decoder, nullptr);
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    SwsContext* scaler = nullptr;
    const int pitch = (codec->width * 3 + 3) & ~3;
    std::vector<uint8_t> picture(size_t(pitch) * codec->height);
    auto convert = [&] {
      scaler = sws_getCachedContext(scaler, frame->width, frame->height,
                                    AVPixelFormat(frame->format), codec->width, codec->height,
                                    AV_PIX_FMT_BGR24,
                                    SWS_BILINEAR | SWS_ACCURATE_RND | SWS_BITEXACT, nullptr,
                                    nullptr, nullptr);
      uint8_t* planes[4] = {picture.data() + size_t(pitch) * (codec->height - 1)};
      int strides[4] = {-pitch};
      sws_scale(scaler, frame->data, frame->linesize, 0, frame->height, planes, strides);
      ++frames;
    };
    while (av_read_frame(format, packet) >= 0) {
      if (packet->stream_index == index) {
        avcodec_send_packet(codec, packet);
        while (avcodec_receive_frame(codec, frame) == 0) convert();
      }
      av_packet_unref(packet);
    }
    avcodec_send_packet(codec, nullptr);
    while (avcodec_receive_frame(codec, frame) == 0) convert();
    sws_freeContext(scaler);
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&codec);
    avformat_close_input(&format);
  }
  state.counters["frames/s"] = benchmark::Counter(double(frames), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_DirectDecodeAndConvert)->Unit(benchmark::kMillisecond)->UseRealTime();

// Every picture through the source's streaming thread and the pump's GrabFrame.
void BM_SourceThroughPump(benchmark::State& state) {
  int64_t frames = 0;
  for (auto _ : state) {
    zycFfmpegSource media;
    media.Open(Clip(), false);
    zylFrameImage image;
    SeekToFrame(media.source(), 0);
    while (GrabFrame(media.source(), image)) ++frames;
  }
  state.counters["frames/s"] = benchmark::Counter(double(frames), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_SourceThroughPump)->Unit(benchmark::kMillisecond)->UseRealTime();

// A seek and one picture, to frames spread over the clip in a jumping order.
void BM_SourceSeekAndGrab(benchmark::State& state) {
  zycFfmpegSource media;
  media.Open(Clip(), false);
  zylFrameImage image;
  const uint32_t targets[] = {71, 12, 95, 40, 3, 58, 88, 27};
  int64_t seeks = 0;
  for (auto _ : state) {
    SeekToFrame(media.source(), targets[seeks % 8]);
    GrabFrame(media.source(), image);
    ++seeks;
  }
  state.counters["seeks/s"] = benchmark::Counter(double(seeks), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_SourceSeekAndGrab)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

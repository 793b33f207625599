// Decodes the sound of a real clip with FFmpeg's libraries into interleaved 16-bit samples, for
// tests. Header only, so any suite that links FFmpeg can use it.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/samplefmt.h>
}

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

struct zylTestSound {
  uint32_t sampleRate = 0;
  uint32_t channels = 0;
  std::vector<int16_t> samples;  // interleaved
};

namespace zylTestSoundDetail {

inline int16_t FromFloat(double v) {
  const double s = std::nearbyint(v * 32768.0);
  return int16_t(s < -32768.0 ? -32768.0 : (s > 32767.0 ? 32767.0 : s));
}

inline void Append(const AVFrame* frame, zylTestSound& sound) {
  const int channels = int(sound.channels);
  const AVSampleFormat format = AVSampleFormat(frame->format);
  const bool planar = av_sample_fmt_is_planar(format);
  for (int i = 0; i < frame->nb_samples; ++i) {
    for (int c = 0; c < channels; ++c) {
      const uint8_t* base = frame->extended_data[planar ? c : 0];
      const int at = planar ? i : i * channels + c;
      switch (av_get_packed_sample_fmt(format)) {
        case AV_SAMPLE_FMT_S16:
          sound.samples.push_back(reinterpret_cast<const int16_t*>(base)[at]);
          break;
        case AV_SAMPLE_FMT_S32:
          sound.samples.push_back(int16_t(reinterpret_cast<const int32_t*>(base)[at] >> 16));
          break;
        case AV_SAMPLE_FMT_FLT:
          sound.samples.push_back(FromFloat(reinterpret_cast<const float*>(base)[at]));
          break;
        case AV_SAMPLE_FMT_DBL:
          sound.samples.push_back(FromFloat(reinterpret_cast<const double*>(base)[at]));
          break;
        case AV_SAMPLE_FMT_U8:
          sound.samples.push_back(int16_t((int(base[at]) - 128) << 8));
          break;
        default:
          return;
      }
    }
  }
}

}  // namespace zylTestSoundDetail

// Up to `maxSamples` samples per channel of the clip's best audio stream (0: all of it).
// Empty when the file has no sound or can't be decoded.
inline zylTestSound zylDecodeSound(const std::string& path, uint32_t maxSamples = 0) {
  zylTestSound sound;
  AVFormatContext* format = nullptr;
  if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) < 0) return sound;
  const AVCodec* codec = nullptr;
  const int stream = avformat_find_stream_info(format, nullptr) < 0
                         ? -1
                         : av_find_best_stream(format, AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
  AVCodecContext* context = stream >= 0 && codec ? avcodec_alloc_context3(codec) : nullptr;
  if (!context ||
      avcodec_parameters_to_context(context, format->streams[stream]->codecpar) < 0 ||
      avcodec_open2(context, codec, nullptr) < 0) {
    avcodec_free_context(&context);
    avformat_close_input(&format);
    return sound;
  }
  sound.sampleRate = uint32_t(context->sample_rate);
  sound.channels = uint32_t(context->ch_layout.nb_channels);
  const size_t limit = size_t(maxSamples) * sound.channels;
  AVPacket* packet = av_packet_alloc();
  AVFrame* frame = av_frame_alloc();
  auto full = [&] { return limit && sound.samples.size() >= limit; };
  auto take = [&] {
    while (avcodec_receive_frame(context, frame) == 0) {
      if (!full()) zylTestSoundDetail::Append(frame, sound);
    }
  };
  while (!full() && av_read_frame(format, packet) >= 0) {
    if (packet->stream_index == stream && avcodec_send_packet(context, packet) == 0) take();
    av_packet_unref(packet);
  }
  avcodec_send_packet(context, nullptr);
  take();
  if (limit && sound.samples.size() > limit) sound.samples.resize(limit);
  av_frame_free(&frame);
  av_packet_free(&packet);
  avcodec_free_context(&context);
  avformat_close_input(&format);
  return sound;
}

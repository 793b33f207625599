#include "tests/host/syntheticClip.h"

#include <algorithm>
#include <cmath>
#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/display.h>
}

std::vector<uint8_t> SyntheticPicture(const SyntheticClip& clip, int index) {
  std::vector<uint8_t> picture(size_t(clip.width) * clip.height * 3);
  for (int y = 0; y < clip.height; ++y) {
    for (int x = 0; x < clip.width; ++x) {
      uint8_t* pixel = &picture[(size_t(y) * clip.width + x) * 3];
      pixel[0] = uint8_t(x * 7 + index * 13);
      pixel[1] = uint8_t(y * 11 + index * 5);
      pixel[2] = uint8_t((x ^ y) * 3 + index * 29);
    }
  }
  return picture;
}

std::vector<int16_t> SyntheticSound(const SyntheticClip& clip) {
  const size_t samples = size_t(clip.sampleRate) * clip.frames / clip.fps;
  std::vector<int16_t> sound(samples * clip.channels);
  for (size_t i = 0; i < samples; ++i) {
    for (int c = 0; c < clip.channels; ++c) {
      sound[i * clip.channels + c] = int16_t(int(i * 37 + c * 1000) % 30000 - 15000);
    }
  }
  return sound;
}

std::string WriteSyntheticClip(const SyntheticClip& clip, const std::string& path) {
  AVFormatContext* format = nullptr;
  if (avformat_alloc_output_context2(&format, nullptr, nullptr, path.c_str()) < 0) {
    return "no muxer for " + path;
  }
  AVStream* video = nullptr;
  AVStream* audio = nullptr;
  if (clip.video) {
    video = avformat_new_stream(format, nullptr);
    video->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
    video->codecpar->codec_id = AV_CODEC_ID_RAWVIDEO;
    video->codecpar->format = AV_PIX_FMT_BGR24;
    video->codecpar->codec_tag = avcodec_pix_fmt_to_codec_tag(AV_PIX_FMT_BGR24);
    if (clip.rotation != 0) {
      video->codecpar->codec_tag = 0;  // the container's own tag for raw pictures
      auto* matrix = reinterpret_cast<int32_t*>(
          av_stream_new_side_data(video, AV_PKT_DATA_DISPLAYMATRIX, 9 * sizeof(int32_t)));
      if (!matrix) return "no room for a display matrix";
      av_display_rotation_set(matrix, double(clip.rotation));  // a clockwise turn
    }
    video->codecpar->width = clip.width;
    video->codecpar->height = clip.height;
    video->time_base = AVRational{1, clip.fps};
    video->avg_frame_rate = AVRational{clip.fps, 1};
    video->r_frame_rate = AVRational{clip.fps, 1};
  }
  if (clip.channels > 0) {
    audio = avformat_new_stream(format, nullptr);
    audio->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
    audio->codecpar->codec_id = AV_CODEC_ID_PCM_S16LE;
    audio->codecpar->format = AV_SAMPLE_FMT_S16;
    av_channel_layout_default(&audio->codecpar->ch_layout, clip.channels);
    audio->codecpar->sample_rate = clip.sampleRate;
    audio->codecpar->block_align = 2 * clip.channels;
    audio->codecpar->bits_per_coded_sample = 16;
    audio->time_base = AVRational{1, clip.sampleRate};
  }
  if (avio_open(&format->pb, path.c_str(), AVIO_FLAG_WRITE) < 0) {
    avformat_free_context(format);
    return "can't create " + path;
  }
  if (avformat_write_header(format, nullptr) < 0) {
    avio_closep(&format->pb);
    avformat_free_context(format);
    return "can't write the header of " + path;
  }
  const std::vector<int16_t> sound = SyntheticSound(clip);
  const int samplesPerFrame = clip.sampleRate / clip.fps;
  AVPacket* packet = av_packet_alloc();
  std::string failure;
  for (int i = 0; i < clip.frames && failure.empty(); ++i) {
    if (video) {
      std::vector<uint8_t> picture = SyntheticPicture(clip, i);
      av_new_packet(packet, int(picture.size()));
      std::copy(picture.begin(), picture.end(), packet->data);
      packet->stream_index = video->index;
      packet->pts = packet->dts = av_rescale_q(i, AVRational{1, clip.fps}, video->time_base);
      packet->duration = av_rescale_q(1, AVRational{1, clip.fps}, video->time_base);
      packet->flags |= AV_PKT_FLAG_KEY;
      if (av_interleaved_write_frame(format, packet) < 0) failure = "can't write a picture";
    }
    if (audio) {
      const size_t bytes = size_t(samplesPerFrame) * clip.channels * 2;
      av_new_packet(packet, int(bytes));
      std::memcpy(packet->data, sound.data() + size_t(i) * samplesPerFrame * clip.channels, bytes);
      packet->stream_index = audio->index;
      const int64_t delay = llround(clip.soundDelay * clip.sampleRate);
      packet->pts = packet->dts = av_rescale_q(int64_t(i) * samplesPerFrame + delay,
                                               AVRational{1, clip.sampleRate}, audio->time_base);
      packet->duration = samplesPerFrame;
      packet->flags |= AV_PKT_FLAG_KEY;
      if (av_interleaved_write_frame(format, packet) < 0) failure = "can't write sound";
    }
  }
  av_packet_free(&packet);
  av_write_trailer(format);
  avio_closep(&format->pb);
  avformat_free_context(format);
  return failure;
}

#include "tests/support/videoFrames.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}

#include <cstring>

std::vector<zylTestPicture> zylDecodeVideoFrames(const std::string& path, int count, int width,
                                                 int height) {
  std::vector<zylTestPicture> out;
  AVFormatContext* format = nullptr;
  if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) < 0) return out;
  const AVCodec* codec = nullptr;
  const int stream = avformat_find_stream_info(format, nullptr) < 0
                         ? -1
                         : av_find_best_stream(format, AVMEDIA_TYPE_VIDEO, -1, -1, &codec, 0);
  AVCodecContext* context = stream >= 0 && codec ? avcodec_alloc_context3(codec) : nullptr;
  if (context) {
    avcodec_parameters_to_context(context, format->streams[stream]->codecpar);
    context->thread_count = 1;
  }
  if (!context || avcodec_open2(context, codec, nullptr) < 0) {
    avcodec_free_context(&context);
    avformat_close_input(&format);
    return out;
  }
  const AVRational rate = format->streams[stream]->avg_frame_rate;
  const double frameRate = rate.den ? av_q2d(rate) : 25.0;
  AVPacket* packet = av_packet_alloc();
  AVFrame* frame = av_frame_alloc();
  SwsContext* scaler = nullptr;

  auto take = [&]() {
    while (int(out.size()) < count && avcodec_receive_frame(context, frame) == 0) {
      const int w = width ? width : frame->width;
      const int h = height ? height : frame->height;
      scaler = sws_getCachedContext(scaler, frame->width, frame->height,
                                    AVPixelFormat(frame->format), w, h, AV_PIX_FMT_BGRA,
                                    SWS_BILINEAR | SWS_ACCURATE_RND | SWS_BITEXACT, nullptr,
                                    nullptr, nullptr);
      zylTestPicture picture;
      picture.width = w;
      picture.height = h;
      picture.frameRate = frameRate;
      picture.pixels.assign(size_t(w) * h * 4, 0);
      uint8_t* planes[4] = {picture.pixels.data(), nullptr, nullptr, nullptr};
      int strides[4] = {w * 4, 0, 0, 0};
      sws_scale(scaler, frame->data, frame->linesize, 0, frame->height, planes, strides);
      for (size_t i = 3; i < picture.pixels.size(); i += 4) picture.pixels[i] = 255;
      out.push_back(std::move(picture));
    }
  };
  while (int(out.size()) < count && av_read_frame(format, packet) >= 0) {
    if (packet->stream_index == stream && avcodec_send_packet(context, packet) == 0) take();
    av_packet_unref(packet);
  }
  if (int(out.size()) < count) {
    avcodec_send_packet(context, nullptr);
    take();
  }
  sws_freeContext(scaler);
  av_frame_free(&frame);
  av_packet_free(&packet);
  avcodec_free_context(&context);
  avformat_close_input(&format);
  return out;
}

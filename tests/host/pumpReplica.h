// The frame pump's side of the handshake, step by step as the library runs it, so that the
// source's tests drive the streams exactly as an encode job does without linking the encoders.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "codec/zylCodec.h"

namespace pump {

constexpr uint32_t kGrabTimeoutMs = 300;
constexpr uint32_t kSampleWaitMs = 50;

inline bool SeekToFrame(zylSource* source, uint32_t frame) {
  zylTimeFormat format = zylTimeFormatNone;
  source->videoSeeking->GetTimeFormat(&format);
  if (format == zylTimeFormatNone) return false;
  const uint32_t savedTimeout = source->grabberTimeout;
  if (savedTimeout == 0) {
    source->grabberTimeout = kSampleWaitMs;
    source->videoControl->Run();
    int32_t code = 0;
    if (source->videoEvent->WaitForCompletion(0, &code) != 0) {
      zylSetEvent(source->videoGoEvent);
      zylWaitForSingleObject(source->videoGrabber->doneEvent, kSampleWaitMs);
    }
  }
  const int64_t time = int64_t(double(frame) / source->frameRate * 10000000.0);
  const int32_t seekResult = source->videoSeeking->SetPositions(time);
  source->grabberTimeout = savedTimeout;
  if (seekResult != 0) return false;
  if (source->audioSampleRate == 0) return true;
  zylTimeFormat audioFormat = zylTimeFormatNone;
  source->audioSeeking->GetTimeFormat(&audioFormat);
  if (audioFormat == zylTimeFormatNone) return false;
  int64_t sample = int64_t(double(frame) / source->frameRate * source->audioSampleRate);
  sample = (sample + 3) & ~int64_t(3);
  const int64_t audioTime = int64_t(double(sample) * 10000000.0 / source->audioSampleRate);
  int64_t position = 0;
  if (source->audioSeeking->ConvertTimeFormat(&position, audioFormat, audioTime,
                                              zylTimeFormatMediaTime) != 0) {
    return false;
  }
  return source->audioSeeking->SetPositions(position) == 0;
}

inline bool GrabFrame(zylSource* source, zylFrameImage& image) {
  if (!source->videoControl) return false;
  source->videoControl->Run();
  int32_t code = 0;
  if (source->videoEvent->WaitForCompletion(0, &code) == 0) return false;
  zylSetEvent(source->videoGoEvent);
  zylVideoGrabber* grabber = source->videoGrabber;
  if (zylWaitForSingleObject(grabber->doneEvent, kGrabTimeoutMs) == zylWaitTimeout) return false;
  const int32_t width = source->width;
  const int32_t height = source->height;
  if (!image.pixels || image.width != width || image.height != height) {
    image.Release();
    image.pixels = static_cast<uint8_t*>(std::malloc(size_t(width) * size_t(height) * 4));
    image.width = width;
    image.height = height;
  }
  for (int32_t y = 0; y < height; ++y) {
    const uint8_t* in = grabber->data + size_t(height - 1 - y) * size_t(width) * 3;
    uint8_t* out = image.pixels + size_t(y) * size_t(width) * 4;
    for (int32_t x = 0; x < width; ++x, in += 3, out += 4) {
      out[0] = in[0];
      out[1] = in[1];
      out[2] = in[2];
      out[3] = 255;
    }
  }
  return true;
}

inline bool ReadAudio(zylSource* source, uint8_t* buffer, uint32_t bytes) {
  if (!source->audioControl) return false;
  zylAudioGrabber* grabber = source->audioGrabber;
  if (!source->audioEnded) {
    source->audioControl->Run();
    while (uint32_t(grabber->fill) < bytes) {
      zylSetEvent(source->audioGoEvent);
      zylWaitForSingleObject(grabber->doneEvent, kSampleWaitMs);
      int32_t code = 0;
      if (source->audioEvent->WaitForCompletion(0, &code) == 0) {
        source->audioEnded = 1;
        break;
      }
    }
  }
  const uint32_t fill = uint32_t(grabber->fill);
  if (fill < bytes) {
    std::memset(buffer, 0, bytes);
    if (fill) std::memcpy(buffer, grabber->data, fill);
    grabber->fill = 0;
  } else {
    std::memcpy(buffer, grabber->data, bytes);
    std::memmove(grabber->data, grabber->data + bytes, fill - bytes);
    grabber->fill = int32_t(fill - bytes);
  }
  return !source->audioEnded;
}

}  // namespace pump

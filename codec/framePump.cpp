#include "codec/framePump.h"

#include <cstring>

#include "codec/zycCodec.h"

bool SeekToFrame(zylSource* source, uint32_t frame) {
  zylTimeFormat format = zylTimeFormatNone;
  if (!source->videoSeeking) return false;
  source->videoSeeking->GetTimeFormat(&format);
  if (format == zylTimeFormatNone) return false;

  // A callback waiting without limit would hold the seek: pace the graph for the time of the
  // seek and let one sample through.
  const uint32_t savedTimeout = source->grabberTimeout;
  if (savedTimeout == 0) {
    source->grabberTimeout = kSampleWaitMs;
    if (source->videoControl) source->videoControl->Run();
    int32_t code = 0;
    if (source->videoEvent && source->videoEvent->WaitForCompletion(0, &code) != 0) {
      zylSetEvent(source->videoGoEvent);
      zylWaitForSingleObject(source->videoGrabber->doneEvent, kSampleWaitMs);
    }
  }
  const int64_t time = int64_t(double(frame) / source->frameRate * 10000000.0);
  const int32_t seekResult = source->videoSeeking->SetPositions(time);
  source->grabberTimeout = savedTimeout;
  if (seekResult != 0) return false;

  if (source->audioSampleRate == 0) return true;
  if (!source->audioSeeking) return false;
  zylTimeFormat audioFormat = zylTimeFormatNone;
  source->audioSeeking->GetTimeFormat(&audioFormat);
  if (audioFormat == zylTimeFormatNone) return false;

  // The sound starts on a multiple of 4 samples.
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

bool GrabFrame(zylSource* source, zylFrameImage& image) {
  if (!source->videoControl) return false;
  source->videoControl->Run();
  int32_t code = 0;
  if (source->videoEvent->WaitForCompletion(0, &code) == 0) return false;
  zylSetEvent(source->videoGoEvent);
  zylVideoGrabber* grabber = source->videoGrabber;
  if (zylWaitForSingleObject(grabber->doneEvent, kGrabTimeoutMs) == zylWaitTimeout) return false;

  const int32_t width = source->width;
  const int32_t height = source->height;
  if (height < 1 || width < 1) return true;
  if (!image.pixels || image.width != width || image.height != height) {
    image.Release();
    image.pixels = static_cast<uint8_t*>(std::malloc(size_t(width) * size_t(height) * 4));
    if (!image.pixels) return true;
    image.width = width;
    image.height = height;
  }
  // A grabber that holds no whole picture (its buffer could not be allocated) leaves the image
  // as it was.
  const uint8_t* data = grabber->data;
  if (!data || int64_t(grabber->capacity) < int64_t(width) * height * 3) return true;

  // The grabber's picture is bottom row first; ours is top row first.
  for (int32_t y = 0; y < height; ++y) {
    const uint8_t* in = data + (size_t(height - 1 - y) * size_t(width)) * 3;
    uint8_t* out = image.pixels + size_t(y) * size_t(width) * 4;
    for (int32_t x = 0; x < width; ++x) {
      out[0] = in[0];
      out[1] = in[1];
      out[2] = in[2];
      out[3] = 255;
      in += 3;
      out += 4;
    }
  }
  return true;
}

bool ReadAudio(zylSource* source, uint8_t* buffer, uint32_t bytes) {
  if (!source->audioControl) return false;
  zylAudioGrabber* grabber = source->audioGrabber;
  if (!source->audioEnded) {
    source->audioControl->Run();
    while (uint32_t(grabber->fill) < bytes) {
      zylSetEvent(source->audioGoEvent);
      // A time-out simply goes round again.
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
    if (buffer) {
      std::memset(buffer, 0, bytes);
      if (fill) std::memcpy(buffer, grabber->data, fill);
    }
    grabber->fill = 0;
  } else {
    if (buffer && bytes) std::memcpy(buffer, grabber->data, bytes);
    if (fill > bytes) std::memmove(grabber->data, grabber->data + bytes, fill - bytes);
    grabber->fill = int32_t(fill - bytes);
  }
  return !source->audioEnded;
}

const uint8_t* zylAudioSupplier(uint32_t bytes, void* user) {
  zycCodec* codec = static_cast<zycCodec*>(user);
  codec->audioBuffer.Resize(bytes);
  // A buffer that could not grow to `bytes` is not written into.
  uint8_t* buffer = codec->audioBuffer.capacity() >= bytes ? codec->audioBuffer.data() : nullptr;
  ReadAudio(codec->source, buffer, bytes);
  return codec->audioBuffer.data();
}

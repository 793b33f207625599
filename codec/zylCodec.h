// zylCodec.h: the one header a host includes.
//
// The library exports a single function, zylInitCodec, which makes a codec object and hands back
// the pure interface zylCodec. Everything else (parameters, encode jobs, file surgery) goes
// through the fifteen operations of that interface, in the slot order below.
//
// The media source is described by zylSource: the host owns a video and an audio stream that
// deliver samples from their own streaming threads through the grabber callbacks defined here,
// and the library pulls one picture (and the sound that goes with it) at a time by a handshake of
// "go" and "done" events. The events, the grabber callbacks and the small media interfaces are
// defined inline in this header so that host and library share one definition without any
// further exported symbol.
//
// File names cross the interface as UTF-16 (char16_t) strings; the library converts them to
// UTF-8 before they reach the file system.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>

// The records handed across the interface: zylProgress and its callback, zylKeyframeRange,
// zylSourceInfo, zylFrameImage.
#include "base/zylTypes.h"

#if defined(_WIN32)
#define ZYL_API __declspec(dllexport)
#else
#define ZYL_API __attribute__((visibility("default")))
#endif

// ---------------------------------------------------------------------------------------------
// Parameter tags: four characters in memory order, read as a little-endian 32-bit value.

constexpr uint32_t zylTag(char a, char b, char c, char d) {
  return uint32_t(uint8_t(a)) | uint32_t(uint8_t(b)) << 8 | uint32_t(uint8_t(c)) << 16 |
         uint32_t(uint8_t(d)) << 24;
}

// The tag table (defaults are what GetParam answers after construction, in mode 0):
//   "HXTC" header version word (set only)          "FXTC", "GXTC" stored, unused (set only)
//   "DXTC" DXT1 back end 0..6 (default 0; 0 reads back 3 once a job found no display device)
//   "EXTC" sound into the streams (set only, 0)     "IXTC", "JXTC" header tail words (set only)
//   "YUV\0" YUV colour coding (0)                   "SND\0" sound wanted at all (1)
//   "RATI" compression ratio (100)                  "MOTI" motion candidates 256 >> n (0)
//   "FACT" fade references on (1)                   "cMIN" lowest error threshold (0)
//   "cMAX" error limit (100000)                     "iRAT" slack share in percent (20)
//   "iDMP" key frame budget, ms of slack (1000)     "iRNG" shortest key frame distance, ms (3000)
//   "iFMT" key frame format (0 tree, 1 still image) "jFMT" P-frame format (0 DXT1, 1 table)
//   "kFMT","lFMT","mFMT" table-block size ratios (5, 6, 12; also through GetParamF/SetParamF)
//   "nFMT" packer 0 zlib, 1 LZMA (0)                "oFMT" sound lead base (16000)
//   "pFMT" sound flags (32)                         "qFMT" key frame on sound block (0)
//   "rFMT" last frame is a key frame (0)            "sFMT", "tFMT" header values (0)
//   "uFMT" block table bytes of still images        "vFMT" LZMA dictionary size (65536)
//   "wFMT" verbose console messages (1)
//   "THRD" threads sharing each ZYL0 frame's work, 0 one per core (0); the movie is the same
//          for any count, and every thread is joined before the call that started it returns
//   "xFMT","yFMT","zFMT","{FMT" ZYL1 I-frame budget (18, 2500, 1000, 7500)

// ---------------------------------------------------------------------------------------------
// Events: auto-reset, in the manner of SetEvent / WaitForSingleObject.

constexpr uint32_t zylWaitObject0 = 0;     // the event was set
constexpr uint32_t zylWaitTimeout = 258;   // the time ran out
constexpr uint32_t zylInfinite = 0xFFFFFFFFu;

class zylEvent {
 public:
  // Sets the event; one waiter (present or next) takes it and the event resets itself.
  void Set() {
    std::lock_guard<std::mutex> lock(mutex_);
    signalled_ = true;
    cond_.notify_one();
  }
  // Waits up to `milliseconds` (zylInfinite: for ever). Returns zylWaitObject0 or zylWaitTimeout.
  uint32_t Wait(uint32_t milliseconds) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (milliseconds == zylInfinite) {
      cond_.wait(lock, [this] { return signalled_; });
    } else if (!cond_.wait_for(lock, std::chrono::milliseconds(milliseconds),
                               [this] { return signalled_; })) {
      return zylWaitTimeout;
    }
    signalled_ = false;
    return zylWaitObject0;
  }

 private:
  std::mutex mutex_;
  std::condition_variable cond_;
  bool signalled_ = false;
};

inline void zylSetEvent(zylEvent* event) { event->Set(); }
inline uint32_t zylWaitForSingleObject(zylEvent* event, uint32_t milliseconds) {
  return event->Wait(milliseconds);
}

// ---------------------------------------------------------------------------------------------
// The media operations the frame pump needs. A host implements them over its own decoder.

enum zylTimeFormat : uint32_t {
  zylTimeFormatNone = 0,       // the null format: the stream can't seek
  zylTimeFormatMediaTime = 1,  // units of 100 ns
  zylTimeFormatSample = 2,     // audio samples
  zylTimeFormatFrame = 3,      // video frames
};

class zylMediaControl {
 public:
  // Starts the stream, or keeps it running. The result is not looked at.
  virtual int32_t Run() = 0;

 protected:
  ~zylMediaControl() = default;
};

class zylMediaEvent {
 public:
  // Returns 0 only once the stream has ended; any other value means it still runs.
  virtual int32_t WaitForCompletion(uint32_t timeoutMs, int32_t* eventCode) = 0;

 protected:
  ~zylMediaEvent() = default;
};

class zylMediaSeeking {
 public:
  // Returns 0 and the stream's time format; zylTimeFormatNone means it can't seek.
  virtual int32_t GetTimeFormat(zylTimeFormat* format) = 0;
  // Seeks to an absolute position in the stream's time format, no stop position; 0 on success.
  virtual int32_t SetPositions(int64_t position) = 0;
  // Converts a position between formats; 0 on success.
  virtual int32_t ConvertTimeFormat(int64_t* target, zylTimeFormat targetFormat, int64_t source,
                                    zylTimeFormat sourceFormat) = 0;

 protected:
  ~zylMediaSeeking() = default;
};

struct zylSource;

// The sample callback a stream calls on its own thread, one sample at a time.
class zylSampleGrabberCB {
 public:
  virtual int32_t BufferCB(double sampleTime, const uint8_t* buffer, int32_t length) = 0;

 protected:
  ~zylSampleGrabberCB() = default;
};

// Video: packed 24-bit samples (B, G, R), bottom row first, rows padded to 4 bytes.
class zylVideoGrabber : public zylSampleGrabberCB {
 public:
  zylSource* source = nullptr;
  zylEvent* doneEvent = nullptr;  // set when a sample has been taken
  uint8_t* data = nullptr;        // the last picture, rows unpadded
  int32_t capacity = 0;

  ~zylVideoGrabber() { std::free(data); }
  inline int32_t BufferCB(double sampleTime, const uint8_t* buffer, int32_t length) override;
};

// Audio: interleaved 16-bit PCM, appended behind what the pump has not yet taken.
class zylAudioGrabber : public zylSampleGrabberCB {
 public:
  zylSource* source = nullptr;
  zylEvent* doneEvent = nullptr;
  uint8_t* data = nullptr;
  int32_t capacity = 0;
  int32_t fill = 0;  // valid bytes in `data`

  ~zylAudioGrabber() { std::free(data); }
  inline int32_t BufferCB(double sampleTime, const uint8_t* buffer, int32_t length) override;
};

// The host's source descriptor. The host fills it and keeps it alive during a job.
struct zylSource {
  double frameRate = 0;            // frames per second
  uint32_t frameCount = 0;         // frames in the source
  int32_t width = 0;               // picture size in pixels
  int32_t height = 0;
  int32_t audioChannels = 0;       // channels of 16-bit samples
  int32_t audioSampleRate = 0;     // samples per second; 0: no sound
  zylMediaControl* videoControl = nullptr;  // null: no source
  zylMediaEvent* videoEvent = nullptr;
  zylMediaSeeking* videoSeeking = nullptr;
  zylVideoGrabber* videoGrabber = nullptr;
  zylMediaControl* audioControl = nullptr;  // null: no sound
  zylMediaEvent* audioEvent = nullptr;
  zylMediaSeeking* audioSeeking = nullptr;
  uint32_t grabberTimeout = 0;     // ms the callbacks wait for "go"; 0: for ever
  zylAudioGrabber* audioGrabber = nullptr;
  uint8_t audioEnded = 0;          // the audio stream has reported its end
  zylEvent* videoGoEvent = nullptr;
  zylEvent* audioGoEvent = nullptr;
};

inline int32_t zylVideoGrabber::BufferCB(double, const uint8_t* buffer, int32_t length) {
  zylWaitForSingleObject(source->videoGoEvent,
                         source->grabberTimeout ? source->grabberTimeout : zylInfinite);
  if (length > capacity) {
    std::free(data);
    data = static_cast<uint8_t*>(std::malloc(size_t(length)));
    capacity = data ? length : 0;
  }
  const int32_t width = source->width;
  const int32_t height = source->height;
  const int32_t rowBytes = width * 3;
  const int32_t pitch = ((width + 1) * 3) & ~3;
  // A sample shorter than the picture it claims to be is dropped rather than read past its end.
  const bool whole = width > 0 && height > 0 &&
                     int64_t(pitch) * (height - 1) + rowBytes <= int64_t(length);
  if (data && whole && int64_t(rowBytes) * height <= capacity) {
    for (int32_t y = 0; y < height; ++y) {
      std::memcpy(data + int64_t(y) * rowBytes, buffer + int64_t(y) * pitch, size_t(rowBytes));
    }
  }
  zylSetEvent(doneEvent);
  return 0;
}

inline int32_t zylAudioGrabber::BufferCB(double, const uint8_t* buffer, int32_t length) {
  zylWaitForSingleObject(source->audioGoEvent,
                         source->grabberTimeout ? source->grabberTimeout : zylInfinite);
  if (fill + length > capacity) {
    uint8_t* grown = static_cast<uint8_t*>(std::realloc(data, size_t(fill) + size_t(length)));
    if (grown) {
      data = grown;
      capacity = fill + length;
    }
  }
  if (fill + length <= capacity) {
    std::memcpy(data + fill, buffer, size_t(length));
    fill += length;
  }
  zylSetEvent(doneEvent);
  return 0;
}

// ---------------------------------------------------------------------------------------------
// The codec interface. Status codes of slots 7, 10 and 11:
//   0 success; 1 the progress callback stopped the job (the movie is valid up to that frame);
//   2 no source / a file can't be opened / file2 has the wrong magic;
//   3 an output can't be opened, the first frame failed, or Append's file1 is wrong;
//     ReplaceSection: the temporary file could not be renamed; any of the three: a write, seek,
//     flush or close of an output failed. When a file could not be opened or written, errno
//     holds the system's reason on return (ENOSPC, EFBIG, ...); after a refusal it is 0.
//     A failed encode leaves its movie cut back to the last whole frame that fitted (no frame:
//     an empty file); a failed Append leaves file1 as it was; a failed ReplaceSection leaves
//     both files as they were and no temporary file;
//   4 frame range refused; 5 headers not compatible; 6 ReplaceSection in an unknown mode;
//   7 ReplaceSection: file1 has the wrong magic.

class zylCodec {
 public:
  // Slot 0: destroys the object.
  virtual void Destroy() = 0;
  // Slot 1: a parameter as an integer; -1 for an unknown tag or mode.
  virtual int32_t GetParam(uint32_t tag) = 0;
  // Slot 2: "kFMT", "lFMT", "mFMT" as floats in mode 0; otherwise -1.0.
  virtual float GetParamF(uint32_t tag) = 0;
  // Slot 3: sets "kFMT", "lFMT", "mFMT" as floats in mode 0.
  virtual void SetParamF(uint32_t tag, float value) = 0;
  // Slot 4: sets a parameter.
  virtual void SetParam(uint32_t tag, int32_t value) = 0;
  // Slot 5: 0 selects ZYL0, 1 ZYL1.
  virtual void SetCodecMode(uint32_t mode) = 0;
  // Slot 6: encodes the whole source.
  virtual int32_t Encode(zylSource* source, uint32_t reserved, const char16_t* outputName) = 0;
  // Slot 7: the encode job. frameCount 0 means all frames. keyframePlan may be null.
  // outputNameBuffer, when given, receives the name of the last file written and must hold 260
  // characters.
  virtual int32_t Encode(zylSource* source, uint32_t reserved, const char16_t* outputName,
                         uint32_t firstFrame, uint32_t frameCount,
                         const zylKeyframeRange* keyframePlan, char16_t* outputNameBuffer) = 0;
  // Slot 8: slot 7 without plan and name buffer; the last word is ignored.
  virtual int32_t Encode(zylSource* source, uint32_t reserved, const char16_t* outputName,
                         uint32_t firstFrame, uint32_t frameCount, uint32_t unused) = 0;
  // Slot 9: slot 8 with 0 for the last word.
  virtual int32_t Encode(zylSource* source, uint32_t reserved, const char16_t* outputName,
                         uint32_t firstFrame, uint32_t frameCount) = 0;
  // Slot 10: appends ZYL0 movie file2 to file1.
  virtual int32_t Append(const char16_t* file1, const char16_t* file2) = 0;
  // Slot 11: replaces frames [frameStart, frameStart + frameCount) of file1, which must begin and
  // end on key frames, by the frames of file2.
  virtual int32_t ReplaceSection(const char16_t* file1, const char16_t* file2, uint32_t frameStart,
                                 uint32_t frameCount) = 0;
  // Slots 12, 13: while true, the job opens no extra numbered outputs.
  virtual void SetSkipExtraFiles(uint8_t skip) = 0;
  virtual bool GetSkipExtraFiles() = 0;
  // Slot 14: copies six values out of a source descriptor.
  virtual zylSourceInfo GetSourceInfo(uint32_t reserved, const zylSource* source) = 0;

 protected:
  ~zylCodec() = default;
};

extern "C" ZYL_API zylCodec* zylInitCodec(zylProgressCallback callback, uint32_t user);

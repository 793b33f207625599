// A media source for the codec on FFmpeg's libraries: any file FFmpeg reads becomes a zylSource.
//
// The file is opened twice, once for the picture and once for the sound, so that each stream
// seeks on its own. Each stream has a streaming thread that decodes one sample ahead and hands
// it to the grabber callback of the descriptor, which holds the thread until the frame pump sets
// the stream's "go" event. Pictures arrive as 24-bit B, G, R rows, bottom row first, each row
// padded to a multiple of 4 bytes; sound as interleaved 16-bit PCM at the file's own rate.
//
// Frame numbers count from the first picture the decoder delivers. Seeking is frame-accurate:
// after a seek the stream's next sample is the one at the new position (see the pump's
// handshake in codec/zylCodec.h). The end of a stream is reported by WaitForCompletion
// returning 0 once its last sample has been delivered.
//
// The source keeps `grabberTimeout` at 0: the callbacks wait for "go" without limit, which is
// what holds the streams still between frames.
#pragma once

#include <memory>
#include <string>

#include "codec/zylCodec.h"

class zycFfmpegSource {
 public:
  zycFfmpegSource();
  ~zycFfmpegSource();
  zycFfmpegSource(const zycFfmpegSource&) = delete;
  zycFfmpegSource& operator=(const zycFfmpegSource&) = delete;

  // Opens `path` and fills the descriptor. With `wantSound` false the sound stream is left
  // closed. False with error() naming the file: "No input!", "No video stream found!",
  // "Unsupported media type!", "Invalid FPS", "Set format failed".
  bool Open(const std::string& path, bool wantSound = true);
  // Stops and joins the streaming threads and releases everything. Open may follow.
  void Close();

  // The descriptor to hand to the codec; valid between Open and Close.
  zylSource* source();
  const std::string& error() const;
  // A remark that is not a failure, such as "No Audio stream found!" for a silent file.
  const std::string& note() const;
  // The file's stream description, as "h264 568x320 30 fps, aac mono 44100 Hz".
  const std::string& description() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

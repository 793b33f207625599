// A media source for the codec on FFmpeg's libraries: any file FFmpeg reads becomes a zylSource.
//
// Sound of more than two channels is downmixed to stereo, the most the movie holds.
//
// The file is opened twice, once for the picture and once for the sound, so that each stream
// seeks on its own. Each stream has a streaming thread that decodes one sample ahead and hands
// it to the grabber callback of the descriptor, which holds the thread until the frame pump sets
// the stream's "go" event. Pictures arrive as 24-bit B, G, R rows, bottom row first, each row
// padded to a multiple of 4 bytes; sound as interleaved 16-bit PCM at the file's own rate.
//
// Frame numbers count from the first picture the decoder delivers, at the file's frame rate:
// frame k is the last picture whose time stamp is at or before k / rate, so gaps in the time
// stamps repeat a picture and the count is one behind the number of the last picture. Seeking
// is frame-accurate: after a seek the stream's next sample is the one at the new position, and
// whatever a callback held from before the seek is let go and its "done" taken back. The sound
// starts at the time of the first picture and follows on without gaps.
//
// WaitForCompletion lets a stream settle before it answers: the picture stream answers 0 once
// its last picture went out and otherwise only when the next picture waits at the grabber, so
// the pump's 300 ms wait covers the hand-over and not the decoding; the sound stream answers
// only when no callback is appending and no "go" is left pending, so the pump may read the
// grabber's buffer.
//
// The source keeps `grabberTimeout` at 0: the callbacks wait for "go" without limit, which is
// what holds the streams still between frames. The pump raises it only during a seek.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "codec/zylCodec.h"

// How the file's pictures and sound are shaped on the way in.
struct zycSourceOptions {
  bool wantSound = true;  // false: the sound stream is left closed
  double frameRate = 0;   // pictures are sampled at this rate instead of the file's (0: its own)
  // A filter graph of the FFmpeg filter library that takes one picture and gives one, such as
  // "scale=320:240" or "crop=iw/2:ih:0:0"; empty for none. Where it gives none, the picture
  // before repeats. The file's rotation is applied before it.
  std::string filters;
  bool autoRotate = true;  // turn pictures upright by the stream's display matrix
};

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
  bool Open(const std::string& path, const zycSourceOptions& options);
  // Stops and joins the streaming threads and releases everything. Open may follow.
  void Close();

  // The descriptor to hand to the codec; valid between Open and Close.
  zylSource* source();
  const std::string& error() const;
  // A remark that is not a failure, such as "No Audio stream found!" for a silent file.
  const std::string& note() const;
  // The file's stream description, as "h264 568x320 30 fps, aac mono 44100 Hz".
  const std::string& description() const;
  // What was changed on the way in ("sound downmixed from 6 to 2 channels", "pictures turned
  // 90 degrees by the file's rotation"), one text each; empty when nothing.
  const std::vector<std::string>& changes() const;
  // Remarks about the file that may make the movie differ from what the user expects, such as
  // sound and pictures that do not overlap in time.
  const std::vector<std::string>& warnings() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

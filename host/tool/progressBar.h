// The encode command's progress line on stderr, as
//   [######......] 45/100 frames 12.3 fps 640 kB (budget 700 kB) 3 keys 0:05 left
// the frames done of those wanted, the frames coded a second, the bytes written against the
// budget of the frames done, the key frames so far and the time left. It fits the terminal's
// width (80 columns unless told otherwise), the bar taking what room is left. Redrawn in place
// on a terminal, at most ten times a second; elsewhere it stays silent.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>

#include "codec/zylCodec.h"

class ProgressBar {
 public:
  // `totalFrames` 0: unknown. `frameBudget`: bytes a frame may take, 0 when unknown.
  ProgressBar(FILE* out, bool enabled, uint32_t totalFrames, double frameBudget,
              size_t width = 80);
  // After every coded frame.
  void Update(const zylProgress& progress);
  // Ends the line so that later messages start on their own.
  void Finish();

  uint32_t frames() const { return frames_; }
  double bytes() const { return bytes_; }
  double seconds() const;
  // The line as drawn after `elapsed` seconds, without the carriage return.
  std::string Line(double elapsed) const;

 private:
  void Draw(bool force);

  FILE* out_;
  bool enabled_;
  size_t width_;
  bool drawn_ = false;
  uint32_t total_;
  double frameBudget_;
  uint32_t frames_ = 0;
  uint32_t keyFrames_ = 0;
  double bytes_ = 0;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point lastDraw_;
};

// The encode command's progress line on stderr: frames, speed, size against the budget, the
// encoder's credit and the time left. Redrawn in place on a terminal, at most ten times a
// second; elsewhere it stays silent.
#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>

#include "codec/zylCodec.h"

class ProgressBar {
 public:
  // `totalFrames` 0: unknown. `frameBudget`: bytes a frame may take, 0 when unknown.
  ProgressBar(FILE* out, bool enabled, uint32_t totalFrames, double frameBudget);
  // After every coded frame.
  void Update(const zylProgress& progress);
  // ZYL1 movies: the line also counts P-frames and repeats.
  void ShowFrameModes(bool on) { showModes_ = on; }
  // Ends the line so that later messages start on their own.
  void Finish();

  uint32_t frames() const { return frames_; }
  double bytes() const { return bytes_; }
  double seconds() const;

 private:
  void Draw(bool force);

  FILE* out_;
  bool enabled_;
  bool drawn_ = false;
  uint32_t total_;
  double frameBudget_;
  uint32_t frames_ = 0;
  uint32_t keyFrames_ = 0;
  bool showModes_ = false;
  uint32_t pFrames_ = 0;
  uint32_t repeats_ = 0;
  const char* lastMode_ = "";
  double bytes_ = 0;
  int32_t credit_ = 0;
  std::chrono::steady_clock::time_point start_;
  std::chrono::steady_clock::time_point lastDraw_;
};

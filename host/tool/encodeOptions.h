// The encode command's option values that need more than a number: times, rates, sizes and
// the key frame interval, and the choice of "RATI" for a data rate.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

// "90", "12.5", "1:30" or "0:01:30.5": seconds. False for anything else.
bool ParseTime(const std::string& text, double* seconds);

// "800k", "1.5M", "64000": an amount above 0 with an optional decimal k, M or G, and then
// `unit` (such as "B") or nothing.
bool ParseAmount(const std::string& text, const char* unit, double* value);

// "WxH" with each side a whole number above 0.
bool ParseSize(const std::string& text, uint32_t* width, uint32_t* height);

// "N" (frames) or "Ns" (seconds), above 0.
struct KeyInterval {
  double frames = 0;  // whole frames, or 0
  double seconds = 0; // or a time
};
bool ParseKeyInterval(const std::string& text, KeyInterval* interval);

// What the rate a movie is asked to reach depends on.
struct RateInputs {
  uint32_t paddedWidth = 0;
  uint32_t paddedHeight = 0;
  double frameRate = 0;
  uint32_t frames = 0;        // the frames of the job
  uint32_t soundRate = 0;     // 0: no sound in the movie
  uint32_t soundChannels = 0;
};

// A frame's budget, sound included, is the padded picture's RGB bytes and the frame's share of
// 16-bit sound, divided by the ratio; the encoder keeps the frame's two-bit sound inside it.
double FrameBudget(const RateInputs& inputs, int32_t ratio);
// What of it is left to the picture.
double PictureBudget(const RateInputs& inputs, int32_t ratio);
// The largest ratio that leaves the picture at least `bytes` a frame; at least 1.
int32_t RatioForPictureBudget(const RateInputs& inputs, double bytes);

// The "RATI" whose frames take `bytes` in all for the job, with the sound and the file's own
// structure counted; at least 1.
int32_t RatioForBytes(const RateInputs& inputs, double bytes);

// Writes small clips with known contents through FFmpeg's muxers: raw 24-bit pictures and
// 16-bit PCM, so a reader's output can be compared byte for byte with what went in.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct SyntheticClip {
  int width = 37;
  int height = 21;
  int frames = 12;
  int fps = 10;
  int channels = 2;      // 0: no sound
  int sampleRate = 8000;
  bool video = true;     // false: sound only
  double soundDelay = 0; // seconds the sound starts behind the first picture
  int rotation = 0;      // degrees clockwise a player turns the pictures (".mov" keeps it)
};

// The picture of frame `index` as rows of B, G, R bytes, top row first, no padding.
std::vector<uint8_t> SyntheticPicture(const SyntheticClip& clip, int index);
// The whole sound of the clip as interleaved 16-bit samples.
std::vector<int16_t> SyntheticSound(const SyntheticClip& clip);
// Writes the clip; the container follows the name's extension (".nut", ".wav", ...).
// Returns an empty string or the reason of a failure.
std::string WriteSyntheticClip(const SyntheticClip& clip, const std::string& path);

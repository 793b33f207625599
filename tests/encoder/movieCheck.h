// Reads a written ZYL0 movie back on its own: walks the sections, unpacks them (raw inflate or
// LZMA), splits the frames into items and runs a fresh frame decoder over them. Shares only the
// format walkers and the decoder with the encoder, none of its writing code.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "stream/zylFormat.h"

struct zycMovieCheck {
  // Asked for: the decoder's kernel set (blockDecoder.h; -1: the one Setup picks); every
  // picture kept.
  int kernels = -1;
  bool keepPictures = false;

  zycStreamHeader header;
  std::vector<uint32_t> sectionFrames;          // frames of each section
  std::vector<std::vector<uint8_t>> unpacked;   // each section's bytes
  std::vector<std::vector<uint8_t>> frames;     // each frame's bytes, items included
  std::vector<uint8_t> frameFlags;              // each frame's flags byte
  std::vector<uint8_t> lastPicture;             // the last decoded picture, padded, 32-bit
  std::vector<std::vector<uint8_t>> pictures;   // every frame's picture, with keepPictures
  uint32_t fadeFrames = 0;                      // frames with a fade
  std::string error;
};

// Reads a whole file.
std::vector<uint8_t> zycReadWholeFile(const std::string& path);
// Checks and decodes `bytes`. False with `check->error` on any fault.
bool zycCheckMovie(const std::vector<uint8_t>& bytes, zycMovieCheck* check);

// Decoder of the 2-bit ADPCM sound chunks carried by ZYL0 frames. A chunk starts with the coder's
// state (mono: predictor high byte, low byte, step index; stereo: left predictor high, low, right
// predictor high, low, left step index, right step index), so every chunk decodes on its own.
// The codes follow, 2 bits a sample, four to a byte, the first in the top bits; stereo puts the
// left code before the right one of each sample pair.
//
// The step update below is shared with the coder (encoder/adpcm.cpp), which keeps the coder's
// reconstruction and this decoder's output the same sample for sample.
#pragma once

#include <cstdint>

// The 89 steps of IMA ADPCM, 7 to 32767.
extern const int16_t zycAdpcmStepTable[89];
// Step index change by code 0 to 3.
extern const int8_t zycAdpcmIndexChange[4];

constexpr int32_t kZycAdpcmMaxStepIndex = 88;

// Applies one code (bit 0: move by a quarter step, bit 1: downwards) to a channel's predictor and
// step index, as the coder did when it chose the code.
inline void zycAdpcmApplyCode(uint32_t code, int32_t& predictor, int32_t& stepIndex) {
  const int32_t delta = ((code & 1) ? int32_t(zycAdpcmStepTable[stepIndex]) : 0) >> 2;
  predictor = (code & 2) ? predictor - delta : predictor + delta;
  if (predictor < -32768) predictor = -32768;
  if (predictor > 32767) predictor = 32767;
  stepIndex += zycAdpcmIndexChange[code & 3];
  if (stepIndex < 0) stepIndex = 0;
  if (stepIndex > kZycAdpcmMaxStepIndex) stepIndex = kZycAdpcmMaxStepIndex;
}

// Header bytes of a chunk: 3 for mono, 6 for stereo; 0 for other channel counts.
uint32_t zycAdpcmHeaderSize(uint32_t channels);

// Samples per channel that a chunk of `bytes` bytes holds: every code of its last byte counts,
// so a part-filled last byte gives up to three (mono) or one (stereo) samples more than were
// coded. Chunks of the encoder always hold a multiple of 4 samples and are exact.
// 0 when `bytes` is shorter than the header or `channels` is not 1 or 2.
uint32_t zycAdpcmSamples(uint32_t bytes, uint32_t channels);

// Decodes a chunk into `out` (interleaved 16-bit, zycAdpcmSamples(bytes, channels) x channels
// values). Returns the samples per channel written, 0 for a chunk too short or a channel count
// other than 1 or 2.
uint32_t zycAdpcmDecode(const uint8_t* chunk, uint32_t bytes, uint32_t channels, int16_t* out);

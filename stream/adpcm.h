// 2-bit ADPCM coder of the sound item: one code per sample says up or down by a quarter step or
// not at all, and the step follows the 89-entry IMA step table. Its exact inverse, for players
// and the tool, is stream/adpcmDecoder.h.
#pragma once

#include <cstdint>

// Predictor and step index of each channel (0 left, 1 right). It runs over a whole job, across
// chunks and key frames; the encoder clears it when a job begins.
struct zycAdpcmState {
  int32_t predictor[2];
  int32_t stepIndex[2];
};

// Bytes of a chunk of `samplesPerChannel` samples: header (3 bytes mono, 6 stereo) and codes,
// a part-filled last byte counted whole. `channels` is 1 or 2.
uint32_t zycAdpcmChunkSize(uint32_t samplesPerChannel, uint32_t channels);

// Codes one chunk into `out`, which holds zycAdpcmChunkSize(...) bytes: first the header from the
// state at the chunk's start, then the codes. `pcm` is interleaved 16-bit. Returns the size, 0
// when `channels` is not 1 or 2. When `reconstruction` is given it receives, interleaved, the
// samples a decoder will rebuild from the chunk.
uint32_t zycAdpcmEncode(zycAdpcmState& state, const int16_t* pcm, uint32_t samplesPerChannel,
                        uint32_t channels, uint8_t* out, int16_t* reconstruction = nullptr);

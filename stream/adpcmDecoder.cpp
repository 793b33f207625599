#include "stream/adpcmDecoder.h"

const int16_t zycAdpcmStepTable[89] = {
    7,     8,     9,     10,    11,    12,    13,    14,    16,    17,    19,    21,    23,
    25,    28,    31,    34,    37,    41,    45,    50,    55,    60,    66,    73,    80,
    88,    97,    107,   118,   130,   143,   157,   173,   190,   209,   230,   253,   279,
    307,   337,   371,   408,   449,   494,   544,   598,   658,   724,   796,   876,   963,
    1060,  1166,  1282,  1411,  1552,  1707,  1878,  2066,  2272,  2499,  2749,  3024,  3327,
    3660,  4026,  4428,  4871,  5358,  5894,  6484,  7132,  7845,  8630,  9493,  10442, 11487,
    12635, 13899, 15289, 16818, 18500, 20350, 22385, 24623, 27086, 29794, 32767};

const int8_t zycAdpcmIndexChange[4] = {-1, +1, -1, +1};

uint32_t zycAdpcmHeaderSize(uint32_t channels) {
  return (channels == 1 || channels == 2) ? 3 * channels : 0;
}

uint32_t zycAdpcmSamples(uint32_t bytes, uint32_t channels) {
  const uint32_t header = zycAdpcmHeaderSize(channels);
  if (header == 0 || bytes < header) return 0;
  return (bytes - header) * 4 / channels;
}

uint32_t zycAdpcmDecode(const uint8_t* chunk, uint32_t bytes, uint32_t channels, int16_t* out) {
  const uint32_t samples = zycAdpcmSamples(bytes, channels);
  if (samples == 0) return 0;
  int32_t predictor[2] = {0, 0};
  int32_t stepIndex[2] = {0, 0};
  for (uint32_t c = 0; c < channels; ++c) {
    predictor[c] = int16_t(uint16_t(chunk[2 * c] << 8 | chunk[2 * c + 1]));
    stepIndex[c] = chunk[2 * channels + c];
    // A foreign chunk may carry an index past the table; the coder never writes one.
    if (stepIndex[c] > kZycAdpcmMaxStepIndex) stepIndex[c] = kZycAdpcmMaxStepIndex;
  }
  const uint8_t* codes = chunk + zycAdpcmHeaderSize(channels);
  const uint32_t count = samples * channels;
  for (uint32_t k = 0; k < count; ++k) {
    const uint32_t c = channels == 2 ? (k & 1) : 0;
    const uint32_t code = (codes[k >> 2] >> (6 - 2 * (k & 3))) & 3;
    zycAdpcmApplyCode(code, predictor[c], stepIndex[c]);
    out[k] = int16_t(predictor[c]);
  }
  return samples;
}

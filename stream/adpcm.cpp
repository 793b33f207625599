#include "stream/adpcm.h"

#include "stream/adpcmDecoder.h"

uint32_t zycAdpcmChunkSize(uint32_t samplesPerChannel, uint32_t channels) {
  const uint32_t header = zycAdpcmHeaderSize(channels);
  if (header == 0) return 0;
  // Mono: n / 4 bytes, plus one for a part-filled byte; stereo: n / 2, plus one when n is odd.
  return (samplesPerChannel * channels + 3) / 4 + header;
}

uint32_t zycAdpcmEncode(zycAdpcmState& state, const int16_t* pcm, uint32_t samplesPerChannel,
                        uint32_t channels, uint8_t* out, int16_t* reconstruction) {
  const uint32_t size = zycAdpcmChunkSize(samplesPerChannel, channels);
  if (size == 0) return 0;
  // The header holds the state at the chunk's start: the predictors high byte first, then the
  // step indices behind them.
  for (uint32_t c = 0; c < channels; ++c) {
    const uint16_t p = uint16_t(int16_t(state.predictor[c]));
    out[2 * c] = uint8_t(p >> 8);
    out[2 * c + 1] = uint8_t(p);
    out[2 * channels + c] = uint8_t(state.stepIndex[c]);
  }
  uint8_t* codes = out + zycAdpcmHeaderSize(channels);
  for (uint32_t i = 0; i < size - zycAdpcmHeaderSize(channels); ++i) codes[i] = 0;

  const uint32_t count = samplesPerChannel * channels;
  for (uint32_t k = 0; k < count; ++k) {
    const uint32_t c = channels == 2 ? (k & 1) : 0;
    int32_t& predictor = state.predictor[c];
    int32_t& stepIndex = state.stepIndex[c];
    int32_t d = int32_t(pcm[k]) - predictor;
    uint32_t code = 0;
    if (d < 0) {
      code = 2;
      d = -d;
    }
    // Move by a quarter step when the distance is at least that much; otherwise stay.
    if (4 * d / zycAdpcmStepTable[stepIndex] >= 1) code |= 1;
    zycAdpcmApplyCode(code, predictor, stepIndex);
    codes[k >> 2] |= uint8_t(code << (6 - 2 * (k & 3)));
    if (reconstruction) reconstruction[k] = int16_t(predictor);
  }
  return size;
}

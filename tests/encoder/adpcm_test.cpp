#include "stream/adpcm.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <vector>

#include "stream/adpcmDecoder.h"
#include "tests/support/audioSamples.h"
#include "tests/support/testMedia.h"

namespace {

std::vector<uint8_t> Encode(zycAdpcmState& state, const std::vector<int16_t>& pcm,
                            uint32_t channels, std::vector<int16_t>* reconstruction = nullptr) {
  const uint32_t n = uint32_t(pcm.size() / channels);
  std::vector<uint8_t> out(zycAdpcmChunkSize(n, channels), 0xAA);
  if (reconstruction) reconstruction->assign(pcm.size(), 0);
  const uint32_t size = zycAdpcmEncode(state, pcm.data(), n, channels, out.data(),
                                       reconstruction ? reconstruction->data() : nullptr);
  EXPECT_EQ(size, out.size());
  return out;
}

uint32_t Code(const std::vector<uint8_t>& chunk, uint32_t header, uint32_t k) {
  return (chunk[header + k / 4] >> (6 - 2 * (k % 4))) & 3;
}

}  // namespace

// Mono: three header bytes and a part-filled byte of codes. Stereo: six header bytes and an
// odd pair in a half byte. Other channel counts have no chunk.
TEST(AdpcmChunkSize, CountsHeaderAndPartFilledBytes) {
  const uint32_t cases[][3] = {{0, 1, 3},     {1, 1, 4},      {4, 1, 4},     {5, 1, 5},
                               {8, 1, 5},     {32000, 1, 8003}, {0, 2, 6},   {1, 2, 7},
                               {2, 2, 7},     {3, 2, 8},      {16000, 2, 8006}, {16, 0, 0},
                               {16, 3, 0}};
  for (const auto& c : cases)
    EXPECT_EQ(zycAdpcmChunkSize(c[0], c[1]), c[2]) << c[0] << " samples, " << c[1] << " channels";
  zycAdpcmState state = {};
  const int16_t pcm[6] = {1, 2, 3, 4, 5, 6};
  uint8_t out[8] = {};
  EXPECT_EQ(zycAdpcmEncode(state, pcm, 2, 3, out), 0u);
}

// Chunks worked out by hand. Mono: from a cleared state (predictor 0, step 7), 100 four times
// climbs by 1, 2, 2, 2 while the step grows 8, 9, 10, 11 (codes 1); -50 goes down by
// 11 >> 2 = 2 (code 3), step 12. The next chunk's header carries predictor 5 high byte first
// and step index 5, and 5 is within a quarter step (codes 0). Codes land in a byte from its top
// bits down: 0 no move, 100 up by 1, 0 less than a quarter step below, -100 down. Stereo: left
// 0 step 7, right 1000 step index 20 (50); left 10 up by 1 (code 1), right 1000 no move; left
// -10 down by 2 (code 3), right 2000 up by 45 >> 2 = 11 (code 1). Both step indices follow both
// predictors, and an odd pair leaves the low half of the last byte empty.
TEST(AdpcmEncode, ChunkBytesFromHand) {
  constexpr int kAny = -100000;  // not compared
  const struct {
    zycAdpcmState state;
    std::vector<int16_t> pcm;
    uint32_t channels;
    std::vector<uint8_t> chunk;
    std::vector<int16_t> rebuilt;  // empty: not compared
    std::array<int, 4> after;      // predictors and step indices, or kAny
  } cases[] = {
      {{}, {100, 100, 100, 100, -50}, 1, {0x00, 0x00, 0x00, 0x55, 0xC0}, {1, 3, 5, 7, 5},
       {5, kAny, 5, kAny}},
      {{{5, 0}, {5, 0}}, {5, 5, 5, 5}, 1, {0x00, 0x05, 0x05, 0x00}, {}, {kAny, kAny, 1, kAny}},
      {{{-300, 0}, {10, 0}}, {-300}, 1, {0xFE, 0xD4, 0x0A, 0x00}, {}, {kAny, kAny, 9, kAny}},
      {{}, {0, 100, 0, -100}, 1, {0x00, 0x00, 0x00, 0x1B}, {}, {kAny, kAny, kAny, kAny}},
      {{{0, 1000}, {0, 20}}, {10, 1000, -10, 2000}, 2,
       {0x00, 0x00, 0x03, 0xE8, 0x00, 0x14, 0x4D}, {1, 1000, -1, 1011}, {-1, 1011, 2, 20}},
      {{{-2, 0x1234}, {33, 88}}, {-2, 0x1234}, 2, {0xFF, 0xFE, 0x12, 0x34, 33, 88, 0x00}, {},
       {kAny, kAny, kAny, kAny}},
      {{}, {100, -100, 100, -100, 100, -100}, 2, {0, 0, 0, 0, 0, 0, 0x77, 0x70}, {},
       {kAny, kAny, kAny, kAny}},
  };
  int n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE("case " + std::to_string(n++));
    zycAdpcmState state = c.state;
    std::vector<int16_t> rebuilt;
    EXPECT_EQ(Encode(state, c.pcm, c.channels, &rebuilt), c.chunk);
    if (!c.rebuilt.empty()) {
      EXPECT_EQ(rebuilt, c.rebuilt);
    }
    const int got[4] = {state.predictor[0], state.predictor[1], state.stepIndex[0],
                        state.stepIndex[1]};
    for (int i = 0; i < 4; ++i) {
      if (c.after[i] != kAny) {
        EXPECT_EQ(got[i], c.after[i]) << i;
      }
    }
  }
}

// A constant settles with the step at the floor of the table and codes 0 once within a quarter
// step, the predictor climbing without overshoot; full-scale swings hold the step at the top.
TEST(AdpcmEncode, StepIndexStaysInsideTheTable) {
  zycAdpcmState state = {};
  std::vector<int16_t> rebuilt;
  std::vector<uint8_t> chunk = Encode(state, std::vector<int16_t>(4000, 12345), 1, &rebuilt);
  for (size_t i = 1; i < rebuilt.size(); ++i) {
    ASSERT_GE(rebuilt[i], rebuilt[i - 1]);
    ASSERT_LE(rebuilt[i], 12345);
  }
  EXPECT_LE(12345 - rebuilt.back(), 1);
  EXPECT_EQ(state.stepIndex[0], 0);
  for (uint32_t k = 3000; k < 4000; ++k) ASSERT_EQ(Code(chunk, 3, k), 0u) << k;
  std::vector<int16_t> pcm;
  for (int i = 0; i < 200; ++i) pcm.push_back(i % 2 ? -32768 : 32767);
  chunk = Encode(state, pcm, 1);
  for (uint32_t k = 0; k < 200; ++k) ASSERT_EQ(Code(chunk, 3, k), k % 2 ? 3u : 1u) << k;
  EXPECT_EQ(state.stepIndex[0], 88);
  EXPECT_EQ(Encode(state, {0}, 1)[2], 88);
}

// 2-bit codes with a quarter step follow slow sound well and high frequencies poorly: speech comes
// out near 12 dB, room noise with taps near 5 dB. The floors sit a little under those.
TEST(AdpcmRealSound, ChunksDecodeToTheReconstructionAndKeepTheShape) {
  const struct {
    const char* clip;
    uint32_t rate, maxSamples;
    double floorDb;
  } cases[] = {{"walkers_speech_384x288_10fps_16k.mkv", 16000, 0, 11.5},
               {"coin_pen_568x320_30fps_sound.mov", 44100, 441000, 4.8}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.clip);
    const zylTestSound sound = zylDecodeSound(zylMediaPath(c.clip), c.maxSamples);
    const std::vector<int16_t>& pcm = sound.samples;
    ASSERT_EQ(sound.sampleRate, c.rate);
    ASSERT_EQ(sound.channels, 1u);
    ASSERT_GT(pcm.size(), c.rate);
    // Chunks with one state carried along, as a movie has them, each decoded on its own.
    zycAdpcmState state = {};
    double signal = 0.0, noise = 0.0;
    for (size_t at = 0; at < pcm.size(); at += 32000) {
      const std::vector<int16_t> part(pcm.begin() + long(at),
                                      pcm.begin() + long(std::min(at + 32000, pcm.size())));
      std::vector<int16_t> rebuilt;
      const std::vector<uint8_t> chunk = Encode(state, part, 1, &rebuilt);
      std::vector<int16_t> decoded(zycAdpcmSamples(uint32_t(chunk.size()), 1));
      zycAdpcmDecode(chunk.data(), uint32_t(chunk.size()), 1, decoded.data());
      decoded.resize(rebuilt.size());
      ASSERT_EQ(decoded, rebuilt) << at;
      for (size_t i = 0; i < part.size(); ++i) {
        signal += double(part[i]) * part[i];
        noise += (double(part[i]) - rebuilt[i]) * (double(part[i]) - rebuilt[i]);
      }
    }
    const double snr = 10.0 * std::log10(signal / std::max(noise, 1.0));
    std::printf("%s: %zu samples, SNR %.2f dB\n", c.clip, pcm.size(), snr);
    EXPECT_GT(snr, c.floorDb);
  }
}

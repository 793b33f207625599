#include "stream/adpcmDecoder.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<int16_t> Decode(const std::vector<uint8_t>& chunk, uint32_t channels) {
  std::vector<int16_t> out(size_t(zycAdpcmSamples(uint32_t(chunk.size()), channels)) * channels,
                           -7777);
  const uint32_t samples = zycAdpcmDecode(chunk.data(), uint32_t(chunk.size()), channels,
                                          out.data());
  EXPECT_EQ(samples * channels, out.size());
  return out;
}

}  // namespace

// Four codes a byte behind a header of 3 bytes a channel; chunks shorter than their header and
// channel counts other than 1 and 2 hold nothing, and decode nothing.
TEST(AdpcmSamples, CountsEveryCodeBehindTheHeader) {
  const uint32_t cases[][3] = {{3, 1, 0},  {4, 1, 4},       {8003, 1, 32000}, {6, 2, 0},
                               {7, 2, 2},  {8006, 2, 16000}, {0, 1, 0},        {2, 1, 0},
                               {5, 2, 0},  {100, 0, 0},      {100, 3, 0}};
  for (const auto& c : cases)
    EXPECT_EQ(zycAdpcmSamples(c[0], c[1]), c[2]) << c[0] << " bytes, " << c[1] << " channels";
  const uint8_t chunk[5] = {0, 0, 0, 0, 0};
  int16_t out[1] = {-7};
  EXPECT_EQ(zycAdpcmDecode(chunk, 5, 2, out), 0u);
  EXPECT_EQ(zycAdpcmDecode(chunk, 5, 3, out), 0u);
  EXPECT_EQ(out[0], -7);
}

// Chunks decoded by hand: header (u16 predictor high byte first, step index per channel), then
// 2-bit codes from the top bits of each byte down.
struct HandChunk {
  const char* what;
  uint32_t channels;
  std::vector<uint8_t> chunk;
  std::vector<int16_t> samples;
};

class AdpcmDecodeByHand : public ::testing::TestWithParam<HandChunk> {};

TEST_P(AdpcmDecodeByHand, SamplesMatch) {
  EXPECT_EQ(Decode(GetParam().chunk, GetParam().channels), GetParam().samples);
}

INSTANTIATE_TEST_SUITE_P(
    AdpcmDecode, AdpcmDecodeByHand,
    ::testing::Values(
        // Predictor 0, step 7: codes 1, 1, 1, 1 climb by 1, 2, 2, 2 (steps 8, 9, 10 follow),
        // code 3 goes down by 11 >> 2 = 2; the three codes 0 of the part-filled byte don't move.
        HandChunk{"MonoChunk", 1, {0x00, 0x00, 0x00, 0x55, 0xC0}, {1, 3, 5, 7, 5, 5, 5, 5}},
        // -300, step index 10 (19): code 1 goes up by 4.
        HandChunk{"SignedPredictor", 1, {0xFE, 0xD4, 0x0A, 0x40}, {-296, -296, -296, -296}},
        // Predictor 1000, step index 20 (50): codes 0, 1, 2, 3 give no move (step 45), up by 11
        // (step 50), no move (step 45), down by 11.
        HandChunk{"FirstSampleTakesTheTopBits", 1, {0x03, 0xE8, 0x14, 0x1B}, {1000, 1011, 1011, 1000}},
        // Left 0 step index 0, right 1000 step index 20: pairs (code 1, code 0), (code 3, code 1).
        HandChunk{"StereoStepIndicesBehindBothPredictors", 2, {0x00, 0x00, 0x03, 0xE8, 0x00, 0x14, 0x4D},
                  {1, 1000, -1, 1011}},
        // Four codes 0 at step index 0 keep step 7, so the first code 1 after them moves by 1.
        HandChunk{"StepIndexStopsAtTheFloor", 1, {0x00, 0x64, 0x00, 0x00, 0x55},
                  {100, 100, 100, 100, 101, 103, 105, 107}},
        // Step index 88 (32767): each move is 8191; the top index stays.
        HandChunk{"PredictorClampsAtTheTop", 1, {0x70, 0x00, 0x58, 0x55}, {32767, 32767, 32767, 32767}},
        HandChunk{"PredictorClampsAtTheBottom", 1, {0x00, 0x00, 0x58, 0xFF, 0xFF},
                  {-8191, -16382, -24573, -32764, -32768, -32768, -32768, -32768}},
        // A foreign step index past the table acts as the top one.
        HandChunk{"StepIndexPastTheTable", 1, {0x00, 0x00, 0xFF, 0x40}, {8191, 8191, 8191, 8191}}),
    [](const ::testing::TestParamInfo<HandChunk>& info) { return std::string(info.param.what); });

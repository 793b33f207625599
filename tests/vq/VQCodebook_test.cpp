// The k-means codebook in both kinds: its update rules, and the SSE kind and the pruned search
// against the plain ones. Its sort and colour key reach the movies that the encoder tests pin.
#include "vq/VQCodebook.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "tests/vq/stillTestSupport.h"

namespace {

std::vector<float> filled(float value) { return std::vector<float>(kVqComponents, value); }

class VQCodebookKinds : public ::testing::TestWithParam<bool> {};

TEST_P(VQCodebookKinds, TieGoesToTheLowerNumber) {
  VQCodebook codebook(4, GetParam());
  codebook.setVector(0, filled(0.0f).data());
  codebook.setVector(1, filled(10.0f).data());
  codebook.setVector(2, filled(20.0f).data());
  codebook.setVector(3, filled(30.0f).data());
  float d;
  EXPECT_EQ(codebook.nearest(filled(15.0f).data(), &d), 1u);
  EXPECT_EQ(d, 25.0f * 48);
  EXPECT_EQ(codebook.nearest(filled(25.0f).data(), &d), 2u);
}

TEST_P(VQCodebookKinds, MovesUpToTheThresholdAreNotApplied) {
  VQCodebook codebook(4, GetParam());
  // Grey line 0, 85, 170, 255; the data sit 0.2 above 85: a squared move of 0.04 * 48 = 1.92.
  std::vector<float> training = filled(85.2f);
  EXPECT_EQ(codebook.train(training.data(), 1, false), 1u);
  EXPECT_EQ(codebook.usedVectors, 1u);
  EXPECT_EQ(codebook.vectors[kVqComponents], 85.0f);
}

TEST_P(VQCodebookKinds, UnusedVectorJumpsToTheWorstServedMember) {
  VQCodebook codebook(4, GetParam());
  codebook.init();  // 0, 85, 170, 255
  std::vector<float> near = filled(80.0f), far = filled(120.0f), low = filled(5.0f);
  codebook.add(near.data());
  codebook.add(far.data());  // still nearest to 85 (35 < 50), the worst member of vector 1
  codebook.add(low.data());
  codebook.update();
  EXPECT_EQ(codebook.usedVectors, 2u);
  EXPECT_EQ(codebook.updatedVectors, 2u);
  EXPECT_EQ(codebook.vectors[2 * kVqComponents], 120.0f);  // first unused takes the worst member
  // The second unused one takes the next worst: vector 0's only member.
  EXPECT_EQ(codebook.vectors[3 * kVqComponents], 5.0f);
  EXPECT_EQ(codebook.vectors[kVqComponents], 100.0f);  // mean of 80 and 120
}

INSTANTIATE_TEST_SUITE_P(PlainAndSse, VQCodebookKinds, ::testing::Bool());

TEST(VQCodebook, SizeNotAMultipleOfFourTraps) {
  // The message goes to standard output; the trap ends the process.
  EXPECT_DEATH({ VQCodebook codebook(6, false); }, "");
}

TEST(VQCodebook, BothKindsTrainAndAssignAlikeOnAPhotograph) {
  const StillPicture picture = photoPicture("photo_astronaut_512x512.png", 96, 64, 96, 64, 2);
  ASSERT_EQ(picture.width, 96u);
  std::vector<float> training;
  for (uint32_t by = 0; by < 64; by += 4)
    for (uint32_t bx = 0; bx < 96; bx += 4)
      for (uint32_t row = 0; row < 4; ++row)
        for (uint32_t i = 0; i < 12; ++i)
          training.push_back(picture.pixels[((by + row) * 96 + bx) * 3 + i]);
  const uint32_t count = uint32_t(training.size() / kVqComponents);
  VQCodebook plain(32, false), fast(32, true);
  const uint32_t plainRounds = plain.train(training.data(), count, false);
  EXPECT_EQ(fast.train(training.data(), count, false), plainRounds);
  EXPECT_GT(plainRounds, 2u);
  EXPECT_EQ(std::memcmp(plain.vectors, fast.vectors, 32 * kVqComponents * sizeof(float)), 0);
  for (uint32_t k = 0; k < count; ++k) {
    float dp, df;
    ASSERT_EQ(plain.nearest(&training[k * kVqComponents], &dp),
              fast.nearest(&training[k * kVqComponents], &df));
    ASSERT_EQ(dp, df);
  }
}

TEST(VQCodebook, PrunedNearestEqualsTheFullScanWhateverTheHint) {
  const StillPicture picture = photoPicture("photo_coffee_600x400.png", 256, 160, 64, 64);
  ASSERT_EQ(picture.width, 64u);
  std::vector<float> samples(picture.pixels.begin(), picture.pixels.end());
  std::mt19937 random(5);
  for (bool sse : {false, true}) {
    VQCodebook codebook(64, sse);
    // Code vectors taken from the picture, some repeated, so that ties occur.
    for (uint32_t i = 0; i < 64; ++i)
      codebook.setVector(i, &samples[(random() % 256) * kVqComponents]);
    codebook.setVector(40, codebook.vectors + 3 * kVqComponents);
    for (uint32_t k = 0; k < 256; ++k) {
      const float* v = &samples[k * kVqComponents];
      float full, pruned;
      const uint32_t expected = codebook.nearestExhaustive(v, &full);
      for (uint32_t hint : {VQCodebook::kNoHint, uint32_t(random() % 64), 40u, expected}) {
        ASSERT_EQ(codebook.nearest(v, &pruned, hint), expected) << sse << " " << k << " " << hint;
        ASSERT_EQ(pruned, full);
      }
    }
    // A vector equal to entries 3 and 40 joins 3 even with 40 as the hint.
    float d;
    EXPECT_EQ(codebook.nearest(codebook.vectors + 3 * kVqComponents, &d, 40), 3u);
    EXPECT_EQ(d, 0.0f);
  }
}

}  // namespace

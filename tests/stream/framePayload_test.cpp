// Splitting ZYL0 frames into items and ZYL1 records into streams, with every fault reported.
#include "stream/framePayload.h"

#include <gtest/gtest.h>

#include "stream/zycDecoder.h"
#include "tests/support/movieBuilder.h"

using movieBuilder::Bytes;

namespace {

Bytes body(const Bytes& frame, const zycFrameItem& item) {
  return Bytes(frame.begin() + item.offset, frame.begin() + item.offset + item.size);
}

}  // namespace

TEST(FrameSplit, PFrameItemsInTableOrderBecomeTheDecodersStreams) {
  movieBuilder::TreeFrame tree;
  tree.Copy(5).Colour(0x1234, 0x5678, 0x9ABCDEF0).Fade(2, 9).Sound({7, 7, 7});
  Bytes frame = tree.Build();
  frame.push_back(0xEE);  // the next frame's first byte
  zycFrameItems items;
  ASSERT_TRUE(zycSplitFrame(frame.data(), frame.size(), &items));
  EXPECT_EQ(items.flags, 1 | 2 | 4 | 16 | 32);
  EXPECT_EQ(items.frameBytes, frame.size() - 1);
  EXPECT_EQ(items.tree.offset, 4u);
  EXPECT_EQ(items.tree.size, 2u);
  EXPECT_EQ(body(frame, items.motion), (Bytes{5, 2}));
  EXPECT_EQ(body(frame, items.colour), (Bytes{0x34, 0x12, 0x78, 0x56, 0xF0, 0xDE, 0xBC, 0x9A}));
  EXPECT_EQ(body(frame, items.sound), (Bytes{7, 7, 7}));
  EXPECT_EQ(body(frame, items.fade), (Bytes{9}));
  EXPECT_FALSE(items.image.present);
  EXPECT_FALSE(items.table.present);

  zycFrameDecoder decoder;
  zycSetFrameStreams(decoder, items, frame.data());
  EXPECT_EQ(decoder.treeStream, frame.data() + 5);
  EXPECT_EQ(decoder.motionStream, frame.data() + items.motion.offset);
  EXPECT_EQ(decoder.colourStream, frame.data() + items.colour.offset);
  EXPECT_EQ(decoder.indexStream, frame.data() + items.colour.offset + 4);  // behind one colour pair
  EXPECT_EQ(decoder.fadeStream, frame.data() + items.fade.offset);
  EXPECT_EQ(decoder.tableStream, nullptr);
}

TEST(FrameSplit, ImageFrameHasTreeImageSound) {
  const Bytes image{1, 2, 3, 4, 5};
  const Bytes sound{9, 9};
  Bytes frame = movieBuilder::imageFrame(image, &sound);
  zycFrameItems items;
  ASSERT_TRUE(zycSplitFrame(frame.data(), frame.size(), &items));
  EXPECT_EQ(items.flags, 25);
  EXPECT_EQ(body(frame, items.image), image);
  EXPECT_EQ(body(frame, items.sound), sound);
  EXPECT_EQ(items.frameBytes, frame.size());

  zycFrameDecoder decoder;
  zycSetFrameStreams(decoder, items, frame.data());
  EXPECT_EQ(decoder.colourStream, frame.data() + items.image.offset);
  EXPECT_EQ(decoder.tableStream, nullptr);
}

TEST(FrameSplit, TableFrameOmitsFadeItemEvenWithFadeFlag) {
  movieBuilder::TreeFrame tree;
  tree.Copy(1).Fade(0, 3).TableBlock().Sound({4}).Table({0xAB, 0xCD});
  Bytes frame = tree.Build();
  zycFrameItems items;
  ASSERT_TRUE(zycSplitFrame(frame.data(), frame.size(), &items));
  EXPECT_EQ(items.flags, 1 | 2 | 16 | 32 | 64);
  EXPECT_EQ(body(frame, items.motion), (Bytes{1, 0}));
  EXPECT_EQ(body(frame, items.sound), (Bytes{4}));
  EXPECT_EQ(body(frame, items.table), (Bytes{0xAB, 0xCD}));
  EXPECT_FALSE(items.fade.present);
  EXPECT_EQ(items.frameBytes, frame.size());
}

TEST(FrameSplit, EveryCutOfAFrameIsRefused) {
  movieBuilder::TreeFrame tree;
  tree.Split().Copy(3).Colour(7, 8, 9).Fade(4, 4).TableBlock().Sound({1, 2, 3});
  const Bytes frame = tree.Build();
  for (size_t cut = 0; cut < frame.size(); ++cut) {
    const Bytes part(frame.begin(), frame.begin() + cut);
    zycFrameItems items;
    EXPECT_FALSE(zycSplitFrame(part.data(), part.size(), &items)) << "cut at " << cut;
    EXPECT_NE(items.error, zycPayloadError::none);
    EXPECT_LE(items.errorOffset, cut);
  }
}

TEST(FrameSplit, ReportsWhatIsWrongAndWhere) {
  zycFrameItems items;
  Bytes noFlags{0, 0, 0, 0};
  EXPECT_FALSE(zycSplitFrame(noFlags.data(), noFlags.size(), &items));
  EXPECT_EQ(items.error, zycPayloadError::emptyTree);

  Bytes flagsZero{1, 0, 0, 0, 0};
  EXPECT_FALSE(zycSplitFrame(flagsZero.data(), flagsZero.size(), &items));
  EXPECT_EQ(items.error, zycPayloadError::flagsBit0Clear);

  Bytes flags7{1, 0, 0, 0, 0x81};
  EXPECT_FALSE(zycSplitFrame(flags7.data(), flags7.size(), &items));
  EXPECT_EQ(items.error, zycPayloadError::flagsBit7Set);

  // Colour item of 12 bytes.
  Bytes oddColour{2, 0, 0, 0, 5, 2, 12, 0, 0, 0};
  oddColour.resize(oddColour.size() + 12);
  EXPECT_FALSE(zycSplitFrame(oddColour.data(), oddColour.size(), &items));
  EXPECT_EQ(items.error, zycPayloadError::colourLengthOdd);
  EXPECT_EQ(items.errorOffset, 6u);

  // A length word that claims more than is there.
  Bytes longBody{2, 0, 0, 0, 3, 2, 100, 0, 0, 0, 1, 2};
  EXPECT_FALSE(zycSplitFrame(longBody.data(), longBody.size(), &items));
  EXPECT_EQ(items.error, zycPayloadError::bodyCut);
  EXPECT_EQ(items.errorOffset, 6u);
  EXPECT_STREQ(zycPayloadErrorText(items.error), "item body cut off");

  // An image frame whose tree item holds symbols.
  Bytes imageTree{2, 0, 0, 0, 9, 0, 0, 0, 0, 0};
  EXPECT_FALSE(zycSplitFrame(imageTree.data(), imageTree.size(), &items));
  EXPECT_EQ(items.error, zycPayloadError::imageAndTree);
}

TEST(RecordSplit, PlaneRecordWithSoundPadsAndAligns) {
  const Bytes first{1, 2, 3, 4, 5};
  const Bytes sound{6, 7, 8};
  const Bytes plane2{9, 10, 11, 12, 13, 14};
  const Bytes plane3{15};
  const Bytes record = movieBuilder::frameRecord(7, first, &sound, &plane2, &plane3);
  // Behind the first word: 4 + 18 entry bytes, padded to 24; 5 + 3 pad; 3 + 1 pad; 6 + 2 pad; 1.
  ASSERT_EQ(record.size(), 4u + 24 + 8 + 4 + 8 + 1);
  zycFrameRecord walked;
  ASSERT_TRUE(zycSplitRecord(record.data(), record.size(), &walked))
      << zycPayloadErrorText(walked.error);
  EXPECT_EQ(walked.recordBytes, record.size());
  EXPECT_EQ(walked.first.offset, 28u);
  EXPECT_EQ(walked.first.size, 5u);
  EXPECT_EQ(walked.sound.offset, 36u);
  EXPECT_EQ(walked.plane2.offset, 40u);
  EXPECT_EQ(walked.plane3.offset, 48u);
  EXPECT_EQ(walked.plane3.size, 1u);
  EXPECT_EQ(record[walked.plane2.offset + 5], 14);
}

TEST(RecordSplit, TwentyFourBitSizesAreSplitAsStored) {
  const Bytes big(70000, 0x5A);
  const Bytes sound(70001, 0x33);
  const Bytes record = movieBuilder::frameRecord(1, big, &sound, nullptr, nullptr);
  zycFrameRecord walked;
  ASSERT_TRUE(zycSplitRecord(record.data(), record.size(), &walked));
  EXPECT_EQ(record[1], 2);  // 140013 bytes behind the first word: 0x0222ED
  EXPECT_EQ(walked.first.size, 70000u);
  EXPECT_EQ(walked.sound.size, 70001u);
  EXPECT_EQ(walked.sound.offset, 4u + 12 + 70000);
}

TEST(RecordSplit, RefusesCutsBadFlagsAndMisplacedStreams) {
  const Bytes plane{1, 2, 3, 4};
  const Bytes record = movieBuilder::frameRecord(6, plane, nullptr, &plane, &plane);
  zycFrameRecord walked;
  for (size_t cut = 0; cut < record.size(); ++cut)
    EXPECT_FALSE(zycSplitRecord(record.data(), cut, &walked)) << "cut at " << cut;

  Bytes oneBit = record;
  oneBit[0] = 2;
  EXPECT_FALSE(zycSplitRecord(oneBit.data(), oneBit.size(), &walked));
  EXPECT_EQ(walked.error, zycPayloadError::recordFlagsBad);

  Bytes overlap = record;
  overlap[4 + 4 + 6] = overlap[4 + 4];  // third stream at the second's offset
  EXPECT_FALSE(zycSplitRecord(overlap.data(), overlap.size(), &walked));
  EXPECT_EQ(walked.error, zycPayloadError::streamOverlap);

  Bytes tail = record;
  tail.insert(tail.end(), {0, 0, 0, 0});
  tail[2] = uint8_t(tail[2] + 4);  // the record claims four more bytes than its streams use
  EXPECT_FALSE(zycSplitRecord(tail.data(), tail.size(), &walked));
  EXPECT_EQ(walked.error, zycPayloadError::recordTail);
  EXPECT_EQ(walked.errorOffset, uint32_t(record.size()));

  Bytes beyond = record;
  beyond[4 + 4 + 6 + 2] = 200;  // third stream's size
  EXPECT_FALSE(zycSplitRecord(beyond.data(), beyond.size(), &walked));
  EXPECT_EQ(walked.error, zycPayloadError::streamCut);
}

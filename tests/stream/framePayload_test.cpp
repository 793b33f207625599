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
  const struct {
    Bytes frame;
    zycPayloadError error;
    uint32_t offset;  // where the fault lies; ~0u: not checked
  } cases[] = {
      {{0, 0, 0, 0}, zycPayloadError::emptyTree, ~0u},
      {{1, 0, 0, 0, 0}, zycPayloadError::flagsBit0Clear, ~0u},
      {{1, 0, 0, 0, 0x81}, zycPayloadError::flagsBit7Set, ~0u},
      // A colour item of 12 bytes.
      {{2, 0, 0, 0, 5, 2, 12, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}, zycPayloadError::colourLengthOdd, 6},
      // A length word that claims more than is there.
      {{2, 0, 0, 0, 3, 2, 100, 0, 0, 0, 1, 2}, zycPayloadError::bodyCut, 6},
      // An image frame whose tree item holds symbols.
      {{2, 0, 0, 0, 9, 0, 0, 0, 0, 0}, zycPayloadError::imageAndTree, ~0u},
  };
  for (const auto& c : cases) {
    zycFrameItems items;
    EXPECT_FALSE(zycSplitFrame(c.frame.data(), c.frame.size(), &items));
    EXPECT_EQ(items.error, c.error) << zycPayloadErrorText(c.error);
    if (c.offset != ~0u) {
      EXPECT_EQ(items.errorOffset, c.offset);
    }
  }
  EXPECT_STREQ(zycPayloadErrorText(zycPayloadError::bodyCut), "item body cut off");
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

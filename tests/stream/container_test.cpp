#include "stream/container.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "base/byteIo.h"
#include "stream/framePayload.h"
#include "tests/support/fileSizeLimit.h"
#include "tests/support/movieBuilder.h"

namespace {

zycStreamHeader SampleZyl0() {
  zycStreamHeader h;
  h.magic = kMagicZyl0;
  h.version = 0;
  h.fileSize = 0x01020304;
  h.flags = 1 | 2;
  h.frameCount = 77;
  h.frameDuration = 33333;
  h.timeScale = kTimeScale;
  h.width = 321;
  h.height = 239;
  h.soundRate = 22050;
  h.soundChannels = 2;
  h.soundChunkLimit = 3000;
  h.reserved52 = kReserved52;
  zycSetTailPacking(&h, kPackingLzma, 0xABCDEF, 0x11223344);
  return h;
}

zycStreamHeader SampleZyl1() {
  zycStreamHeader h;
  h.magic = kMagicZyl1;
  h.version = 5;
  h.headerSize = kHeaderSizeZyl1;
  h.fileSize = 0xA0B0C0D0;
  h.frameCount = 12;
  h.frameDuration = 40000;
  h.timeScale = kTimeScale;
  h.width = 64;
  h.height = 48;
  h.soundRate = 16000;
  h.soundChannels = 1;
  h.soundChunkLimit = 1700;
  h.paramS = 0x123456;
  h.paramT = 99;
  return h;
}

}  // namespace

TEST(ContainerHeader, Zyl0FieldsStandAtTheirOffsetsAndLoadBack) {
  uint8_t b[kHeaderSizeZyl0];
  zycStoreHeaderZyl0(SampleZyl0(), b);
  EXPECT_EQ(0, std::memcmp(b, "ZYL0", 4));
  EXPECT_EQ(zycLoad32(b + 8), 0x01020304u);
  EXPECT_EQ(zycLoad32(b + 12), 3u);
  EXPECT_EQ(zycLoad32(b + 16), 77u);
  EXPECT_EQ(zycLoad32(b + 28), 321u);
  EXPECT_EQ(zycLoad32(b + 32), 239u);
  EXPECT_EQ(zycLoad32(b + 40), 22050u);
  EXPECT_EQ(zycLoad32(b + 44), 2u);
  EXPECT_EQ(zycLoad32(b + 52), 7u);
  // Ordinary tail: packing byte, sFMT bits 16-23, sFMT bits 0-15, tFMT.
  EXPECT_EQ(b[56], 1);
  EXPECT_EQ(b[57], 0xAB);
  EXPECT_EQ(zycLoad16(b + 58), 0xCDEF);
  EXPECT_EQ(zycLoad32(b + 60), 0x11223344u);
  // Loaded and stored again, every byte comes back.
  zycStreamHeader back;
  zycLoadHeaderZyl0(b, &back);
  uint8_t again[kHeaderSizeZyl0];
  zycStoreHeaderZyl0(back, again);
  EXPECT_EQ(0, std::memcmp(b, again, sizeof b));
  EXPECT_EQ(zycPacking(back), kPackingLzma);
  EXPECT_EQ(zycTailParamS(back), 0xABCDEFu);
  EXPECT_EQ(zycTailB(back), 0x11223344u);
}

TEST(ContainerHeader, VersionsOneToThreeHoldTwoTailWords) {
  for (uint32_t version : {1u, 2u, 3u}) {
    zycStreamHeader h = SampleZyl0();
    h.version = version;
    zycSetTailWords(&h, 0x01000201, 0xCAFEBABE);
    uint8_t b[kHeaderSizeZyl0];
    zycStoreHeaderZyl0(h, b);
    EXPECT_EQ(zycLoad32(b + 56), 0x01000201u);
    EXPECT_EQ(zycLoad32(b + 60), 0xCAFEBABEu);
    zycStreamHeader back;
    zycLoadHeaderZyl0(b, &back);
    EXPECT_EQ(zycTailA(back), 0x01000201u);
    // The low byte of tailA is 1 but is not a packing byte in these versions.
    EXPECT_EQ(zycPacking(back), kPackingDeflate) << version;
  }
  EXPECT_FALSE(zycTailHoldsWords(0));
  EXPECT_FALSE(zycTailHoldsWords(4));
}

TEST(ContainerHeader, Zyl1MovesFileSizeToTwelve) {
  uint8_t b[kHeaderSizeZyl1];
  zycStoreHeaderZyl1(SampleZyl1(), b);
  EXPECT_EQ(0, std::memcmp(b, "ZYL1", 4));
  EXPECT_EQ(zycLoad32(b + 4), 5u);
  EXPECT_EQ(zycLoad32(b + 8), 60u);
  EXPECT_EQ(zycLoad32(b + 12), 0xA0B0C0D0u);
  EXPECT_EQ(zycLoad32(b + 16), 12u);
  EXPECT_EQ(zycLoad32(b + 52), 0x123456u);
  EXPECT_EQ(zycLoad32(b + 56), 99u);
  zycStreamHeader back;
  zycLoadHeaderZyl1(b, &back);
  uint8_t again[kHeaderSizeZyl1];
  zycStoreHeaderZyl1(back, again);
  EXPECT_EQ(0, std::memcmp(b, again, sizeof b));
}

// Section headers of both formats and record entries: fields split as stored, frame counts
// cut to the width the format keeps.
TEST(ContainerSection, HeadersAndRecordEntriesSplitTheirFieldsAsStored) {
  zycSectionHeader s;
  s.keyType = 1;
  s.frames = 0xAB1234;
  s.size = 0xDEADBEEF;
  uint8_t b[8];
  zycStoreSectionZyl0(s, b);
  EXPECT_EQ(zycLoad16(b), 0x1234);
  EXPECT_EQ(zycLoad32(b + 2), 0xDEADBEEFu);
  EXPECT_EQ(zycLoadSectionZyl0(b).frames, 0x1234u);
  zycStoreSectionZyl1(s, b);
  EXPECT_EQ(b[0], 1);
  EXPECT_EQ(b[1], 0xAB);
  EXPECT_EQ(zycLoad16(b + 2), 0x1234);
  EXPECT_EQ(zycLoad32(b + 4), 0xDEADBEEFu);
  const zycSectionHeader back = zycLoadSectionZyl1(b);
  EXPECT_EQ(back.keyType, 1);
  EXPECT_EQ(back.frames, 0xAB1234u);
  EXPECT_EQ(back.size, 0xDEADBEEFu);

  zycStoreRecordEntry(0x123456, 0xABCDEF, b);
  EXPECT_EQ(zycLoad16(b), 0x3456);
  EXPECT_EQ(zycLoad16(b + 2), 0xCDEF);
  EXPECT_EQ(b[4], 0x12);
  EXPECT_EQ(b[5], 0xAB);
  uint32_t offset, size;
  zycLoadRecordEntry(b, &offset, &size);
  EXPECT_EQ(offset, 0x123456u);
  EXPECT_EQ(size, 0xABCDEFu);
}

TEST(ContainerWalker, RefusesAWrongMagicByNumberAndAShortHeader) {
  uint8_t b[kHeaderSizeZyl0] = {'Z', 'Y', 'L', '2'};
  zycSectionWalker walker;
  EXPECT_FALSE(walker.Open(b, sizeof b));
  EXPECT_EQ(walker.error(), "bad magic " + std::to_string(int32_t(0x324C595A)));
  b[3] = 0x80;  // a magic above 2^31 prints as a negative number
  EXPECT_FALSE(walker.Open(b, sizeof b));
  EXPECT_EQ(walker.error(), "bad magic " + std::to_string(int32_t(0x804C595Au)));
  zycStoreHeaderZyl0(SampleZyl0(), b);
  EXPECT_FALSE(walker.Open(b, 63));
  EXPECT_NE(walker.error().find("too short"), std::string::npos);
}

// Records of every shape against the byte-by-byte builder, then split back into their streams.
// The full shape worked out by hand: behind the first word a table of 4 + 3 x 6 = 22 padded to
// 24, Y at 24 (7, pad to 32), sound at 32 (3, pad to 36), U at 36 (2, pad to 40), V at 40 (1,
// no pad): 41 bytes, 45 with the first word.
TEST(ContainerRecord, RecordsMatchHandBuiltBytesAndSplitBack) {
  struct Shape {
    uint32_t first, sound, u, v;  // sizes; 0 sound: none; 0 u: no planes
    bool repeat;
    uint8_t flags;
    uint32_t tableBytes;
  };
  const Shape shapes[] = {{5, 0, 0, 0, false, 0, 4},  {7, 3, 2, 1, false, 7, 24},
                          {36, 6, 0, 0, false, 1, 12}, {35, 0, 9, 4, false, 6, 16},
                          {34, 5, 9, 3, false, 7, 24}, {0, 0, 0, 0, true, 8, 4},
                          {0, 4, 0, 0, true, 9, 12}};
  for (const Shape& s : shapes) {
    const std::vector<uint8_t> first(s.first, 1), sound(s.sound, 2), u(s.u, 3), v(s.v, 4);
    zycRecordContent c;
    c.first = first.data();
    c.firstSize = s.first;
    c.hasSound = s.sound > 0;
    c.sound = sound.data();
    c.soundSize = s.sound;
    c.hasPlanes = s.u > 0;
    c.plane2 = u.data();
    c.plane2Size = s.u;
    c.plane3 = v.data();
    c.plane3Size = s.v;
    c.repeat = s.repeat;
    const std::string what = "first " + std::to_string(s.first) + " sound " +
                             std::to_string(s.sound) + " planes " + std::to_string(s.u);
    EXPECT_EQ(zycRecordFlags(c), s.flags) << what;
    EXPECT_EQ(zycRecordTableBytes(c), s.tableBytes) << what;
    std::vector<uint8_t> out = {0xEE};  // appends behind what stands there
    const uint32_t bytes = zycAppendRecord(c, &out);
    const movieBuilder::Bytes want = movieBuilder::frameRecord(
        s.flags, first, c.hasSound ? &sound : nullptr, c.hasPlanes ? &u : nullptr,
        c.hasPlanes ? &v : nullptr);
    ASSERT_EQ(out.size(), 1 + want.size()) << what;
    EXPECT_EQ(bytes, want.size()) << what;
    EXPECT_EQ(out[0], 0xEE);
    EXPECT_TRUE(std::equal(want.begin(), want.end(), out.begin() + 1)) << what;
    if (s.first == 7) {
      EXPECT_EQ(bytes, 45u);
    }

    out.erase(out.begin());
    zycFrameRecord r;
    ASSERT_TRUE(zycSplitRecord(out.data(), out.size(), &r)) << what << " " << int(r.error);
    EXPECT_EQ(r.recordBytes, bytes);
    EXPECT_EQ(r.recordFlags, s.flags);
    EXPECT_EQ(r.first.present, s.first > 0);
    EXPECT_EQ(r.first.size, s.first);
    if (s.first) {
      EXPECT_EQ(out[r.first.offset], 1);
    }
    EXPECT_EQ(r.sound.present, c.hasSound);
    if (c.hasSound) {
      EXPECT_EQ(r.sound.size, s.sound);
      EXPECT_EQ(out[r.sound.offset], 2);
    }
    EXPECT_EQ(r.plane3.present, c.hasPlanes);
    if (c.hasPlanes) {
      EXPECT_EQ(r.plane2.size, s.u);
      EXPECT_EQ(out[r.plane2.offset], 3);
      EXPECT_EQ(r.plane3.size, s.v);
      EXPECT_EQ(out[r.plane3.offset + r.plane3.size - 1], 4);
      EXPECT_EQ(r.plane3.offset + r.plane3.size, out.size());  // the last stream ends the record
    }
  }
}

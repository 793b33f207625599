#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "base/byteIo.h"
#include "encoder/sectionPacker.h"
#include "lzmaLib.h"
#include "tests/support/imageLoad.h"
#include "tests/support/testMedia.h"

namespace {

std::vector<uint8_t> FileBytes(FILE* f) {
  std::fflush(f);
  long end = std::ftell(f);
  std::fseek(f, 0, SEEK_END);
  long size = std::ftell(f);
  std::vector<uint8_t> bytes(size_t(size > 0 ? size : 0));
  std::fseek(f, 0, SEEK_SET);
  if (!bytes.empty()) {
    EXPECT_EQ(std::fread(bytes.data(), 1, bytes.size(), f), bytes.size());
  }
  std::fseek(f, end, SEEK_SET);
  return bytes;
}

// Item bodies from a real photograph: rows of pixels, which deflate can't pack to nothing.
std::vector<uint8_t> PhotoBytes(uint32_t y, uint32_t count) {
  static zylTestImage photo;
  if (photo.pixels.empty()) zylLoadPng(zylMediaPath("photo_coffee_600x400.png"), &photo);
  const uint8_t* at = photo.pixels.data() + size_t(y) * photo.width * 4;
  return std::vector<uint8_t>(at, at + count);
}

// The same pieces through a plain deflate stream that never saw a copy.
std::vector<uint8_t> PlainDeflate(const std::vector<std::vector<uint8_t>>& items) {
  z_stream z;
  std::memset(&z, 0, sizeof z);
  deflateInit2(&z, 9, Z_DEFLATED, -15, 9, Z_DEFAULT_STRATEGY);
  std::vector<uint8_t> out(1 << 20);
  z.next_out = out.data();
  z.avail_out = uInt(out.size());
  for (const auto& item : items) {
    uint8_t length[4];
    zycStore32(length, uint32_t(item.size()));
    z.next_in = length;
    z.avail_in = 4;
    deflate(&z, Z_SYNC_FLUSH);
    z.next_in = const_cast<Bytef*>(item.data());
    z.avail_in = uInt(item.size());
    deflate(&z, Z_SYNC_FLUSH);
  }
  out.resize(z.total_out);
  deflateEnd(&z);
  return out;
}

std::vector<uint8_t> Inflated(const std::vector<uint8_t>& packed) {
  z_stream z;
  std::memset(&z, 0, sizeof z);
  inflateInit2(&z, -15);
  std::vector<uint8_t> out(1 << 20);
  z.next_in = const_cast<Bytef*>(packed.data());
  z.avail_in = uInt(packed.size());
  z.next_out = out.data();
  z.avail_out = uInt(out.size());
  const int r = inflate(&z, Z_SYNC_FLUSH);
  EXPECT_EQ(r, Z_OK);  // never a stream end: the stream has no final block
  out.resize(z.total_out);
  inflateEnd(&z);
  return out;
}

TEST(SectionPacker, DeflateTrialsLeaveTheFileAndTheHistoryUntouched) {
  FILE* f = std::tmpfile();
  ASSERT_NE(f, nullptr);
  zycSectionPacker p;
  p.Open(0, 1 << 20, 65536, f);
  const auto a = PhotoBytes(100, 3000), b = PhotoBytes(200, 2000), c = PhotoBytes(300, 2500);
  // Two frames, each after two trials of other data.
  for (const auto* item : {&a, &b}) {
    const size_t committed = FileBytes(f).size();
    p.Save();
    p.PackItem(c.data(), uint32_t(c.size()));
    p.Restore();
    p.Save();
    const int32_t trial = p.PackItem(item->data(), uint32_t(item->size()));
    p.Restore();
    EXPECT_EQ(FileBytes(f).size(), committed) << "a trial must not reach the file";
    const size_t before = committed;
    const int32_t real = p.PackItem(item->data(), uint32_t(item->size()));
    p.Commit();
    EXPECT_EQ(real, trial);
    EXPECT_EQ(FileBytes(f).size(), before + size_t(real));
    if (item == &a) {
      EXPECT_EQ(FileBytes(f).size(), size_t(real));
    }
  }
  const std::vector<uint8_t> written = FileBytes(f);
  EXPECT_EQ(written, PlainDeflate({a, b}));
  std::vector<uint8_t> expected;
  for (const auto* item : {&a, &b}) {
    uint8_t length[4];
    zycStore32(length, uint32_t(item->size()));
    expected.insert(expected.end(), length, length + 4);
    expected.insert(expected.end(), item->begin(), item->end());
  }
  EXPECT_EQ(Inflated(written), expected);
  p.Close();
  std::fclose(f);
}

TEST(SectionPacker, TheSecondOfTwoEqualFramesPacksToLittle) {
  FILE* f = std::tmpfile();
  zycSectionPacker p;
  p.Open(0, 1 << 20, 65536, f);
  const auto a = PhotoBytes(150, 8000);
  const int32_t first = p.PackItem(a.data(), uint32_t(a.size()));
  p.Commit();
  const int32_t second = p.PackItem(a.data(), uint32_t(a.size()));
  p.Commit();
  EXPECT_LT(second * 10, first);
  // A new section forgets the history.
  p.Restart();
  const int32_t third = p.PackItem(a.data(), uint32_t(a.size()));
  EXPECT_EQ(third, first);
  p.Close();
  std::fclose(f);
}

TEST(SectionPacker, LzmaWritesPropsSizeAndDataThenRewritesThemInPlace) {
  FILE* f = std::tmpfile();
  const uint8_t lead[6] = {1, 2, 3, 4, 5, 6};  // stands for a section header
  std::fwrite(lead, 1, 6, f);
  zycSectionPacker p;
  p.Open(1, 1 << 16, 65536, f);
  const auto a = PhotoBytes(120, 5000), b = PhotoBytes(220, 5000);

  p.Save();
  p.PackItem(a.data(), uint32_t(a.size()));
  const int32_t trial = p.FinishSize(0);
  p.Restore();
  ASSERT_EQ(FileBytes(f).size(), 6u);
  p.PackItem(a.data(), uint32_t(a.size()));
  const int32_t first = p.FinishSize(0);
  EXPECT_EQ(first, trial);
  p.Commit();
  p.sectionPackedSize += uint32_t(first);
  std::vector<uint8_t> bytes = FileBytes(f);
  ASSERT_EQ(bytes.size(), 6u + size_t(first));
  EXPECT_EQ(zycLoad64(&bytes[11]), 5004u);
  const std::vector<uint8_t> props(bytes.begin() + 6, bytes.begin() + 11);

  p.PackItem(b.data(), uint32_t(b.size()));
  const int32_t second = p.FinishSize(0);
  p.Commit();
  p.sectionPackedSize += uint32_t(second);
  bytes = FileBytes(f);
  ASSERT_EQ(bytes.size(), 6u + size_t(first + second));
  EXPECT_EQ(std::vector<uint8_t>(bytes.begin(), bytes.begin() + 6),
            std::vector<uint8_t>(lead, lead + 6));
  EXPECT_EQ(std::vector<uint8_t>(bytes.begin() + 6, bytes.begin() + 11), props);
  EXPECT_EQ(zycLoad64(&bytes[11]), 10008u);
  std::vector<uint8_t> unpacked(10008);
  size_t destLen = unpacked.size();
  size_t srcLen = bytes.size() - 19;
  ASSERT_EQ(LzmaUncompress(unpacked.data(), &destLen, &bytes[19], &srcLen, &bytes[6], 5), 0);
  ASSERT_EQ(destLen, 10008u);
  EXPECT_EQ(zycLoad32(&unpacked[0]), 5000u);
  EXPECT_TRUE(std::equal(a.begin(), a.end(), unpacked.begin() + 4));
  EXPECT_EQ(zycLoad32(&unpacked[5004]), 5000u);
  EXPECT_TRUE(std::equal(b.begin(), b.end(), unpacked.begin() + 5008));
  p.Close();
  std::fclose(f);
}

TEST(SectionPacker, LzmaRoughFigureBeforeTheEstimate) {
  FILE* f = std::tmpfile();
  zycSectionPacker p;
  p.Open(1, 1 << 16, 65536, f);
  const auto a = PhotoBytes(120, 1000);
  // The length word and the bytes, each x 0.9 in float, truncated: 3 + 896.
  EXPECT_EQ(p.PackItem(a.data(), 996), 899);
  p.Close();
  std::fclose(f);
}

}  // namespace

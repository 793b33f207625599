#include <gtest/gtest.h>
#include <zlib.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "base/byteIo.h"
#include "dxt/dxtBackEnds.h"
#include "encoder/sectionPacker.h"
#include "lzmaLib.h"
#include "tests/support/imageLoad.h"
#include "tests/support/testMedia.h"
#include "tests/support/videoFrames.h"

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

// DXT1 blocks of 16 pictures of a real clip at 320x176, one after another.
const std::vector<uint8_t>& ClipBlocks() {
  static std::vector<uint8_t> blocks;
  if (blocks.empty()) {
    for (const auto& f : zylDecodeVideoFrames(zylMediaPath("walkers_768x576_10fps_120f.mkv"), 16,
                                              320, 176)) {
      std::vector<uint8_t> out(size_t(f.width / 4) * (f.height / 4) * 8);
      zycDxtCompressHere(kDxtBackEndFast, f.pixels.data(), uint32_t(f.width), uint32_t(f.height),
                         out.data());
      blocks.insert(blocks.end(), out.begin(), out.end());
    }
  }
  return blocks;
}

std::vector<uint8_t> WholeLzma(const std::vector<uint8_t>& input, uint32_t dictionary) {
  std::vector<uint8_t> out(13 + input.size() + input.size() / 2 + 1024);
  size_t outSize = out.size() - 13;
  size_t propsSize = 5;
  EXPECT_EQ(LzmaCompress(out.data() + 13, &outSize, input.data(), input.size(), out.data(),
                         &propsSize, 1, dictionary, 2, 0, 2, 8, 1),
            0);
  zycStore64(out.data() + 5, input.size());
  out.resize(13 + outSize);
  return out;
}

// A long section of real frames, each after two trials like the rate loop's: no trial reaches the
// file, and every estimate, every commit and the file after it are those of a plain deflate
// stream with a sync flush behind every piece, or of LzmaCompress on the whole section so far.
// What the LZMA packer says it may rewrite brings the file back to the last commit.
TEST(SectionPacker, SectionIsAPlainPackingOfTheWholeSectionAfterEveryFrame) {
  const std::vector<uint8_t>& clip = ClipBlocks();
  ASSERT_GT(clip.size(), 400000u);
  constexpr uint32_t kFrames = 130;
  const uint32_t packings[][2] = {{0, 65536}, {1, 65536}, {1, 4096}};
  for (const auto [packing, dictionary] : packings) {
    SCOPED_TRACE(std::to_string(packing) + " " + std::to_string(dictionary));
    FILE* f = std::tmpfile();
    const uint8_t lead[6] = {1, 2, 3, 4, 5, 6};
    std::fwrite(lead, 1, 6, f);
    zycSectionPacker p;
    p.Open(packing, 1 << 16, dictionary, f);
    std::vector<std::vector<uint8_t>> items;
    std::vector<uint8_t> section, before(lead, lead + 6), head, tail;
    long tailAt = 0;
    for (uint32_t i = 0; i < kFrames; ++i) {
      const size_t at = (size_t(i % 16) * 28160 + (i * 977) % 20000);
      const uint32_t count = 600 + (i * 1237) % 3500;
      const uint8_t* item = clip.data() + at;
      const uint8_t* other = clip.data() + (at + 50000) % (clip.size() - 5000);
      p.Save();
      p.PackItem(other, count);
      p.FinishSize(0);
      p.Restore();
      p.Save();
      const int32_t trial = p.FinishSize(p.PackItem(item, count));
      p.Restore();
      ASSERT_EQ(FileBytes(f), before) << "a trial must not reach the file";
      const int32_t real = p.FinishSize(p.PackItem(item, count));
      p.Commit();
      p.sectionPackedSize += uint32_t(real);
      uint8_t length[4];
      zycStore32(length, count);
      section.insert(section.end(), length, length + 4);
      section.insert(section.end(), item, item + count);
      items.emplace_back(item, item + count);
      ASSERT_EQ(trial, real) << i;
      std::vector<uint8_t> bytes = FileBytes(f);
      ASSERT_EQ(bytes.size(), 6 + p.sectionPackedSize) << i;
      if (i % 8 == 7 || i + 1 == kFrames) {  // the whole-section packing is slow by its nature
        const std::vector<uint8_t> whole =
            packing ? WholeLzma(section, dictionary) : PlainDeflate(items);
        ASSERT_TRUE(std::equal(bytes.begin() + 6, bytes.end(), whole.begin(), whole.end())) << i;
        ASSERT_TRUE(std::equal(lead, lead + 6, bytes.begin())) << "the section header stays";
      }
      if (packing == 1 && i > 0) {
        // The last commit's file back from this one's: cut, then what it said may change.
        bytes.resize(before.size());
        std::copy(head.begin(), head.end(), bytes.begin() + 6);
        std::copy(tail.begin(), tail.end(), bytes.begin() + tailAt);
        ASSERT_EQ(bytes, before) << i;
      }
      before = FileBytes(f);
      if (packing == 0) continue;
      ASSERT_EQ(p.headAt(), 6);
      head.assign(p.head(), p.head() + 13);
      tail = p.committed();
      tailAt = p.committedAt();
    }
    if (packing == 1) {
      EXPECT_LT(p.committed().size(), 40000u) << "rewrites stay short in a long section";
    }
    p.Close();
    std::fclose(f);
  }
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

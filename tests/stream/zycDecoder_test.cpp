// The decoder front: set-up, still key frames, the block table ring of table-format frames,
// quiet failures, and the allocator interface.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "base/byteIo.h"
#include "stream/decoderTables.h"
#include "tests/stream/decodeSupport.h"

using movieBuilder::Bytes;
using movieBuilder::dxtBlock;
using movieBuilder::StillImage;
using movieBuilder::TableImage;
using movieBuilder::TreeFrame;

namespace {

// A codebook or table block expanded by the truncating rule: [pixel][top, middle, low].
struct Expanded {
  uint8_t bytes[16][3];
};

Expanded expand(uint16_t c0, uint16_t c1, uint32_t indices) {
  const auto palette = dxt1Palette(c0, c1, Thirds::truncated);
  Expanded e;
  for (int i = 0; i < 16; ++i)
    for (int f = 0; f < 3; ++f) e.bytes[i][f] = uint8_t(palette[(indices >> (2 * i)) & 3][f]);
  return e;
}

// The channel value of a surface at picture column X and row Y, in exact arithmetic.
int surface(const int16_t k[6], uint32_t X, uint32_t Y) {
  const double x = double(X % 1024) * 64, y = double(Y % 1024) * 64;
  const double u = std::floor((k[2] * 65536.0 + k[4] * y) / 65536.0) * y;
  const double v = std::floor((k[1] * 65536.0 + k[3] * x + k[5] * y) / 65536.0) * x;
  const double f = (u + v + k[0] * 4096.0) * 2;
  const double value = std::floor(f / 65536.0);
  return value < 0 ? 0 : value > 255 ? 255 : int(value);
}

// An allocator that refuses everything.
class RefusingDecoder : public zycDecoder {
 public:
  ~RefusingDecoder() = default;
  void* Alloc(uint32_t) override {
    ++refusals;
    return nullptr;
  }
  void* Realloc(void*, uint32_t) override { return nullptr; }
  void Free(void*) override {}
  int Read(void*, uint32_t) override { return 0; }
  int ReadU8(uint8_t*) override { return 0; }
  int ReadU16(uint16_t*) override { return 0; }
  int ReadU32(uint32_t*) override { return 0; }
  int ReadU32Second(uint32_t*) override { return 0; }
  int Seek(int32_t, int) override { return 0; }
  int refusals = 0;
};

// A still image of 16 x 16: two surface blocks on top, two codebook blocks below.
StillImage mixedStill() {
  StillImage image;
  image.width = 16;
  image.height = 16;
  image.surfaceBits = 1;
  image.vqBits = 2;
  image.tableBytes = 48 * 8;
  image.surfaces.push_back({8 * 10, 0, 0, 0, 0, 0,    // channel 0: constant 10
                            2400, 0, 0, 0, 0, 0,      // channel 1: 300, clamped to 255
                            -80, 0, 0, 0, 0, 0});     // channel 2: -10, clamped to 0
  image.surfaces.push_back({100, 300, -200, 0, 0, 0,  // linear in X and Y
                            500, 0, 0, 40, -30, 20,   // with squares and product
                            1000, -64, 64, 0, 0, 0});
  image.codebook.push_back(dxtBlock(0xF800, 0x0800, 0xE4E4E4E4));
  image.codebook.push_back(dxtBlock(0x0000, 0xFFFF, 0x1B1B1B1B));
  image.codebook.push_back(dxtBlock(0x1234, 0x4321, 0x76543210));
  image.codebook.push_back(dxtBlock(0xABCD, 0x1357, 0xFEDCBA98));
  image.SurfaceBlock(0);
  image.SurfaceBlock(1);
  image.CodebookBlock(0, 1, 2, 3);
  image.CodebookBlock(3, 3, 0, 2);
  return image;
}

// The expected 3-byte pixels of mixedStill().
std::vector<uint8_t> expectedStill(const StillImage& image) {
  std::vector<uint8_t> out(16 * 16 * 3);
  auto put = [&](uint32_t x, uint32_t y, int c, int v) { out[(y * 16 + x) * 3 + c] = uint8_t(v); };
  for (uint32_t y = 0; y < 8; ++y) {
    for (uint32_t x = 0; x < 16; ++x) {
      const auto& s = image.surfaces[x / 8];
      for (int c = 0; c < 3; ++c) put(x, y, c, surface(&s[6 * c], x, y));
    }
  }
  const int indices[2][4] = {{0, 1, 2, 3}, {3, 3, 0, 2}};
  for (int bx = 0; bx < 2; ++bx) {
    for (int q = 0; q < 4; ++q) {
      const auto& e = image.codebook[indices[bx][q]];
      const Expanded block = expand(uint16_t(e[0] | e[1] << 8), uint16_t(e[2] | e[3] << 8),
                                    uint32_t(e[4] | e[5] << 8 | e[6] << 16 | uint32_t(e[7]) << 24));
      for (int i = 0; i < 16; ++i)
        for (int c = 0; c < 3; ++c)
          put(bx * 8 + (q & 1) * 4 + i % 4, 8 + (q >> 1) * 4 + i / 4, c, block.bytes[i][c]);
    }
  }
  return out;
}

}  // namespace

TEST(DecoderSetup, RoundsSizesAndPointsTheWordsInside) {
  TestDecoder decoder(33, 17, 32, 0, 1);
  const zycFrameDecoder& s = *decoder.state;
  EXPECT_EQ(s.width, 48u);
  EXPECT_EQ(s.height, 32u);
  EXPECT_EQ(s.motionOffset[1], -48);  // (0, -1)
  EXPECT_EQ(s.motionOffset[3], 1);    // (1, 0)
  EXPECT_EQ(s.motionOffset[255], -48 * 32 - 32);

  TestDecoder wide(64, 64, 32, 0, 0);
  EXPECT_EQ(wide.state->motionOffset[4095], -64 * 32 - 32);
  EXPECT_EQ(wide.state->motionOffset[5], -64 - 1);
}

// The same still at every output depth: opaque 32-bit pixels, 24-bit bytes as they are, and
// the top bits of each field in 16 bits.
TEST(StillImage, SurfacesAndCodebookBlocksAtEveryDepth) {
  const StillImage image = mixedStill();
  const std::vector<uint8_t> expected = expectedStill(image);
  EXPECT_EQ(expected[0], 10);
  EXPECT_EQ(expected[1], 255);  // 300 clamps to 255
  EXPECT_EQ(expected[2], 0);
  // Codebook colour0's top field comes first; the truncating mix of fields 255 and 8 is
  // 518 / 3 = 172, where rounding would give 173.
  EXPECT_EQ(expected[3 * (8 * 16)], 255);
  EXPECT_EQ(expected[3 * (8 * 16 + 2)], 172);
  for (const uint32_t depth : {32u, 24u, 16u}) {
    SCOPED_TRACE(depth);
    TestDecoder decoder(16, 16, depth);
    Bytes frame = movieBuilder::imageFrame(image.Build());
    std::vector<uint8_t> output(16 * 16 * depth / 8, 0xCD);
    tableWritePos = 12345;
    decoder.Image(frame, output.data());
    EXPECT_EQ(tableWritePos, 4u * 48);
    for (size_t i = 0; i < 256; ++i) {
      const uint8_t* p = &expected[3 * i];
      if (depth == 16) {
        ASSERT_EQ(zycLoad16(&output[2 * i]), (p[2] >> 3) << 11 | (p[1] >> 2) << 5 | p[0] >> 3) << i;
      } else {
        const uint8_t* q = &output[depth / 8 * i];
        ASSERT_EQ(std::vector<uint8_t>(q, q + 3), std::vector<uint8_t>(p, p + 3)) << i;
        ASSERT_TRUE(depth != 32 || q[3] == 255) << i;
      }
    }
  }
}

TEST(StillImage, SurfaceCoordinatesWrapAtColumn1024) {
  TestDecoder decoder(1040, 8, 24);
  StillImage image;
  image.width = 1040;
  image.height = 8;
  image.surfaceBits = 0;  // every block takes entry 0 and reads nothing more
  image.surfaces.push_back({0, 3, 0, 0, 0, 0, 800, 0, 2, 0, 0, 0, 50, 1, 1, 0, 0, 0});
  for (int b = 0; b < 130; ++b) image.SurfaceBlock(0);
  Bytes frame = movieBuilder::imageFrame(image.Build());
  std::vector<uint8_t> output(1040 * 8 * 3);
  decoder.Image(frame, output.data());
  for (uint32_t y = 0; y < 8; ++y) {
    for (uint32_t x = 0; x < 1040; ++x) {
      for (int c = 0; c < 3; ++c)
        ASSERT_EQ(output[(y * 1040 + x) * 3 + c], surface(&image.surfaces[0][6 * c], x, y))
            << x << "," << y;
    }
  }
  EXPECT_EQ(output[1024 * 3], output[0]);
  EXPECT_NE(output[1023 * 3], output[0]);
}

TEST(StillImage, WrongMagicLeavesTheOutputAlone) {
  TestDecoder decoder(16, 16);
  Bytes image = mixedStill().Build();
  image[0] ^= 1;
  Bytes frame = movieBuilder::imageFrame(image);
  std::vector<uint8_t> output(16 * 16 * 4, 0x5A);
  decoder.Image(frame, output.data());
  EXPECT_EQ(output, std::vector<uint8_t>(16 * 16 * 4, 0x5A));
}

TEST(TableFrame, BlocksComeFromTheRingAcrossItsWrap) {
  TestDecoder decoder(32, 16);
  Expanded blocks[5];
  std::array<uint8_t, 8> raw[5];
  const uint16_t colours[5][2] = {
      {0xF800, 0x001F}, {0x07E0, 0xFFE0}, {0x1234, 0x0042}, {0x0010, 0x8000}, {0xFFFF, 0x0821}};
  for (int i = 0; i < 5; ++i) {
    const uint32_t indices = 0x1B1B1B1Bu * uint32_t(i + 1);
    raw[i] = dxtBlock(colours[i][0], colours[i][1], indices);
    blocks[i] = expand(colours[i][0], colours[i][1], indices);
  }
  auto expectBlock = [&](const std::vector<uint32_t>& picture, uint32_t x0, uint32_t y0,
                         uint32_t size, const Expanded& e, const char* what) {
    const uint32_t scale = size / 4;
    for (uint32_t y = 0; y < size; ++y) {
      for (uint32_t x = 0; x < size; ++x) {
        const uint8_t* p = e.bytes[(y / scale) * 4 + x / scale];
        const uint32_t expected = 0xFF000000u | uint32_t(p[0]) << 16 | uint32_t(p[1]) << 8 | p[2];
        ASSERT_EQ(picture[(y0 + y) * 32 + x0 + x], expected) << what << " " << x << "," << y;
      }
    }
  };

  // Frame 1: reset, three new entries of a ring of four.
  TableImage first;
  first.reset = 1;
  first.indexBits = 2;
  first.tableBytes = 4 * 48;
  first.newEntries = {raw[0], raw[1], raw[2]};
  first.indices = {2, 0, 1, 1};
  TreeFrame a;
  a.TableBlock().Split().TableBlock().TableBlock().TableBlock().Copy(0);
  a.Table(first.Build());
  Bytes frameA = a.Build();
  std::vector<uint32_t> previous(32 * 16, 0x11111111), current(32 * 16), next(32 * 16);
  tableWritePos = 999;
  decoder.Frame(frameA, previous.data(), current.data());
  EXPECT_EQ(tableWritePos, 3u * 48);
  expectBlock(current, 0, 0, 16, blocks[2], "first 16");
  expectBlock(current, 16, 0, 8, blocks[0], "first TL");
  expectBlock(current, 24, 0, 8, blocks[1], "first TR");
  expectBlock(current, 16, 8, 8, blocks[1], "first BL");
  EXPECT_EQ(current[8 * 32 + 24], 0x11111111u);

  // Frame 2: two new entries, one in the tail, one wrapping to the start; the origin is
  // the first of them, so index 1 wraps and index 3 reaches back to entry 2.
  TableImage second;
  second.indexBits = 2;
  second.tableBytes = 4 * 48;
  second.tableOrigin = 3 * 48;
  second.newEntries = {raw[3], raw[4]};
  second.indices = {0, 1, 3, 2};
  TreeFrame b;
  b.Split().TableBlock().TableBlock().TableBlock().TableBlock().Copy(0);
  b.Table(second.Build());
  Bytes frameB = b.Build();
  decoder.Frame(frameB, current.data(), next.data());
  EXPECT_EQ(tableWritePos, 48u);
  expectBlock(next, 0, 0, 8, blocks[3], "second 0");
  expectBlock(next, 8, 0, 8, blocks[4], "second 1");
  expectBlock(next, 0, 8, 8, blocks[2], "second 3");
  // Index 2 is entry E - 2 places behind the origin: 48 bytes, which holds block 1.
  expectBlock(next, 8, 8, 8, blocks[1], "second 2");
}

// A frame of no new entries reads the ring and keeps the write position; a frame whose marker
// is not zero decodes nothing and keeps it too.
TEST(TableFrame, NoNewEntriesOrANonZeroMarkerKeepTheWritePosition) {
  TestDecoder decoder(16, 16);
  TableImage fill;
  fill.reset = 1;
  fill.tableBytes = 8 * 48;
  fill.newEntries = {dxtBlock(0xF800, 0, 0), dxtBlock(0x001F, 0, 0)};
  fill.indices = {0};
  TreeFrame a;
  a.TableBlock().Table(fill.Build());
  Bytes frameA = a.Build();
  std::vector<uint32_t> previous(256), current(256), next(256), last(256, 0x5A5A5A5A);
  decoder.Frame(frameA, previous.data(), current.data());
  TableImage reuse;
  reuse.tableBytes = 8 * 48;
  reuse.tableOrigin = 48;
  reuse.indices = {0};
  TreeFrame b;
  b.TableBlock().Table(reuse.Build());
  Bytes frameB = b.Build();
  decoder.Frame(frameB, current.data(), next.data());
  EXPECT_EQ(tableWritePos, 2u * 48);
  EXPECT_EQ(current[0], 0xFFFF0000u);
  EXPECT_EQ(next[0], 0xFF0000FFu);

  TableImage marked;
  marked.marker = 1;
  marked.tableBytes = 8 * 48;
  marked.newEntries = {dxtBlock(0xF800, 0, 0)};
  marked.indices = {0};
  TreeFrame c;
  c.TableBlock().Table(marked.Build());
  Bytes frameC = c.Build();
  decoder.Frame(frameC, next.data(), last.data());
  EXPECT_EQ(last, std::vector<uint32_t>(256, 0x5A5A5A5A));
  EXPECT_EQ(tableWritePos, 2u * 48);
}

TEST(DecoderFront, AllocationFailureEndsTheCallQuietly) {
  RefusingDecoder io;
  auto state = std::make_unique<zycFrameDecoder>();
  state->io = &io;
  state->Setup(16, 16, 32, 0, 1);
  TableImage image;
  image.reset = 1;
  image.newEntries = {dxtBlock(0xF800, 0, 0)};
  image.indices = {0};
  TreeFrame a;
  a.TableBlock().Table(image.Build());
  Bytes frame = a.Build();
  zycFrameItems items;
  ASSERT_TRUE(zycSplitFrame(frame.data(), frame.size(), &items));
  zycSetFrameStreams(*state, items, frame.data());
  std::vector<uint32_t> previous(256), current(256, 0x5A5A5A5A);
  state->DecodeFrame(reinterpret_cast<uint8_t*>(previous.data()),
                     reinterpret_cast<uint8_t*>(current.data()));
  EXPECT_EQ(current, std::vector<uint32_t>(256, 0x5A5A5A5A));

  Bytes still = movieBuilder::imageFrame(mixedStill().Build());
  ASSERT_TRUE(zycSplitFrame(still.data(), still.size(), &items));
  zycSetFrameStreams(*state, items, still.data());
  state->DecodeImage(reinterpret_cast<uint8_t*>(current.data()));
  EXPECT_EQ(current, std::vector<uint32_t>(256, 0x5A5A5A5A));
  EXPECT_EQ(io.refusals, 2);
  EXPECT_EQ(state->blockTable, nullptr);
}

TEST(DecoderInterface, NewestDecoderIsCurrentUntilDestroyed) {
  auto first = std::make_unique<myDecoder>();
  EXPECT_EQ(zycCurrentDecoder(), first.get());
  EXPECT_EQ(first->playerReady, 1u);
  EXPECT_EQ(first->playerFrame, 0u);
  EXPECT_EQ(first->Idle(), 0);
  {
    myDecoder second;
    EXPECT_EQ(zycCurrentDecoder(), &second);
  }
  EXPECT_EQ(zycCurrentDecoder(), nullptr);
  first.reset();
  EXPECT_EQ(zycCurrentDecoder(), nullptr);
}

TEST(DecoderInterface, FileSlotsReadLittleEndianAndSeek) {
  myDecoder io;
  EXPECT_EQ(io.Alloc(0), nullptr);
  io.file = std::tmpfile();
  ASSERT_NE(io.file, nullptr);
  const uint8_t bytes[] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99};
  std::fwrite(bytes, 1, sizeof bytes, io.file);
  EXPECT_EQ(io.Seek(0, 1), 0);
  uint8_t u8 = 0;
  uint16_t u16 = 0;
  uint32_t u32 = 0, second = 0;
  EXPECT_EQ(io.ReadU8(&u8), 0);
  EXPECT_EQ(io.ReadU16(&u16), 0);
  EXPECT_EQ(io.ReadU32(&u32), 0);
  EXPECT_EQ(u8, 0x11);
  EXPECT_EQ(u16, 0x3322);
  EXPECT_EQ(u32, 0x77665544u);
  EXPECT_EQ(io.Seek(-6, 0), 0);
  EXPECT_EQ(io.ReadU32Second(&second), 0);
  EXPECT_EQ(second, 0x55443322u);
  EXPECT_EQ(io.Seek(-1, 1), -1);
  std::fclose(io.file);
}

TEST(TableFrame, SixteenBitsReadTheBlocksAsTheyAreAtAStepOf32Bytes) {
  TestDecoder decoder(32, 16, 16);
  const uint16_t colours[2][2] = {{0xF81F, 0x07E0}, {0x1234, 0x8765}};
  Expanded blocks[2];
  TableImage image;
  image.reset = 1;
  image.tableBytes = 4 * 48;
  for (int i = 0; i < 2; ++i) {
    image.newEntries.push_back(dxtBlock(colours[i][0], colours[i][1], 0x9C63B1E4u));
    blocks[i] = expand(colours[i][0], colours[i][1], 0x9C63B1E4u);
  }
  image.indices = {0, 1};
  TreeFrame tree;
  tree.TableBlock().TableBlock().Table(image.Build());
  Bytes frame = tree.Build();
  std::vector<uint16_t> previous(512), current(512);
  decoder.Frame(frame, previous.data(), current.data());
  // The scratch holds the two 48-byte blocks back to back; block k is read from byte 32 k.
  uint8_t scratch[96];
  std::memcpy(scratch, blocks[0].bytes, 48);
  std::memcpy(scratch + 48, blocks[1].bytes, 48);
  for (int k = 0; k < 2; ++k) {
    for (uint32_t y = 0; y < 16; ++y) {
      for (uint32_t x = 0; x < 16; ++x) {
        const int i = (y / 4) * 4 + x / 4;
        const uint16_t want = uint16_t(scratch[32 * k + 2 * i] | scratch[32 * k + 2 * i + 1] << 8);
        ASSERT_EQ(current[y * 32 + 16 * k + x], want) << k << " " << x << "," << y;
      }
    }
  }
}

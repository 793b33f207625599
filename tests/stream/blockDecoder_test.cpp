// The block decoder on hand-made frames: colour blocks, motion copies, splits, fades, YUV
// colours, the 16 and 24-bit routines, stop and resume, and the tree view. Expected pixels
// come from the format's rules written out here, not from the decoder's tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <tuple>
#include <vector>

#include "stream/blockDecoder.h"
#include "stream/decoderTables.h"
#include "tests/stream/decodeSupport.h"
#include "tests/support/imageLoad.h"
#include "tests/support/testMedia.h"

using movieBuilder::Bytes;
using movieBuilder::TreeFrame;

namespace {

struct Picture {
  uint32_t width, height;
  std::vector<uint32_t> pixels;
  Picture(uint32_t w, uint32_t h, uint32_t fill = 0) : width(w), height(h), pixels(w * h, fill) {}
  uint32_t& at(uint32_t x, uint32_t y) { return pixels[y * width + x]; }
  void* data() { return pixels.data(); }
};

// A previous picture whose every pixel is different, with a set top byte.
Picture numbered(uint32_t w, uint32_t h) {
  Picture p(w, h);
  for (uint32_t y = 0; y < h; ++y)
    for (uint32_t x = 0; x < w; ++x)
      p.at(x, y) = 0x77000000u | ((y * 7 + 1) & 255) << 16 | x * 5 << 8 | (x + y);
  return p;
}

uint32_t fade32(uint32_t p, int level) {
  return uint32_t(tone(level, (p >> 16) & 255)) << 16 | uint32_t(tone(level, (p >> 8) & 255)) << 8 |
         uint32_t(tone(level, p & 255));
}

void expectSquare(Picture& p, uint32_t x0, uint32_t y0, uint32_t size, uint32_t value,
                  const char* what) {
  for (uint32_t y = y0; y < y0 + size; ++y)
    for (uint32_t x = x0; x < x0 + size; ++x)
      ASSERT_EQ(p.at(x, y), value) << what << " at " << x << "," << y;
}

// The next number of a linear congruential sequence: cheap, and the same on every machine.
uint32_t nextRandom(uint32_t& state) {
  state = state * 1664525u + 1013904223u;
  return state;
}

// A frame of random but valid nodes over a w x h picture.
TreeFrame mixedFrame(uint32_t w, uint32_t h, uint32_t seed) {
  TreeFrame tree;
  uint32_t state = seed;
  auto next = [&] { return nextRandom(state) >> 8; };
  auto vector = [&](uint32_t x, uint32_t y, uint32_t size) -> uint32_t {
    for (int tries = 0; tries < 8; ++tries) {
      const uint32_t index = next() % 160;
      const int sx = int(x) + kSmallMotionTable[index][0], sy = int(y) + kSmallMotionTable[index][1];
      if (sx >= 0 && sy >= 0 && sx + int(size) <= int(w) && sy + int(size) <= int(h)) return index;
    }
    return 0;
  };
  std::function<void(uint32_t, uint32_t, uint32_t)> node = [&](uint32_t x, uint32_t y, uint32_t size) {
    const uint32_t kind = next() % 4, half = size / 2;
    if (kind == 0) tree.Copy(vector(x, y, size));
    if (kind == 1) tree.Split();
    for (uint32_t q = 0; kind == 1 && size > 4 && q < 4; ++q) node(x + (q & 1) * half, y + (q >> 1) * half, half);
    if (kind == 2) {
      const uint16_t c0 = uint16_t(next()), c1 = uint16_t(next());
      tree.Colour(c0, c1, next() ^ next() << 16);
    }
    if (kind == 3) {
      const uint32_t index = vector(x, y, size);
      tree.Fade(index, next() % 16);
    }
  };
  for (uint32_t y = 0; y < h; y += 16)
    for (uint32_t x = 0; x < w; x += 16) node(x, y, 16);
  return tree;
}

}  // namespace

TEST(BlockDecoder, MotionCopiesTakeBlocksAtTheirVectors) {
  TestDecoder decoder(32, 32);
  Picture previous = numbered(32, 32), current(32, 32, 0xDEADBEEF);
  TreeFrame tree;
  tree.Copy(4);                                  // (0, 1)
  tree.Split().Copy(2).Copy(0).Copy(1).Copy(5);  // (-1, 0), (0, 0), (0, -1), (-1, -1)
  tree.Copy(1);                                  // (0, -1)
  tree.Split();
  tree.Split().Copy(68).Split().Copy(0).Copy(8);  // (-5, 0), nothing, (0, 0), (1, 1)
  tree.Copy(0).Copy(0).Copy(0);
  Bytes frame = tree.Build();
  decoder.Frame(frame, previous.data(), current.data());

  auto expectMoved = [&](uint32_t x0, uint32_t y0, uint32_t size, int dx, int dy) {
    for (uint32_t y = y0; y < y0 + size; ++y)
      for (uint32_t x = x0; x < x0 + size; ++x)
        ASSERT_EQ(current.at(x, y), previous.at(x + dx, y + dy)) << x << "," << y;
  };
  expectMoved(0, 0, 16, 0, 1);
  expectMoved(16, 0, 8, -1, 0);
  expectMoved(24, 0, 8, 0, 0);
  expectMoved(16, 8, 8, 0, -1);
  expectMoved(24, 8, 8, -1, -1);
  expectMoved(0, 16, 16, 0, -1);
  expectMoved(16, 16, 4, -5, 0);
  expectSquare(current, 20, 16, 4, 0xDEADBEEF, "split at size 4 leaves stale pixels");
  expectMoved(16, 20, 4, 0, 0);
  expectMoved(20, 20, 4, 1, 1);
  expectMoved(24, 16, 8, 0, 0);
  expectMoved(16, 24, 8, 0, 0);
  expectMoved(24, 24, 8, 0, 0);
}

TEST(BlockDecoder, EveryKernelSetGivesThePlainPictures) {
  // Random movies of four frames over a first picture of random bytes (top bytes too), both
  // colour forms. The tree bytes end shifted as if in place at every symbol; the widths make
  // frames end on every place in a tree byte.
  if (zycBestBlockKernels() == kBlockKernelsPlain) GTEST_SKIP() << "no SIMD kernels here";
  for (uint8_t kernels = kBlockKernelsSse2; kernels <= zycBestBlockKernels(); ++kernels) {
    for (uint32_t seed = 1; seed <= 6; ++seed) {
      const uint32_t w = 16 * (4 + seed % 4), h = 48, yuv = seed & 1;
      TestDecoder fast(w, h, 32, yuv), plain(w, h, 32, yuv);
      fast.state->kernels = kernels;
      plain.state->kernels = kBlockKernelsPlain;
      Picture a(w, h), b(w, h), nextA(w, h), nextB(w, h);
      uint32_t state = seed * 2654435761u;
      for (uint32_t& p : a.pixels) {
        const uint32_t r = nextRandom(state);
        p = r ^ (r >> 13);
      }
      b.pixels = a.pixels;
      for (uint32_t f = 0; f < 4; ++f) {
        const Bytes original = mixedFrame(w, h, seed * 7 + f).Build();
        Bytes first = original, second = original;
        fast.Frame(first, a.data(), nextA.data());
        plain.Frame(second, b.data(), nextB.data());
        ASSERT_EQ(nextA.pixels, nextB.pixels) << "kernels " << int(kernels) << " seed " << seed;
        std::swap(a.pixels, nextA.pixels);
        std::swap(b.pixels, nextB.pixels);
        // Tree bytes: those taken whole are shifted three times, a last one taken in part by
        // the symbols taken from it.
        const zycFrameDecoder& s = *fast.state;
        const size_t treeStart = 5, end = size_t(s.treeStream - first.data());
        ASSERT_EQ(first, second);
        for (size_t i = treeStart; i < end; ++i) ASSERT_EQ(first[i], original[i] >> 6) << i;
        if (s.treeBits != 0) {
          ASSERT_EQ(first[end], original[end] >> (2 * s.treeBits));
        }
      }
    }
  }
}

TEST(BlockDecoder, OddFadeCountTogglesHalfByteAndNextFrameRestarts) {
  TestDecoder decoder(16, 48);
  Picture first = numbered(16, 48), second(16, 48), third(16, 48);
  TreeFrame a;
  a.Fade(0, 3).Copy(0).Split().Fade(0, 5).Fade(0, 12).Fade(0, 7).Copy(0);
  Bytes frameA = a.Build();
  decoder.Frame(frameA, first.data(), second.data());
  EXPECT_EQ(second.at(3, 3), fade32(first.at(3, 3), 3));
  EXPECT_EQ(second.at(3, 35), fade32(first.at(3, 35), 5));
  EXPECT_EQ(second.at(12, 35), fade32(first.at(12, 35), 12));
  EXPECT_EQ(second.at(3, 44), fade32(first.at(3, 44), 7));
  EXPECT_EQ(second.at(12, 44), first.at(12, 44));
  ASSERT_EQ(decoder.state->fadeHalf, 0u);
  // Three levels in the next frame: its first level is a low half again.
  TreeFrame b;
  b.Fade(0, 4).Fade(0, 11).Fade(0, 1);
  Bytes frameB = b.Build();
  decoder.Frame(frameB, second.data(), third.data());
  EXPECT_EQ(decoder.state->fadeHalf, 1u);
  TreeFrame c;
  c.Fade(0, 14).Copy(0).Fade(0, 6);
  Bytes frameC = c.Build();
  Picture fourth(16, 48);
  decoder.Frame(frameC, third.data(), fourth.data());
  EXPECT_EQ(third.at(0, 0), fade32(second.at(0, 0), 4));
  EXPECT_EQ(fourth.at(5, 5), fade32(third.at(5, 5), 14));
  EXPECT_EQ(fourth.at(5, 21), third.at(5, 21));
  EXPECT_EQ(fourth.at(5, 37), fade32(third.at(5, 37), 6));
}

TEST(BlockDecoder, WideMotionIndicesSelectTheLargeTable) {
  TestDecoder decoder(48, 48, 32, 0, 0);
  Picture previous = numbered(48, 48), current(48, 48);
  std::vector<std::tuple<int, int, int>> order;
  for (int dy = -32; dy < 32; ++dy)
    for (int dx = -32; dx < 32; ++dx) order.emplace_back(dx * dx + dy * dy, dy, dx);
  std::sort(order.begin(), order.end());
  TreeFrame tree(true);
  const uint32_t indices[9] = {0, 0, 0, 0, 6, 633, 0, 3688, 4095};
  for (uint32_t index : indices) tree.Copy(index);
  Bytes frame = tree.Build();
  decoder.Frame(frame, previous.data(), current.data());
  for (int block = 0; block < 9; ++block) {
    const int dx = std::get<2>(order[indices[block]]), dy = std::get<1>(order[indices[block]]);
    const uint32_t x0 = 16 * (block % 3), y0 = 16 * (block / 3);
    if (int(x0) + dx < 0 || int(y0) + dy < 0 || x0 + dx + 16 > 48 || y0 + dy + 16 > 48) {
      ADD_FAILURE() << "test vector leaves the picture: " << block;
      continue;
    }
    for (uint32_t y = y0; y < y0 + 16; ++y)
      for (uint32_t x = x0; x < x0 + 16; ++x)
        ASSERT_EQ(current.at(x, y), previous.at(x + dx, y + dy)) << "block " << block;
  }
  EXPECT_EQ(current.at(32, 32), previous.at(0, 0));
}

TEST(BlockDecoder, YuvColourWordsConvertAndBlackIsDarkGreenAtBothDepths) {
  TestDecoder decoder(48, 16, 32, 1);
  Picture previous(48, 16), current(48, 16);
  const uint16_t c0 = rgb565(200 >> 3, 100 >> 2, 60 >> 3), c1 = rgb565(40 >> 3, 220 >> 2, 180 >> 3);
  TreeFrame tree;
  tree.Colour(0, 0, allIndices(3)).Colour(0x07E0, 0x07E0, 0).Colour(c0, c1, 0xE4E4E4E4);
  Bytes frame = tree.Build();
  decoder.Frame(frame, previous.data(), current.data());
  expectSquare(current, 0, 0, 16, 0x008700, "three-colour entry 3 in YUV");
  EXPECT_EQ(yuvWord(0, 0, 0), 0x008700u);
  expectSquare(current, 16, 0, 16, yuvWord(255, 0, 0), "Y only");
  for (int col = 0; col < 4; ++col)
    expectSquare(current, 32 + 4 * col, 0, 4, yuvWordOf(dxt1Word(c0, c1, col)), "YUV palette");
  // At 16 bits every pixel keeps the top bits of its clamped fields.
  TestDecoder narrow(48, 16, 16, 1);
  std::vector<uint16_t> previous16(48 * 16), current16(48 * 16);
  Bytes frame16 = tree.Build();
  narrow.Frame(frame16, previous16.data(), current16.data());
  for (size_t i = 0; i < current16.size(); ++i) {
    const uint32_t w = current.pixels[i];
    ASSERT_EQ(current16[i], rgb565((w >> 19) & 31, (w >> 10) & 63, (w >> 3) & 31)) << i;
  }
}

TEST(BlockDecoder, TwentyFourBitRoutineMatchesThirtyTwoBit) {
  for (uint32_t yuv = 0; yuv < 2; ++yuv) {
    TestDecoder wide(64, 48, 32, yuv), narrow(64, 48, 24, yuv);
    Picture previous = numbered(64, 48), current(64, 48);
    std::vector<uint8_t> previous24(64 * 48 * 3), current24(64 * 48 * 3);
    for (size_t i = 0; i < previous.pixels.size(); ++i)
      std::memcpy(&previous24[3 * i], &previous.pixels[i], 3);
    Bytes frame32 = mixedFrame(64, 48, 11 + yuv).Build(), frame24 = frame32;
    wide.Frame(frame32, previous.data(), current.data());
    narrow.Frame(frame24, previous24.data(), current24.data());
    for (size_t i = 0; i < current.pixels.size(); ++i) {
      uint32_t p = 0;
      std::memcpy(&p, &current24[3 * i], 3);
      ASSERT_EQ(p, current.pixels[i] & 0xFFFFFF) << "pixel " << i << " yuv " << yuv;
    }
  }
}

TEST(BlockDecoder, SixteenBitRoutineKeepsFieldWidths) {
  TestDecoder decoder(16, 16, 16);
  std::vector<uint16_t> previous(256, rgb565(20, 40, 10)), current(256, 0xBEEF);
  const uint16_t c0 = rgb565(31, 0, 10), c1 = rgb565(0, 63, 1);
  TreeFrame tree;
  tree.Split();
  tree.Colour(c0, c1, 0xE4E4E4E4);
  tree.Split()
      .Colour(rgb565(3, 5, 7), rgb565(9, 11, 13), allIndices(2))
      .Colour(rgb565(3, 5, 7), rgb565(9, 11, 13), allIndices(3))
      .Copy(0)
      .Copy(0);
  tree.Fade(0, 3);
  tree.Copy(0);
  Bytes frame = tree.Build();
  decoder.Frame(frame, previous.data(), current.data());
  auto at = [&](int x, int y) { return current[y * 16 + x]; };
  auto third = [](int a, int b) { return int(std::lround((2.0 * a + b) / 3.0)); };
  EXPECT_EQ(at(0, 0), c0);
  EXPECT_EQ(at(3, 1), c1);
  EXPECT_EQ(at(4, 0), rgb565(third(31, 0), third(0, 63), third(10, 1)));
  EXPECT_EQ(at(7, 7), rgb565(third(0, 31), third(63, 0), third(1, 10)));
  EXPECT_EQ(at(9, 1), rgb565(6, 8, 10));
  EXPECT_EQ(at(13, 1), 0);
  EXPECT_EQ(at(9, 6), rgb565(20, 40, 10));
  // Level 3 on fields 20, 40 and 10, widened: 165, 162 and 82 lose a quarter.
  EXPECT_EQ(at(2, 10), rgb565(124 >> 3, 120 >> 2, 62 >> 3));
  EXPECT_EQ(at(12, 12), rgb565(20, 40, 10));
}

TEST(BlockDecoder, StopBetweenRowsThenResumeEqualsUndisturbedRunAndMaskZeroNeverStops) {
  const uint32_t w = 32, h = 64;
  // The first block of the second row is white or a table block, so a stop word inside it
  // turns non-zero once that row is decoded.
  auto treeFrame = [] {
    TreeFrame tree;
    tree.Fade(0, 6).Colour(0x1234, 0x4321, 0x55AA55AA);
    tree.Colour(0xFFFF, 0xFFFF, 0).Split().Fade(0, 9).Copy(1).Fade(2, 13).Colour(1, 2, 3);
    tree.Split().Fade(0, 2).Fade(0, 3).Copy(0).Fade(0, 4).Fade(1, 5);
    tree.Copy(3).Split().Copy(0).Fade(1, 8).Copy(0).Copy(0);
    return tree.Build();
  };
  auto tableFrame = [] {
    movieBuilder::TableImage image;
    image.reset = 1;
    image.indexBits = 3;
    image.tableBytes = 8 * 48;
    for (int i = 0; i < 5; ++i)
      image.newEntries.push_back(movieBuilder::dxtBlock(uint16_t(0x1111 * (i + 1)),
                                                        uint16_t(0x0F0F * i), 0xA5A5A5A5u + i));
    image.indices = {4, 0, 3, 1, 2, 2};
    TreeFrame tree;
    tree.Split().TableBlock().Copy(0).TableBlock().Copy(1).TableBlock();
    tree.TableBlock().Split().TableBlock().Copy(0).Copy(0).Copy(2);
    tree.Copy(0).TableBlock().Copy(3).Copy(0).Table(image.Build());
    return tree.Build();
  };
  for (const auto& make : {std::function<Bytes()>(treeFrame), std::function<Bytes()>(tableFrame)}) {
    Picture previous = numbered(w, h), whole(w, h), stopped(w, h), masked(w, h);
    Bytes frameWhole = make(), frameStopped = make(), frameMasked = make();
    TestDecoder reference(w, h);
    reference.Frame(frameWhole, previous.data(), whole.data());

    TestDecoder decoder(w, h);
    zycFrameDecoder& state = *decoder.state;
    state.stopWord = &stopped.at(0, 16);
    state.stopMask = 0xFFFFFFFF;
    decoder.Frame(frameStopped, previous.data(), stopped.data());
    EXPECT_EQ(*state.stateWord, 2u);
    EXPECT_EQ(state.resumeRow, 32u);
    for (uint32_t y = 32; y < h; ++y)
      for (uint32_t x = 0; x < w; ++x) ASSERT_EQ(stopped.at(x, y), 0u) << x << "," << y;
    const uint32_t writePos = tableWritePos;
    uint32_t quiet = 0;
    state.stopWord = &quiet;
    state.DecodeFrame(reinterpret_cast<uint8_t*>(previous.data()),
                      reinterpret_cast<uint8_t*>(stopped.data()));
    EXPECT_EQ(*state.stateWord, 0u);
    EXPECT_EQ(stopped.pixels, whole.pixels);
    EXPECT_EQ(tableWritePos, writePos);
    EXPECT_EQ(state.fadeHalf, reference.state->fadeHalf);
    EXPECT_EQ(state.treeStream,
              frameStopped.data() + (reference.state->treeStream - frameWhole.data()));

    TestDecoder maskedDecoder(w, h);
    uint32_t stop = 0xFFFFFFFF;
    maskedDecoder.state->stopWord = &stop;
    maskedDecoder.state->stopMask = 0;
    maskedDecoder.Frame(frameMasked, previous.data(), masked.data());
    EXPECT_EQ(*maskedDecoder.state->stateWord, 0u);
    EXPECT_EQ(masked.pixels, whole.pixels);
  }
}

TEST(BlockDecoder, PhotographKeyFrameAndFadedRepeat) {
  zylTestImage photo;
  ASSERT_TRUE(zylLoadPng(zylMediaPath("photo_coffee_600x400.png"), &photo));
  const uint32_t w = 160, h = 96;
  const zylTestImage image = zylCropImage(photo, 200, 120, w, h);
  // Colour blocks of 16, 8 and 4 in tree order, by turns. A block takes its top left and bottom
  // right pixel as colours, in three-colour mode for every third block, and its index bits
  // from the green bytes of its first 16 pixels.
  auto to565 = [&](uint32_t x, uint32_t y) {
    const uint8_t* p = &image.pixels[(y * w + x) * 4];
    return rgb565(p[2] >> 3, p[1] >> 2, p[0] >> 3);
  };
  struct Block {
    uint32_t x, y, size, indices;
    uint16_t c0, c1;
  };
  std::vector<Block> blocks;
  TreeFrame tree;
  auto colour = [&](uint32_t x, uint32_t y, uint32_t size) {
    Block k{x, y, size, 0, to565(x, y), to565(x + size - 1, y + size - 1)};
    for (uint32_t i = 0; i < 16; ++i)
      k.indices |= (image.pixels[((y + i / 4) * w + x + i % 4) * 4 + 1] & 3u) << (2 * i);
    if ((blocks.size() % 3 == 0) == (k.c0 > k.c1)) std::swap(k.c0, k.c1);
    tree.Colour(k.c0, k.c1, k.indices);
    blocks.push_back(k);
  };
  for (uint32_t by = 0; by < h; by += 16) {
    for (uint32_t bx = 0; bx < w; bx += 16) {
      const uint32_t size = 16 >> ((bx + by) / 16 % 3);
      if (size < 16) tree.Split();
      for (uint32_t q = 0; q < 4 && size < 16; ++q) {
        if (size == 4) tree.Split();
        for (uint32_t r = 0; r < (size == 4 ? 4u : 1u); ++r)
          colour(bx + (q & 1) * 8 + (r & 1) * 4, by + (q >> 1) * 8 + (r >> 1) * 4, size);
      }
      if (size == 16) colour(bx, by, 16);
    }
  }
  TestDecoder decoder(w, h);
  Picture previous(w, h), key(w, h), faded(w, h);
  Bytes frame = tree.Build();
  decoder.Frame(frame, previous.data(), key.data());
  for (const Block& k : blocks) {
    const uint32_t scale = k.size / 4;
    for (uint32_t y = 0; y < k.size; ++y)
      for (uint32_t x = 0; x < k.size; ++x) {
        const uint32_t index = (k.indices >> (2 * ((y / scale) * 4 + x / scale))) & 3;
        ASSERT_EQ(key.at(k.x + x, k.y + y), dxt1Word(k.c0, k.c1, index))
            << k.size << " block at " << k.x + x << "," << k.y + y;
      }
  }

  TreeFrame repeat;
  for (uint32_t b = 0; b < (w / 16) * (h / 16); ++b) repeat.Fade(0, b % 16);
  Bytes frame2 = repeat.Build();
  decoder.Frame(frame2, key.data(), faded.data());
  for (uint32_t y = 0; y < h; ++y)
    for (uint32_t x = 0; x < w; ++x)
      ASSERT_EQ(faded.at(x, y), fade32(key.at(x, y), int((y / 16) * (w / 16) + x / 16) % 16));
}

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "base/cpuFeatures.h"
#include "dxt/yuvConvert.h"
#include "encoder/fadeBand.h"
#include "encoder/motionSearch.h"
#include "stream/decoderTables.h"
#include "tests/support/imageLoad.h"
#include "tests/support/testMedia.h"
#include "tests/support/videoFrames.h"

namespace {

// Pictures of the search in the encoder's YUV layout, and a context over them.
struct SearchScene {
  uint32_t width, height;
  std::vector<uint8_t> source;
  std::vector<std::vector<uint8_t>> references;  // 17
  std::vector<uint8_t> preview;                  // the same for the three levels
  zycBlockPool pool;
  std::vector<zycBlock> top;
  zycMotionSearch search;

  SearchScene(uint32_t w, uint32_t h) : width(w), height(h) {
    source.assign(size_t(w) * h * 4, 255);
    references.assign(17, std::vector<uint8_t>(size_t(w) * h * 4, 255));
    preview.assign(size_t(w) * h * 4, 255);
    pool.Allocate((w / 16) * (h / 16), 16, 4);
    top.resize((w / 16) * (h / 16));
  }
  // A crop of a photograph at (x, y), converted to YUV.
  static std::vector<uint8_t> Photo(uint32_t x, uint32_t y, uint32_t w, uint32_t h) {
    static zylTestImage photo;
    if (photo.pixels.empty()) zylLoadPng(zylMediaPath("photo_coffee_600x400.png"), &photo);
    zylTestImage crop = zylCropImage(photo, x, y, w, h);
    std::vector<uint8_t> yuv(crop.pixels.size());
    zycConvertToYuv(crop.pixels.data(), yuv.data(), w * h);
    return yuv;
  }
  const zycSadKernels* forcedKernels = nullptr;  // when set, these instead of the chosen set
  zycBlockSums sums[2];  // references[0], the source
  zycFadeSums fadeSums;
  void Run(uint32_t count, bool simd, bool noFade = false, bool useSums = false) {
    if (useSums) {
      sums[0].Build(references[0].data(), width, height);
      sums[1].Build(source.data(), width, height);
      const uint8_t* fades[16];
      for (int f = 0; f < 16; ++f) fades[f] = references[f + 1].data();
      fadeSums.Build(fades, width, height);
    }
    search.referenceSums = useSums ? &sums[0] : nullptr;
    search.sourceSums = useSums ? &sums[1] : nullptr;
    search.fadeSums = useSums ? &fadeSums : nullptr;
    search.sourceYuv = source.data();
    for (int i = 0; i < 17; ++i) search.references[i] = references[i].data();
    for (int i = 0; i < 3; ++i) search.dxtPreview[i] = preview.data();
    search.paddedWidth = width;
    search.paddedHeight = height;
    search.table = kSmallMotionTable;
    search.count = count;
    search.noFade = noFade;
    search.searchOff = false;
    zycSadChoose(&search.kernels, simd);
    if (forcedKernels) search.kernels = *forcedKernels;
    search.pool = &pool;
    pool.Reset();
    for (size_t i = 0; i < top.size(); ++i) {
      top[i].size = 16;
      top[i].x = int32_t((i % (width / 16)) * 16);
      top[i].y = int32_t((i / (width / 16)) * 16);
      search.SearchBlock(top[i]);
    }
  }
};

void ExpectSameTree(const zycBlock& a, const zycBlock& b) {
  ASSERT_EQ(a.motionError, b.motionError) << a.x << "," << a.y << " size " << a.size;
  ASSERT_EQ(a.motionIndex, b.motionIndex);
  ASSERT_EQ(a.fadeError, b.fadeError);
  ASSERT_EQ(a.fadeMotionIndex, b.fadeMotionIndex);
  ASSERT_EQ(a.fadeIndex, b.fadeIndex);
  ASSERT_EQ(a.children == nullptr, b.children == nullptr);
  if (a.children) {
    ASSERT_EQ(a.dxtError, b.dxtError);
    for (int i = 0; i < 4; ++i) ExpectSameTree(a.children[i], b.children[i]);
  }
}

void CheckInside(const zycBlock& b, uint32_t w, uint32_t h) {
  const int8_t* v = kSmallMotionTable[b.motionIndex];
  EXPECT_GE(b.x + v[0], 0);
  EXPECT_GE(b.y + v[1], 0);
  EXPECT_LE(b.x + v[0] + b.size, int32_t(w));
  EXPECT_LE(b.y + v[1] + b.size, int32_t(h));
  if (b.children) {
    for (int i = 0; i < 4; ++i) CheckInside(b.children[i], w, h);
  }
}

TEST(MotionSearch, Sse2AndPlainKernelsGiveIdenticalTreesOnRealVideo) {
  auto frames = zylDecodeVideoFrames(zylMediaPath("walkers_768x576_10fps_120f.mkv"), 3, 96, 64);
  ASSERT_EQ(frames.size(), 3u);
  SearchScene plain(96, 64), fast(96, 64);
  for (SearchScene* s : {&plain, &fast}) {
    zycConvertToYuv(frames[2].pixels.data(), s->source.data(), 96 * 64);
    zycConvertToYuv(frames[0].pixels.data(), s->references[0].data(), 96 * 64);
    for (int f = 1; f < 17; ++f) {
      // Fades made by scaling, enough to give the fade search real work.
      std::vector<uint8_t> px = frames[0].pixels;
      for (size_t i = 0; i < px.size(); ++i) {
        if (i % 4 != 3) px[i] = uint8_t(px[i] * (12 + f) / 28 > 255 ? 255 : px[i] * (12 + f) / 28);
      }
      zycConvertToYuv(px.data(), s->references[f].data(), 96 * 64);
    }
    zycConvertToYuv(frames[1].pixels.data(), s->preview.data(), 96 * 64);
  }
  // The kernels the search picks, then each SIMD set that the processor runs, with and without
  // skipping the comparisons that the square sums rule out.
  plain.Run(256, false);
  zycSadKernels sets[2];
  std::vector<const zycSadKernels*> forced = {nullptr};
  if (zycCpuHasSse2() && zycSadSse2(&sets[0])) forced.push_back(&sets[0]);
  if (zycCpuHasAvx2() && zycSadAvx2(&sets[1])) forced.push_back(&sets[1]);
  for (const zycSadKernels* set : forced) {
    fast.forcedKernels = set;
    for (bool sums : {false, true}) {
      fast.Run(256, true, false, sums);
      for (size_t i = 0; i < plain.top.size(); ++i) ExpectSameTree(plain.top[i], fast.top[i]);
    }
  }
}

// Bands moving down a real picture, each keeping the rows it shares with the one before, hold
// the same fades and square sums as one band over the whole picture.
TEST(MotionSearch, FadeBandsMovingDownMatchOneWholeBand) {
  const uint32_t w = 48, h = 96;
  zylTestImage photo;
  ASSERT_TRUE(zylLoadPng(zylMediaPath("photo_coffee_600x400.png"), &photo));
  const zylTestImage crop = zylCropImage(photo, 200, 100, w, h);
  zycFadeBand whole, band;
  whole.Allocate(w, h);
  whole.Build(crop.pixels.data(), 0, h, true, 2, false);
  band.Allocate(w, 40);
  // Spans as the search asks them: bands of one top-block row reaching 12 rows each way.
  for (uint32_t top = 0; top < h / 16; ++top) {
    const zycRowSpan span = zycFadeRows(top, top + 1, 16, 12, h);
    band.Build(crop.pixels.data(), span.first, span.count, true, 2, top != 0);
    ASSERT_EQ(band.first(), span.first);
    for (int f = 0; f < 16; ++f) {
      ASSERT_EQ(std::memcmp(band.Picture(f), whole.Picture(f) + size_t(span.first) * w * 4,
                            size_t(span.count) * w * 4), 0) << "fade " << f << " top " << top;
    }
    for (int32_t s : {4, 8, 16}) {
      for (int32_t y = 0; y + s <= int32_t(span.count); y += 3) {
        for (int32_t x = 0; x + s <= int32_t(w); x += 5) {
          uint32_t got[16], want[16];
          band.sums().Sums(x, y, s, got);
          whole.sums().Sums(x, y + int32_t(span.first), s, want);
          ASSERT_EQ(std::memcmp(got, want, sizeof got), 0) << x << "," << y << " size " << s;
        }
      }
    }
  }
}

TEST(MotionSearch, FindsAShiftedPictureAndStaysInsideThePaddedPicture) {
  // The picture is its reference moved one pixel left: the vector (1, 0), table entry 3.
  SearchScene s(64, 48);
  std::vector<uint8_t> wide = SearchScene::Photo(100, 50, 66, 48);
  for (uint32_t y = 0; y < 48; ++y) {
    std::memcpy(&s.source[y * 64 * 4], &wide[(y * 66 + 1) * 4], 64 * 4);
    std::memcpy(&s.references[0][y * 64 * 4], &wide[y * 66 * 4], 64 * 4);
  }
  s.Run(256, true, true);
  for (const zycBlock& b : s.top) {
    CheckInside(b, 64, 48);
    if (b.x + 16 < 64) {
      EXPECT_EQ(b.motionIndex, 3u);
      EXPECT_EQ(b.motionError, 0u);
    } else {
      EXPECT_GT(b.motionError, 0u);  // the right column can't reach x + 1
    }
  }
}

}  // namespace

// The search kernels: plain against SSE2 and AVX2 on one size at a time, and a whole picture's
// tree search with each set, with and without the square-sum bounds. Pictures are real
// photographs in the encoder's YUV layout. Compare the ratios within one run.
#include <benchmark/benchmark.h>

#include <vector>

#include "base/cpuFeatures.h"
#include "dxt/yuvConvert.h"
#include "encoder/motionSearch.h"
#include "encoder/sad.h"
#include "stream/decoderTables.h"
#include "tests/support/imageLoad.h"
#include "tests/support/videoFrames.h"

namespace {

std::string Media(const char* name) { return std::string(ZYL_MEDIA_DIR) + "/" + name; }

std::vector<uint8_t> YuvCrop(uint32_t x, uint32_t y, uint32_t w, uint32_t h, int brighten = 0) {
  static zylTestImage photo;
  if (photo.pixels.empty()) zylLoadPng(Media("photo_astronaut_512x512.png"), &photo);
  zylTestImage crop = zylCropImage(photo, x, y, w, h);
  for (size_t i = 0; i < crop.pixels.size(); ++i) {
    if (i % 4 != 3) crop.pixels[i] = uint8_t(std::min(255, crop.pixels[i] + brighten));
  }
  std::vector<uint8_t> yuv(crop.pixels.size());
  zycConvertToYuv(crop.pixels.data(), yuv.data(), w * h);
  return yuv;
}

// Which kernels: 0 plain, 1 SSE2, 2 AVX2 (sizes 8 and 16; 4 stays SSE2). False when this build
// or this processor doesn't run them.
bool Kernels(int which, zycSadKernels* k) {
  zycSadPlain(k);
  if (which == 1) return zycCpuHasSse2() && zycSadSse2(k);
  if (which == 2) return zycCpuHasAvx2() && zycSadAvx2(k);
  return true;
}

void Kernel(benchmark::State& state, int which) {
  const int level = int(state.range(0));
  zycSadKernels k;
  if (!Kernels(which, &k)) {
    state.SkipWithError("kernels not run here");
    return;
  }
  const uint32_t w = 256, h = 256;
  std::vector<uint8_t> a = YuvCrop(100, 100, w, h), b = YuvCrop(103, 101, w, h);
  const uint32_t s = 4u << level;
  uint64_t sum = 0;
  for (auto _ : state) {
    for (uint32_t y = 0; y + s <= h; y += s) {
      for (uint32_t x = 0; x + s <= w; x += s) {
        sum += k.colour[level](a.data() + (y * w + x) * 4, b.data() + (y * w + x) * 4, w * 4,
                               ~0u);
      }
    }
  }
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(int64_t(state.iterations()) * (w / s) * (h / s));
  state.SetLabel("size " + std::to_string(s));
}

void BM_SadPlain(benchmark::State& state) { Kernel(state, 0); }
void BM_SadSse2(benchmark::State& state) { Kernel(state, 1); }
void BM_SadAvx2(benchmark::State& state) { Kernel(state, 2); }
BENCHMARK(BM_SadPlain)->Arg(0)->Arg(1)->Arg(2);
BENCHMARK(BM_SadSse2)->Arg(0)->Arg(1)->Arg(2);
BENCHMARK(BM_SadAvx2)->Arg(1)->Arg(2);

// One picture's whole search on two pictures of a shaky real clip, with the 16 fades made as
// the encoder makes them: 0 plain, 1 SSE2, 2 SSE2 with the square-sum bounds, 3 AVX2, 4 AVX2
// with the bounds (what the encoder runs on a processor with AVX2).
void BM_TreeSearch(benchmark::State& state) {
  const int variant = int(state.range(0));
  const uint32_t w = 320, h = 176;
  static const std::vector<zylTestPicture> frames =
      zylDecodeVideoFrames(Media("handheld_box_640x480_30fps_sound.mp4"), 8, int(w), int(h));
  if (frames.size() < 8) {
    state.SkipWithError("clip not decoded");
    return;
  }
  std::vector<uint8_t> source(size_t(w) * h * 4);
  zycConvertToYuv(frames[7].pixels.data(), source.data(), w * h);
  std::vector<std::vector<uint8_t>> refs(17, std::vector<uint8_t>(size_t(w) * h * 4));
  zycConvertToYuv(frames[5].pixels.data(), refs[0].data(), w * h);
  for (int f = 0; f < 16; ++f) {
    std::vector<uint8_t> px = frames[5].pixels;
    for (size_t i = 0; i < px.size(); ++i) {
      if (i % 4 == 3) continue;
      const int c = px[i];
      px[i] = uint8_t(f < 8 ? c - c * (8 - f) / 20 : c + (255 - c) * (f - 7) / 20);
    }
    zycConvertToYuv(px.data(), refs[f + 1].data(), w * h);
  }
  std::vector<uint8_t> preview(size_t(w) * h * 4);
  zycConvertToYuv(frames[6].pixels.data(), preview.data(), w * h);
  zycBlockSums sums[2];
  sums[0].Build(refs[0].data(), w, h);
  sums[1].Build(source.data(), w, h);
  const uint8_t* fades[16];
  for (int f = 0; f < 16; ++f) fades[f] = refs[f + 1].data();
  zycFadeSums fadeSums;
  fadeSums.Build(fades, w, h);
  zycBlockPool pool;
  pool.Allocate((w / 16) * (h / 16), 16, 4);
  zycMotionSearch m;
  m.sourceYuv = source.data();
  for (int i = 0; i < 17; ++i) m.references[i] = refs[i].data();
  for (int i = 0; i < 3; ++i) m.dxtPreview[i] = preview.data();
  m.paddedWidth = w;
  m.paddedHeight = h;
  m.table = kSmallMotionTable;
  m.count = 256;
  if (!Kernels(variant == 0 ? 0 : variant <= 2 ? 1 : 2, &m.kernels)) {
    state.SkipWithError("kernels not run here");
    return;
  }
  m.pool = &pool;
  if (variant == 2 || variant == 4) {
    m.sourceSums = &sums[1];
    m.referenceSums = &sums[0];
    m.fadeSums = &fadeSums;
  }
  std::vector<zycBlock> top((w / 16) * (h / 16));
  for (auto _ : state) {
    pool.Reset();
    for (size_t i = 0; i < top.size(); ++i) {
      top[i].size = 16;
      top[i].x = int32_t((i % (w / 16)) * 16);
      top[i].y = int32_t((i / (w / 16)) * 16);
      benchmark::DoNotOptimize(m.SearchBlock(top[i]));
    }
  }
  static const char* const kNames[5] = {"plain", "sse2", "sse2+sums", "avx2", "avx2+sums"};
  state.SetLabel(kNames[variant]);
}
BENCHMARK(BM_TreeSearch)->DenseRange(0, 4)->Unit(benchmark::kMillisecond);

}  // namespace

// The quad-tree key frame of ZYL1 on real photographs at 640 x 360 and 1280 x 720, at the
// I-frame budget the ZYL1 encoder asks at "RATI" 100 for a sound-less 30 fps movie: compress
// and decode time, size against the budget and PSNR of the decoded picture, beside the still
// image coder ("iFMT" 1) at the same byte size on the same picture.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <omp.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <vector>

#include "dxt/squishFront.h"
#include "mpmc/DXT1QuadTreeCompressor.h"
#include "stream/quadTreeReader.h"
#include "tests/support/imageLoad.h"
#include "tests/support/testMedia.h"
#include "vq/VQSLSQCompressor.h"

namespace {

struct Case {
  uint32_t width = 0, height = 0;
  std::vector<uint8_t> bgr;       // the picture, 3 bytes a pixel
  std::vector<uint8_t> quadTree;  // its quad-tree image at the budget, once made
  std::vector<uint8_t> still;     // its still image at the quad tree's size, once made
};

// wantedSize = trunc(2500 / 1000 * fps * frameBudget * weight), frameBudget = w * h * 3 / 100
// for a movie without sound (the credit of a first I-frame, weight "xFMT" 18 %).
uint32_t IFrameBudget(uint32_t width, uint32_t height) {
  const uint32_t frameBudget = width * height * 3 / 100;
  return uint32_t(2500.0 / 1000.0 * 30.0 * frameBudget * 0.18f);
}

Case& Picture(int which) {
  static Case cases[2];
  Case& c = cases[which];
  if (c.bgr.empty()) {
    zylTestImage photo;
    if (!zylLoadPng(zylMediaPath("photo_flower_2268x1512.png"), &photo)) return c;
    const zylTestImage cut = which == 0 ? zylCropImage(photo, 200, 150, 640, 360, 2)
                                        : zylCropImage(photo, 500, 400, 1280, 720, 1);
    c.width = cut.width;
    c.height = cut.height;
    c.bgr.resize(size_t(c.width) * c.height * 3);
    for (size_t i = 0; i < size_t(c.width) * c.height; ++i)
      for (int ch = 0; ch < 3; ++ch) c.bgr[3 * i + ch] = cut.pixels[4 * i + ch];
  }
  return c;
}

// The compressor prints every pass of its search; the benchmark's table stays readable.
struct QuietStdout {
  QuietStdout() {
    fflush(stdout);
    saved = dup(1);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    close(null);
  }
  ~QuietStdout() {
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
  }
  int saved;
};

void CompressQuadTree(Case& c) {
  std::vector<uint8_t> out(size_t(c.width) * c.height * 8 + 10240);
  uint32_t size = 0;
  QuietStdout quiet;
  DXT1QuadTreeCompressor compressor;
  compressor.compress(c.bgr.data(), c.width, c.height, IFrameBudget(c.width, c.height), out.data(),
                      &size);
  out.resize(size);
  c.quadTree = out;
}

double Psnr(const Case& c, const uint8_t* decoded, uint32_t bytesPerPixel) {
  double sum = 0;
  for (size_t i = 0; i < size_t(c.width) * c.height; ++i)
    for (int ch = 0; ch < 3; ++ch) {
      const double d = double(c.bgr[3 * i + ch]) - decoded[bytesPerPixel * i + ch];
      sum += d * d;
    }
  return sum == 0 ? 99.0 : 10 * std::log10(255.0 * 255.0 * 3 * double(c.width) * c.height / sum);
}

std::vector<uint8_t> DecodeQuadTree(const Case& c) {
  std::vector<uint8_t> pixels(size_t(c.width) * c.height * 4);
  zycQuadTreeReader reader;
  if (!reader.Setup(c.width, c.height)) return {};
  const char* problem = reader.Decode(c.quadTree.data(), uint32_t(c.quadTree.size()), c.width,
                                      c.height, pixels.data(), c.width * 4);
  reader.Release();
  if (problem) return {};
  return pixels;
}

void BM_QuadTreeCompress(benchmark::State& state) {
  Case& c = Picture(int(state.range(0)));
  if (c.bgr.empty()) return state.SkipWithError("picture not found");
  for (auto _ : state) CompressQuadTree(c);
  const std::vector<uint8_t> decoded = DecodeQuadTree(c);
  if (decoded.empty()) return state.SkipWithError("the reader refused the image");
  state.counters["target"] = IFrameBudget(c.width, c.height);
  state.counters["size_per_target"] = double(c.quadTree.size()) / IFrameBudget(c.width, c.height);
  state.counters["psnr_db"] = Psnr(c, decoded.data(), 4);
}
BENCHMARK(BM_QuadTreeCompress)->Arg(0)->Arg(1)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_QuadTreeDecode(benchmark::State& state) {
  Case& c = Picture(int(state.range(0)));
  if (c.bgr.empty()) return state.SkipWithError("picture not found");
  if (c.quadTree.empty()) CompressQuadTree(c);
  std::vector<uint8_t> pixels(size_t(c.width) * c.height * 4);
  zycQuadTreeReader reader;
  reader.Setup(c.width, c.height);
  for (auto _ : state) {
    const char* problem = reader.Decode(c.quadTree.data(), uint32_t(c.quadTree.size()), c.width,
                                        c.height, pixels.data(), c.width * 4);
    benchmark::DoNotOptimize(problem);
  }
  reader.Release();
}
BENCHMARK(BM_QuadTreeDecode)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

// Baseline of the compress time at every size: squish once over each 4x4 block of the picture
// on one thread, the block coder the quad tree calls for its leaves.
void BM_SquishEveryBlock(benchmark::State& state) {
  Case& c = Picture(int(state.range(0)));
  if (c.bgr.empty()) return state.SkipWithError("picture not found");
  std::vector<uint8_t> rgba(size_t(c.width) * c.height * 4);
  for (size_t i = 0; i < size_t(c.width) * c.height; ++i) {
    rgba[4 * i] = c.bgr[3 * i + 2];
    rgba[4 * i + 1] = c.bgr[3 * i + 1];
    rgba[4 * i + 2] = c.bgr[3 * i];
    rgba[4 * i + 3] = 255;
  }
  std::vector<uint8_t> blocks(size_t(c.width / 4) * (c.height / 4) * 8);
  omp_set_num_threads(1);
  for (auto _ : state)
    zycSquish::CompressImage(rgba.data(), int(c.width), int(c.height), blocks.data(), zycSquish::kDxt1);
}
BENCHMARK(BM_SquishEveryBlock)->Arg(0)->Arg(1)->Iterations(1)->Unit(benchmark::kMillisecond);

// The still image coder at the quad tree's byte size: its compress and decode are the
// baselines of the two above, its PSNR the one to compare.
constexpr uint32_t kStillImageMaxSide = 1024;

void BM_StillImageAtQuadTreeSize(benchmark::State& state) {
  Case& c = Picture(int(state.range(0)));
  if (c.bgr.empty()) return state.SkipWithError("picture not found");
  if (c.width > kStillImageMaxSide) return state.SkipWithError("the still image coder stops at 1024");
  if (c.quadTree.empty()) CompressQuadTree(c);
  omp_set_num_threads(1);
  VQSLSQCompressor compressor(true);
  compressor.verbose = false;
  std::vector<uint8_t> image;
  const int32_t target = int32_t(c.quadTree.size());
  for (auto _ : state) {
    QuietStdout quiet;
    compressor.compress(c.bgr.data(), c.width, c.height, target, image);
  }
  c.still = image;
  std::vector<uint8_t> decoded;
  if (!VQSLSQCompressor::decompress(image.data(), uint32_t(image.size()), decoded))
    return state.SkipWithError("still image did not decode");
  state.counters["size_per_target"] = double(image.size()) / target;
  state.counters["psnr_db"] = Psnr(c, decoded.data(), 3);
}
BENCHMARK(BM_StillImageAtQuadTreeSize)->Arg(0)->Arg(1)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_StillImageDecode(benchmark::State& state) {
  Case& c = Picture(int(state.range(0)));
  if (c.bgr.empty()) return state.SkipWithError("picture not found");
  if (c.width > kStillImageMaxSide) return state.SkipWithError("the still image coder stops at 1024");
  if (c.quadTree.empty()) CompressQuadTree(c);
  if (c.still.empty()) {
    omp_set_num_threads(1);
    VQSLSQCompressor compressor(true);
    compressor.verbose = false;
    QuietStdout quiet;
    compressor.compress(c.bgr.data(), c.width, c.height, int32_t(c.quadTree.size()), c.still);
  }
  const std::vector<uint8_t>& image = c.still;
  std::vector<uint8_t> decoded;
  for (auto _ : state)
    benchmark::DoNotOptimize(VQSLSQCompressor::decompress(image.data(), uint32_t(image.size()), decoded));
}
BENCHMARK(BM_StillImageDecode)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace

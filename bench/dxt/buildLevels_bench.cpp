// BuildLevels on real pictures for every back end: time per frame on the calling thread, and
// the PSNR (over U, Y, V) of the full-scale preview against the source picture.
// The squish back ends run on squish's OpenMP threads: the third argument sets their number.
// The DXT1 kernel table, plain against SSE2, on the same picture: compare within one run.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "dxt/buildLevels.h"
#include "dxt/dxtBackEnds.h"
#include "dxt/dxtKernels.h"
#include "dxt/yuvConvert.h"
#include "tests/support/imageLoad.h"
#include "tests/support/testMedia.h"

namespace {

// A real photograph cut to the padded size the encoder would hand over: 640 x 368 (a 640 x 360
// picture padded to whole 16-pixel blocks) from the photograph halved, 1280 x 720 unscaled.
const zylTestImage& picture(int size) {
  static zylTestImage pictures[2];
  static bool loaded = false;
  if (!loaded) {
    zylTestImage photo;
    if (zylLoadPng(zylMediaPath("photo_flower_2268x1512.png"), &photo)) {
      pictures[0] = zylCropImage(photo, 200, 150, 640, 368, 2);
      pictures[1] = zylCropImage(photo, 500, 400, 1280, 720, 1);
    }
    loaded = true;
  }
  return pictures[size];
}

double previewPsnr(const uint8_t* preview, const uint8_t* sourceYuv, size_t pixelCount) {
  double sum = 0;
  for (size_t i = 0; i < pixelCount; ++i) {
    for (int c = 0; c < 3; ++c) {
      const double d = double(preview[4 * i + c]) - double(sourceYuv[4 * i + c]);
      sum += d * d;
    }
  }
  const double mse = sum / double(pixelCount * 3);
  return mse == 0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 / mse);
}

void BM_BuildLevels(benchmark::State& state) {
  const uint32_t backEnd = uint32_t(state.range(0));
  const zylTestImage& image = picture(int(state.range(1)));
  omp_set_num_threads(int(state.range(2)));
  if (image.pixels.empty()) {
    state.SkipWithError("photo_flower_2268x1512.png not found");
    return;
  }
  zycDxtLevels levels;
  levels.Allocate(image.width, image.height);
  std::vector<uint8_t> work = image.pixels;
  uint32_t field = backEnd;
  for (auto _ : state) {
    BuildLevels(levels, work.data(), field, 0);
    benchmark::DoNotOptimize(levels.preview[2][0]);
  }
  std::vector<uint8_t> sourceYuv(image.pixels.size());
  const size_t pixelCount = size_t(image.width) * image.height;
  zycConvertToYuv(image.pixels.data(), sourceYuv.data(), uint32_t(pixelCount));
  state.counters["psnr"] = previewPsnr(levels.preview[0], sourceYuv.data(), pixelCount);
  state.counters["psnrHalf"] = previewPsnr(levels.preview[1], sourceYuv.data(), pixelCount);
  state.counters["MPix/s"] = benchmark::Counter(double(pixelCount) * 21.0 / 16.0,
                                                benchmark::Counter::kIsIterationInvariantRate);
  state.SetLabel(std::to_string(image.width) + "x" + std::to_string(image.height) + " DXTC " +
                 std::to_string(backEnd) + ", " + std::to_string(state.range(2)) + " thread(s)");
}

// The baseline of the same run: the YUV conversion of the same picture.
void BM_BuildLevelsBaselineYuv(benchmark::State& state) {
  const zylTestImage& image = picture(int(state.range(0)));
  if (image.pixels.empty()) {
    state.SkipWithError("photo_flower_2268x1512.png not found");
    return;
  }
  std::vector<uint8_t> out(image.pixels.size());
  for (auto _ : state) {
    zycConvertToYuv(image.pixels.data(), out.data(), image.width * image.height);
    benchmark::DoNotOptimize(out[0]);
  }
}

// The kernels of zycDxtKernels over the 640 x 368 picture: argument 0 is the set (0 plain, 1
// SSE2), argument 1 the kernel (0 the "DXTC" 5 level, 1 the base-colour assignment of every
// block to a palette of its first, last and two mixed pixels).
void BM_DxtKernels(benchmark::State& state) {
  zycDxtKernels kernels;
  zycDxtPlain(&kernels);
  if (state.range(0) == 1 && !zycDxtSse2(&kernels)) {
    state.SkipWithError("no SSE2 in this build");
    return;
  }
  const zylTestImage& image = picture(0);
  if (image.pixels.empty()) {
    state.SkipWithError("photo_flower_2268x1512.png not found");
    return;
  }
  const uint32_t w = image.width, h = image.height;
  std::vector<uint8_t> blocks(size_t(w / 4) * (h / 4) * 8);
  // Each block's 16 pixels gathered once, rows top first.
  std::vector<uint8_t> gathered;
  for (uint32_t by = 0; by < h; by += 4)
    for (uint32_t bx = 0; bx < w; bx += 4)
      for (uint32_t y = 0; y < 4; ++y) {
        const uint8_t* row = image.pixels.data() + (size_t(by + y) * w + bx) * 4;
        gathered.insert(gathered.end(), row, row + 16);
      }
  uint32_t sum = 0;
  for (auto _ : state) {
    if (state.range(1) == 0) {
      kernels.fastDxt(image.pixels.data(), w, h, blocks.data());
    } else {
      for (size_t b = 0; b < gathered.size(); b += 64) {
        const uint8_t* p = gathered.data() + b;
        int palette[4][3];
        for (int c = 0; c < 3; ++c) {
          palette[0][c] = p[c];
          palette[1][c] = p[60 + c];
          palette[2][c] = (2 * p[c] + p[60 + c]) / 3;
          palette[3][c] = (p[c] + 2 * p[60 + c]) / 3;
        }
        uint8_t indices[16];
        sum += kernels.baseColourAssign(p, 0xFFFF, palette, indices);
      }
    }
    benchmark::DoNotOptimize(blocks.data());
    benchmark::DoNotOptimize(sum);
  }
}

}  // namespace

BENCHMARK(BM_BuildLevelsBaselineYuv)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
// Every back end on one core at both sizes; the squish back ends also on two threads.
void buildLevelsArguments(benchmark::internal::Benchmark* b) {
  for (int size : {0, 1}) {
    for (int backEnd = 0; backEnd < int(kDxtBackEndCount); ++backEnd) {
      b->Args({backEnd, size, 1});
      if (zycDxtBackEndSquishFlags(zycDxtBackEndInUse(uint32_t(backEnd))) != 0) b->Args({backEnd, size, 2});
    }
  }
}
BENCHMARK(BM_BuildLevels)->Apply(buildLevelsArguments)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_DxtKernels)->ArgsProduct({{0, 1}, {0, 1}})->Unit(benchmark::kMicrosecond);

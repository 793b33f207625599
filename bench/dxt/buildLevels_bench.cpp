// BuildLevels on real pictures for every back end: time per frame on the calling thread, and
// the PSNR (over U, Y, V) of the full-scale preview against the source picture.
// The squish back ends run on squish's OpenMP threads: the third argument sets their number.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "dxt/buildLevels.h"
#include "dxt/dxtBackEnds.h"
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

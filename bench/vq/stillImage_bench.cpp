// Still image coding of a 640x360 photograph: the time of the surface phase and of the
// codebook phase, the size against the target and the PSNR of the decoded picture; and the
// group search on a smooth picture, fast against the refitting reference.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "base/fileIo.h"
#include "codec/zylCodec.h"
#include "encoder/zycEncoder.h"
#include "stream/zylFormat.h"
#include "tests/support/imageLoad.h"
#include "tests/support/videoFrames.h"
#include "vq/VQCodebook.h"
#include "vq/VQSLSQCompressor.h"

namespace {

struct Picture {
  uint32_t width = 0, height = 0;
  std::vector<uint8_t> pixels;  // 3 bytes a pixel
};

Picture photo(const char* name, uint32_t width, uint32_t height, uint32_t shrink) {
  Picture p;
  zylTestImage image;
  if (!zylLoadPng(std::string(ZYL_MEDIA_DIR) + "/" + name, &image)) return p;
  const zylTestImage cut = zylCropImage(image, 0, 0, width, height, shrink);
  p.width = width;
  p.height = height;
  p.pixels.resize(size_t(width) * height * 3);
  for (size_t i = 0; i < size_t(width) * height; ++i)
    for (int c = 0; c < 3; ++c) p.pixels[3 * i + c] = cut.pixels[4 * i + c];
  return p;
}

double psnr(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
  double sum = 0.0;
  for (size_t i = 0; i < a.size(); ++i) sum += double(a[i] - b[i]) * double(a[i] - b[i]);
  return sum == 0.0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 * double(a.size()) / sum);
}

// A smooth gradient with light noise and a photograph in its middle: many groups of surfaces.
Picture smoothPicture(uint32_t width, uint32_t height) {
  Picture p;
  p.width = width;
  p.height = height;
  p.pixels.resize(size_t(width) * height * 3);
  std::mt19937 random(1);
  for (uint32_t y = 0; y < height; ++y)
    for (uint32_t x = 0; x < width; ++x)
      for (uint32_t c = 0; c < 3; ++c)
        p.pixels[(size_t(y) * width + x) * 3 + c] = uint8_t(40 + 30 * c + x / 4 + y / 3 + random() % 3);
  const Picture inset = photo("photo_coffee_600x400.png", width / 2, height / 2, 4);
  if (inset.pixels.empty()) return Picture();
  for (uint32_t y = 0; y < height / 2; ++y)
    std::memcpy(&p.pixels[((y + height / 4) * width + width / 4) * 3], &inset.pixels[y * (width / 2) * 3],
                width / 2 * 3);
  return p;
}

void compressPicture(benchmark::State& state, const Picture& p, int32_t target, bool reference) {
  if (p.pixels.empty()) {
    state.SkipWithError("picture not found");
    return;
  }
  VQSLSQCompressor compressor(true);
  compressor.verbose = false;
  compressor.referenceGroupSearch = reference;
  std::vector<uint8_t> image;
  double slsq = 0.0, vq = 0.0;
  for (auto _ : state) {
    compressor.compress(p.pixels.data(), p.width, p.height, target, image);
    slsq += compressor.statistics().slsqSeconds;
    vq += compressor.statistics().vqSeconds;
  }
  std::vector<uint8_t> decoded;
  VQSLSQCompressor::decompress(image.data(), uint32_t(image.size()), decoded);
  const double n = double(state.iterations());
  state.counters["slsq_s"] = slsq / n;
  state.counters["vq_s"] = vq / n;
  state.counters["size_per_target"] = double(image.size()) / target;
  state.counters["psnr_db"] = psnr(decoded, p.pixels);
  state.counters["surface_blocks"] = compressor.statistics().slsqBlocks;
  state.counters["rounds"] = compressor.statistics().trainingRounds;
}

void BM_StillImagePhoto640x360(benchmark::State& state) {
  static const Picture p = photo("photo_flower_2268x1512.png", 640, 360, 3);
  compressPicture(state, p, int32_t(state.range(0)), false);
}
BENCHMARK(BM_StillImagePhoto640x360)->Arg(16000)->Iterations(1)->Unit(benchmark::kMillisecond);

void BM_StillImageGroupSearchFast(benchmark::State& state) {
  static const Picture p = smoothPicture(320, 184);
  compressPicture(state, p, 6000, false);
}
BENCHMARK(BM_StillImageGroupSearchFast)->Iterations(3)->Unit(benchmark::kMillisecond);

void BM_StillImageGroupSearchReference(benchmark::State& state) {
  static const Picture p = smoothPicture(320, 184);
  compressPicture(state, p, 6000, true);
}
BENCHMARK(BM_StillImageGroupSearchReference)->Iterations(1)->Unit(benchmark::kMillisecond);

// The nearest search of training: a 1024-vector codebook trained on the 4x4 quarters of the
// photograph, then every quarter searched once, pruned or with all full distances.
struct TrainedCodebook {
  std::vector<float> quarters;
  uint32_t count = 0;
  std::unique_ptr<VQCodebook> codebook;
  TrainedCodebook() {
    const Picture p = photo("photo_flower_2268x1512.png", 640, 360, 3);
    if (p.pixels.empty()) return;
    for (uint32_t by = 0; by < p.height; by += 4)
      for (uint32_t bx = 0; bx < p.width; bx += 4)
        for (uint32_t row = 0; row < 4; ++row)
          for (uint32_t i = 0; i < 12; ++i) quarters.push_back(p.pixels[((by + row) * p.width + bx) * 3 + i]);
    count = uint32_t(quarters.size() / kVqComponents);
    codebook = std::make_unique<VQCodebook>(1024, true);
    codebook->init();
    for (int round = 0; round < 4; ++round) {
      for (uint32_t k = 0; k < count; ++k) codebook->add(&quarters[size_t(k) * kVqComponents]);
      codebook->update();
    }
  }
};

void nearestSearch(benchmark::State& state, bool pruned) {
  static TrainedCodebook trained;
  if (!trained.codebook) {
    state.SkipWithError("picture not found");
    return;
  }
  float d;
  for (auto _ : state) {
    for (uint32_t k = 0; k < trained.count; ++k) {
      const float* v = &trained.quarters[size_t(k) * kVqComponents];
      benchmark::DoNotOptimize(pruned ? trained.codebook->nearest(v, &d)
                                      : trained.codebook->nearestExhaustive(v, &d));
    }
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * trained.count);
}
void BM_VqNearestPruned(benchmark::State& state) { nearestSearch(state, true); }
void BM_VqNearestFullScan(benchmark::State& state) { nearestSearch(state, false); }
BENCHMARK(BM_VqNearestPruned)->Iterations(2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_VqNearestFullScan)->Iterations(2)->Unit(benchmark::kMillisecond);

// The first frame of a clip (640x360) as a key frame of the ZYL0 encoder, held as a still image ("iFMT"
// 1) or as a block tree (0), with the encoder's defaults: the bytes of the frame and the PSNR
// of what a player shows.
const char* const kKeyFrameClips[] = {"walkers_768x576_10fps_120f.mkv",
                                      "coin_pen_568x320_30fps_sound.mov"};

void keyFrame(benchmark::State& state, uint32_t frameFormat) {
  const char* clip = kKeyFrameClips[state.range(0)];
  const std::vector<zylTestPicture> frames =
      zylDecodeVideoFrames(std::string(ZYL_MEDIA_DIR) + "/" + clip, 1, 640, 360);
  if (frames.empty()) {
    state.SkipWithError("clip not decoded");
    return;
  }
  const zylTestPicture& p = frames[0];
  int32_t size = 0;
  double quality = 0.0;
  for (auto _ : state) {
    zycEncoder encoder;
    encoder.verbose = false;
    encoder.iFrameFormat = frameFormat;
    zycFileHolder holder;
    const std::string path = "/tmp/zyl_bench_still_" + std::to_string(frameFormat) + ".zyl";
    holder.file = std::fopen(path.c_str(), "w+b");
    zycStreamHeader header;
    header.magic = kMagicZyl0;
    header.frameDuration = 100000;
    header.timeScale = 1000000;
    header.width = uint32_t(p.width);
    header.height = uint32_t(p.height);
    zylFrameImage image;
    image.pixels = const_cast<uint8_t*>(p.pixels.data());
    image.width = p.width;
    image.height = p.height;
    zylProgress progress{};
    const uint8_t* rebuilt = nullptr;
    if (encoder.Begin(header, image, &holder, nullptr, nullptr, nullptr, &progress, nullptr) != 0 ||
        !(rebuilt = encoder.Reconstructed())) {
      state.SkipWithError("Begin refused");
      break;
    }
    size = progress.size;
    double squares = 0.0;
    for (int32_t y = 0; y < p.height; ++y)
      for (int32_t x = 0; x < p.width; ++x)
        for (int c = 0; c < 3; ++c) {
          const double d = double(p.pixels[(size_t(y) * p.width + x) * 4 + c]) -
                           double(rebuilt[size_t(y) * encoder.Pitch() + size_t(x) * 4 + c]);
          squares += d * d;
        }
    const double mse = squares / (double(p.width) * p.height * 3);
    quality = mse > 0 ? 10.0 * std::log10(255.0 * 255.0 / mse) : 99.0;
    image.pixels = nullptr;
    encoder.End();
    holder.Close();
    std::remove(path.c_str());
  }
  state.counters["frame_bytes"] = size;
  state.counters["psnr_db"] = quality;
  state.SetLabel(clip);
}
void BM_KeyFrameStill(benchmark::State& state) { keyFrame(state, 1); }
void BM_KeyFrameBlockTree(benchmark::State& state) { keyFrame(state, 0); }
BENCHMARK(BM_KeyFrameStill)->DenseRange(0, 1)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_KeyFrameBlockTree)->DenseRange(0, 1)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

// Whole ZYL1 movies on real video at 640x360, one core. BM_Zyl1Frame: frames per second of
// Next, each I-frame format. BM_Zyl1Report (with ZYL_BENCH_RATE_REPORT set) encodes each clip
// at "RATI" 100 and 30 with both encoders in the same run and reports the bytes against the
// budget, the PSNR of the reconstruction (RGB, and Y as (R + 2G + B) / 4) against the source,
// and the count of each ZYL1 frame mode.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "encoder/zycEncoder.h"
#include "mpmc/zycMpmcEncoder.h"
#include "stream/zylFormat.h"
#include "tests/support/videoFrames.h"

namespace {

const char* const kClips[] = {
    "walkers_768x576_10fps_120f.mkv",
    "handheld_box_640x480_30fps_sound.mp4",
    "coin_pen_568x320_30fps_sound.mov",
    "tree_320x240_15fps_cinepak.avi",
};

const std::vector<zylTestPicture>& Frames(int clip, int count) {
  static std::map<std::string, std::vector<zylTestPicture>> cache;
  const std::string key = std::to_string(clip) + "/" + std::to_string(count);
  auto it = cache.find(key);
  if (it == cache.end()) {
    it = cache.emplace(key, zylDecodeVideoFrames(std::string(ZYL_MEDIA_DIR) + "/" + kClips[clip],
                                                 count, 640, 360)).first;
  }
  return it->second;
}

// One job of either encoder on a scratch file.
template <typename Encoder>
struct Job {
  Encoder encoder;
  zycFileHolder holder;
  zycStreamHeader header;
  std::string path;
  zylProgress progress{};

  explicit Job(const std::string& name) {
    path = "/tmp/zyl_bench_" + name + ".zyl";
    holder.file = std::fopen(path.c_str(), "w+b");
    encoder.verbose = false;
  }
  ~Job() {
    encoder.End();
    holder.Close();
    std::remove(path.c_str());
  }
  static void Image(const zylTestPicture& p, zylFrameImage* image) {
    image->pixels = const_cast<uint8_t*>(p.pixels.data());
    image->width = p.width;
    image->height = p.height;
  }
  bool Begin(const zylTestPicture& p, uint32_t magic, uint32_t frames) {
    header.magic = magic;
    header.frameDuration = uint32_t(1000000 / (p.frameRate > 0 ? p.frameRate : 25.0));
    header.timeScale = 1000000;
    header.width = uint32_t(p.width);
    header.height = uint32_t(p.height);
    encoder.SetJobRange(0, frames);
    zylFrameImage image;
    Image(p, &image);
    const bool ok = encoder.Begin(header, image, &holder, nullptr, nullptr, nullptr, &progress,
                                  nullptr) == 0;
    image.pixels = nullptr;
    return ok;
  }
  void Next(const zylTestPicture& p) {
    zylFrameImage image;
    Image(p, &image);
    encoder.Next(image, &progress);
    image.pixels = nullptr;
  }
  long FileSize() {
    std::fflush(holder.file);
    std::fseek(holder.file, 0, SEEK_END);
    return std::ftell(holder.file);
  }
};

// PSNR of the rebuilt picture against the source: RGB over all channels, and Y.
void Psnr(const zylTestPicture& p, const uint8_t* rebuilt, uint32_t pitch, double* rgb,
          double* y) {
  double squares = 0.0, ySquares = 0.0;
  for (int32_t row = 0; row < p.height; ++row) {
    for (int32_t x = 0; x < p.width; ++x) {
      const uint8_t* s = &p.pixels[(size_t(row) * p.width + x) * 4];
      const uint8_t* r = rebuilt + size_t(row) * pitch + size_t(x) * 4;
      for (int c = 0; c < 3; ++c) squares += double(s[c] - r[c]) * double(s[c] - r[c]);
      const double d = (double(s[0]) + 2.0 * s[1] + s[2] - (double(r[0]) + 2.0 * r[1] + r[2])) / 4;
      ySquares += d * d;
    }
  }
  const double n = double(p.width) * p.height;
  *rgb = squares > 0 ? 10.0 * std::log10(65025.0 / (squares / (3 * n))) : 99.0;
  *y = ySquares > 0 ? 10.0 * std::log10(65025.0 / (ySquares / n)) : 99.0;
}

// args: clip, "iFMT". Frames per second of Next over the clip's first 16 frames, one core.
void BM_Zyl1Frame(benchmark::State& state) {
  omp_set_num_threads(1);
  const int clip = int(state.range(0));
  const auto& frames = Frames(clip, 16);
  if (frames.size() < 2) {
    state.SkipWithError("clip not decoded");
    return;
  }
  Job<zycMpmcEncoder> job("zyl1Frame");
  job.encoder.iFrameFormat = uint32_t(state.range(1));
  job.encoder.vqSectionLimit = 230400;
  if (!job.Begin(frames[0], kMagicZyl1, 1u << 30)) {
    state.SkipWithError("Begin refused");
    return;
  }
  size_t i = 1;
  for (auto _ : state) {
    job.Next(frames[i]);
    i = i + 1 < frames.size() ? i + 1 : 1;
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
  state.SetLabel(std::string(kClips[clip]) + (state.range(1) == 1 ? " still" : " quadtree"));
}
BENCHMARK(BM_Zyl1Frame)->ArgsProduct({{0, 1, 2, 3}, {1, 0}})->Unit(benchmark::kMillisecond);

// args: clip, ratio, "iFMT". One ZYL1 and one ZYL0 encode of 12 frames at 640x360 per run.
void BM_Zyl1Report(benchmark::State& state) {
  omp_set_num_threads(1);
  const int clip = int(state.range(0));
  const uint32_t ratio = uint32_t(state.range(1));
  const auto& frames = Frames(clip, 12);
  if (frames.size() < 2) {
    state.SkipWithError("clip not decoded");
    return;
  }
  for (auto _ : state) {
    Job<zycMpmcEncoder> one("zyl1Report");
    one.encoder.compressionRatio = ratio;
    one.encoder.iFrameFormat = uint32_t(state.range(2));
    one.encoder.vqSectionLimit = 230400;
    double rgb = 0, y = 0, sumRgb = 0, sumY = 0;
    uint32_t modes[4] = {};
    const auto start = std::chrono::steady_clock::now();
    if (!one.Begin(frames[0], kMagicZyl1, uint32_t(frames.size()))) {
      state.SkipWithError("Begin refused");
      return;
    }
    for (size_t i = 0; i < frames.size(); ++i) {
      if (i > 0) one.Next(frames[i]);
      ++modes[one.encoder.lastFrame.mode & 3];
      Psnr(frames[i], one.encoder.Reconstructed(), one.encoder.Pitch(), &rgb, &y);
      sumRgb += rgb;
      sumY += y;
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const double n = double(frames.size());
    const double fps = double(one.header.timeScale) / one.header.frameDuration;
    const double budget = double(one.encoder.frameBudget) * n;
    // The first I-frame starts with the full credit: its share comes on top of the mean.
    const double iShare = double(one.encoder.iFrameCreditMax) / 1000.0 * fps *
                          double(one.encoder.frameBudget) * double(one.encoder.iFrameWeight);
    const double bytes = double(one.FileSize());
    state.counters["zyl1_bytes"] = bytes;
    state.counters["zyl1_over_budget"] = bytes / budget;
    state.counters["zyl1_over_budget_with_i"] = bytes / (budget + iShare);
    state.counters["zyl1_psnr_rgb"] = sumRgb / n;
    state.counters["zyl1_psnr_y"] = sumY / n;
    state.counters["zyl1_fps"] = n / seconds;
    state.counters["modes_vq"] = modes[0];
    state.counters["modes_quadtree"] = modes[1];
    state.counters["modes_p"] = modes[2];
    state.counters["modes_repeat"] = modes[3];

    Job<zycEncoder> zero("zyl0Report");
    zero.encoder.ratio = ratio;
    sumRgb = sumY = 0;
    if (!zero.Begin(frames[0], kMagicZyl0, uint32_t(frames.size()))) {
      state.SkipWithError("ZYL0 Begin refused");
      return;
    }
    for (size_t i = 0; i < frames.size(); ++i) {
      if (i > 0) zero.Next(frames[i]);
      Psnr(frames[i], zero.encoder.Reconstructed(), zero.encoder.Pitch(), &rgb, &y);
      sumRgb += rgb;
      sumY += y;
    }
    state.counters["zyl0_bytes"] = double(zero.FileSize());
    state.counters["zyl0_psnr_rgb"] = sumRgb / n;
    state.counters["zyl0_psnr_y"] = sumY / n;
  }
  state.SetLabel(std::string(kClips[clip]) + (state.range(2) == 1 ? " still" : " quadtree"));
}
const bool kReport = [] {
  if (std::getenv("ZYL_BENCH_RATE_REPORT")) {
    benchmark::RegisterBenchmark("BM_Zyl1Report", BM_Zyl1Report)
        ->ArgsProduct({{0, 1, 2, 3}, {100, 30}, {1, 0}})
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);
  }
  return true;
}();

}  // namespace

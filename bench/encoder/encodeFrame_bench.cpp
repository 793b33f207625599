// Whole frames of the ZYL0 encoder on real video at 640x360 (and 1920x1080), default
// parameters, with one thread (the single-threaded path) and with two ("THRD"): frames per
// second and the time of each timer slot per frame. BM_RateReport (with ZYL_BENCH_RATE_REPORT set) encodes each clip at "RATI" 100 and 30 with zlib and LZMA and reports how
// the bytes meet the budget and the reconstruction's PSNR.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "base/timers.h"
#include "bench/encoder/benchJob.h"
#include "encoder/zycEncoder.h"
#include "stream/zylFormat.h"
#include "tests/support/videoFrames.h"

namespace {

using zylBench::Frames;
using zylBench::Job;
using zylBench::kClips;
using zylBench::Psnr;

// args: clip, threads, width, height.
void BM_EncodeFrame(benchmark::State& state) {
  omp_set_num_threads(1);
  const int clip = int(state.range(0));
  const auto& frames = Frames(clip, 16, int(state.range(2)), int(state.range(3)));
  if (frames.size() < 2) {
    state.SkipWithError("clip not decoded");
    return;
  }
  Job job("encodeFrame");
  job.encoder.threads = uint32_t(state.range(1));
  if (!job.Begin(frames[0])) {
    state.SkipWithError("Begin refused");
    return;
  }
  TimerReset();
  size_t i = 1;
  double passes = 0.0;
  for (auto _ : state) {
    job.Next(frames[i]);
    passes += job.encoder.LastFrame().passes + 1;
    i = i + 1 < frames.size() ? i + 1 : 1;
  }
  state.counters["passes"] = passes / double(state.iterations());
  state.SetItemsProcessed(int64_t(state.iterations()));
  const double n = double(state.iterations());
  const std::pair<int, const char*> slots[] = {
      {kTimerDxt1Compression, "dxt_ms"},  {kTimerBuildMotionVector, "search_ms"},
      {kTimerQuantize, "walk_ms"},        {kTimerBackupZip, "backup_ms"},
      {kTimerSaveOffset, "motion_ms"},    {kTimerSaveBlock, "colour_ms"},
      {kTimerDeflateEnd, "restore_ms"},   {kTimerNext, "next_ms"}};
  for (const auto& [slot, name] : slots) {
    state.counters[name] = double(TimerSlot(slot).totalMicroseconds) / 1000.0 / n;
  }
  state.SetLabel(kClips[clip]);
}
BENCHMARK(BM_EncodeFrame)
    ->ArgsProduct({{0, 1, 2, 3}, {1, 2}, {640}, {360}})
    ->ArgsProduct({{0}, {1, 2}, {1920}, {1080}})
    ->ArgNames({"clip", "threads", "w", "h"})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

// args: clip, ratio, packing. One encode of 24 frames at 640x360 per run.
void BM_RateReport(benchmark::State& state) {
  omp_set_num_threads(1);
  const int clip = int(state.range(0));
  const uint32_t ratio = uint32_t(state.range(1));
  const uint32_t packing = uint32_t(state.range(2));
  const auto& frames = Frames(clip, 24, 640, 360);
  if (frames.size() < 2) {
    state.SkipWithError("clip not decoded");
    return;
  }
  for (auto _ : state) {
    Job job("rate");
    job.encoder.ratio = ratio;
    job.encoder.packing = packing;
    if (!job.Begin(frames[0])) {
      state.SkipWithError("Begin refused");
      return;
    }
    double psnr = Psnr(frames[0], job.encoder.Reconstructed(), job.encoder.Pitch());
    double meanRatio = 0.0, worstRatio = 0.0;
    uint32_t over = 0;
    for (size_t i = 1; i < frames.size(); ++i) {
      job.Next(frames[i]);
      const auto& last = job.encoder.LastFrame();
      const double r = last.wantedSize > 0 ? double(last.size) / last.wantedSize : 0.0;
      meanRatio += r;
      worstRatio = std::max(worstRatio, r);
      if (last.size > last.wantedSize) ++over;
      psnr += Psnr(frames[i], job.encoder.Reconstructed(), job.encoder.Pitch());
    }
    const double budget = double(job.encoder.CompressionSize()) * double(frames.size());
    state.counters["file_over_budget"] = double(job.FileSize()) / budget;
    state.counters["mean_size_over_wanted"] = meanRatio / double(frames.size() - 1);
    state.counters["worst_size_over_wanted"] = worstRatio;
    state.counters["frames_over_wanted"] = over;
    state.counters["psnr_db"] = psnr / double(frames.size());
  }
  state.SetLabel(std::string(kClips[clip]) + (packing ? " lzma" : " zlib"));
}
// The report encodes 16 jobs and takes minutes: it is registered only when
// ZYL_BENCH_RATE_REPORT is set, so that the smoke run stays short.
const bool kRateReport = [] {
  if (std::getenv("ZYL_BENCH_RATE_REPORT")) {
    benchmark::RegisterBenchmark("BM_RateReport", BM_RateReport)
        ->ArgsProduct({{0, 1, 2, 3}, {100, 30}, {0, 1}})
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);
  }
  return true;
}();

}  // namespace

// Table-block P-frames ("jFMT" 1) against DXT1 colour items ("jFMT" 0) on real video at
// 640x360, one core. BM_TableFrame times single P-frames of both formats in one run, so their
// items_per_second give the frame rate ratio. BM_TableReport (with ZYL_BENCH_TABLE_REPORT set)
// encodes 24 frames of each clip at "RATI" 100 and 30 in both formats and reports bytes, mean
// PSNR, frames per second of processor time, and for table frames the mean new entries and index bits.
#include <benchmark/benchmark.h>
#include <omp.h>

#include <ctime>
#include <cstdlib>
#include <string>

#include "bench/encoder/benchJob.h"

namespace {

using zylBench::Frames;
using zylBench::Job;
using zylBench::kClips;
using zylBench::Psnr;

// args: clip, jFMT.
void BM_TableFrame(benchmark::State& state) {
  omp_set_num_threads(1);
  const int clip = int(state.range(0));
  const auto& frames = Frames(clip, 16, 640, 360);
  if (frames.size() < 2) {
    state.SkipWithError("clip not decoded");
    return;
  }
  Job job("tableFrame");
  job.encoder.pFrameFormat = uint32_t(state.range(1));
  job.encoder.vqLimit = 230400;
  if (!job.Begin(frames[0])) {
    state.SkipWithError("Begin refused");
    return;
  }
  size_t i = 1;
  for (auto _ : state) {
    job.Next(frames[i]);
    i = i + 1 < frames.size() ? i + 1 : 1;
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
  state.SetLabel(std::string(kClips[clip]) + (state.range(1) ? " table" : " dxt1"));
}
BENCHMARK(BM_TableFrame)->ArgsProduct({{0}, {0, 1}})->Unit(benchmark::kMillisecond);

// args: clip, ratio, jFMT. One encode of 24 frames per run.
void BM_TableReport(benchmark::State& state) {
  omp_set_num_threads(1);
  const int clip = int(state.range(0));
  const auto& frames = Frames(clip, 24, 640, 360);
  if (frames.size() < 2) {
    state.SkipWithError("clip not decoded");
    return;
  }
  for (auto _ : state) {
    Job job("tableReport");
    job.encoder.ratio = uint32_t(state.range(1));
    job.encoder.pFrameFormat = uint32_t(state.range(2));
    job.encoder.vqLimit = 230400;
    // Processor time: the machine's other work does not count.
    const std::clock_t start = std::clock();
    if (!job.Begin(frames[0])) {
      state.SkipWithError("Begin refused");
      return;
    }
    double psnr = Psnr(frames[0], job.encoder.Reconstructed(), job.encoder.Pitch());
    double newEntries = 0.0, indexBits = 0.0, tableFrames = 0.0;
    for (size_t i = 1; i < frames.size(); ++i) {
      job.Next(frames[i]);
      psnr += Psnr(frames[i], job.encoder.Reconstructed(), job.encoder.Pitch());
      const auto& last = job.encoder.LastFrame();
      if (last.tableBlocks) {
        newEntries += last.tableNew;
        indexBits += last.tableIndexBits;
        tableFrames += 1.0;
      }
    }
    const double seconds = double(std::clock() - start) / CLOCKS_PER_SEC;
    state.counters["bytes"] = double(job.FileSize());
    state.counters["psnr_db"] = psnr / double(frames.size());
    state.counters["fps"] = double(frames.size()) / seconds;
    state.counters["new_entries"] = tableFrames > 0 ? newEntries / tableFrames : 0.0;
    state.counters["index_bits"] = tableFrames > 0 ? indexBits / tableFrames : 0.0;
  }
  state.SetLabel(std::string(kClips[clip]) + (state.range(2) ? " table" : " dxt1"));
}
const bool kTableReport = [] {
  if (std::getenv("ZYL_BENCH_TABLE_REPORT")) {
    benchmark::RegisterBenchmark("BM_TableReport", BM_TableReport)
        ->ArgsProduct({{0, 1, 2, 3}, {100, 30}, {0, 1}})
        ->Iterations(1)
        ->Unit(benchmark::kMillisecond);
  }
  return true;
}();

}  // namespace

// The MPMCAF plane coder on one real 640x360 P-frame (walkers clip, frame 2 against frame 0) at
// the budgets of "RATI" 100 without sound: frameBudget 6912 bytes, wantedSize 5668, so Y gets
// 34008 bits and U and V 5668 bits each. Counters split each plane's time into the first
// iteration's searches (SAD tables and all gains), the other iterations, the quantiser choice
// and the writing, in milliseconds, with the iteration count, the mean iteration cost and the
// SNR reached. Compare within one run.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "mpmc/mcproc.h"
#include "mpmc/planeKernels.h"
#include "tests/mpmc/planeTestSupport.h"

namespace {

constexpr uint32_t kWidth = 640, kHeight = 360;
constexpr uint32_t kWanted = 6912 - 1244;

const std::vector<zylTestPlanes>& Frames() {
  static const std::vector<zylTestPlanes> frames =
      zylClipPlanes("walkers_768x576_10fps_120f.mkv", 3, kWidth, kHeight);
  return frames;
}

// Keeps the coder's console lines out of the benchmark's table.
struct QuietStdout {
  int saved = -1;
  QuietStdout() {
    std::fflush(stdout);
    saved = dup(1);
    const int null = open("/dev/null", O_WRONLY);
    if (null >= 0) {
      dup2(null, 1);
      close(null);
    }
  }
  ~QuietStdout() {
    std::fflush(stdout);
    if (saved >= 0) {
      dup2(saved, 1);
      close(saved);
    }
  }
};

void Report(benchmark::State& state, double planes) {
  const mpmcafPlaneReport& r = planeReport;
  state.counters["firstSearch_ms"] = r.firstSearch / 1000.0;
  state.counters["iterations_ms"] = r.iterations / 1000.0;
  state.counters["quantiser_ms"] = r.quantiser / 1000.0;
  state.counters["writing_ms"] = r.writing / 1000.0;
  state.counters["iterations"] = r.iterationCount;
  state.counters["iteration_us"] = r.iterationCount > 1 ? r.iterations / double(r.iterationCount - 1) : 0;
  state.counters["snr"] = r.snr;
  (void)planes;
}

// One plane: 0 Y, 1 U, 2 V, with the plain kernels (second argument 0) or the fastest this
// processor runs (1); the buffers are built for its size outside the timing.
void BM_Plane(benchmark::State& state) {
  const auto& frames = Frames();
  if (frames.size() < 3) {
    state.SkipWithError("clip not decoded");
    return;
  }
  const int which = int(state.range(0));
  const uint32_t w = which ? kWidth / 2 : kWidth, h = which ? kHeight / 2 : kHeight;
  const auto& source = which == 0 ? frames[2].y : which == 1 ? frames[2].u : frames[2].v;
  const auto& reference = which == 0 ? frames[0].y : which == 1 ? frames[0].u : frames[0].v;
  std::vector<uint8_t> out(size_t(w) * h * 8 + 10240), recon(reference.size());
  uint32_t size = 0;
  {
    QuietStdout quiet;
    mpmcafBeginJob(w, h);
  }
  zycPlaneKernelsChoose(&planeKernels, state.range(1) != 0);
  for (auto _ : state) {
    recon = reference;
    QuietStdout quiet;
    encodePlane(source.data(), recon.data(), recon.data(), which ? kWanted : kWanted * 6, out.data(), &size);
  }
  Report(state, 1);
  state.counters["bytes"] = size;
  // A digest of the stream, to see at a glance that a faster build writes the same bits.
  uint32_t digest = 2166136261u;
  for (uint32_t i = 0; i < size; ++i) digest = (digest ^ out[i]) * 16777619u;
  state.counters["digest"] = digest % 1000000;
  QuietStdout quiet;
  mpmcafEndJob();
}
BENCHMARK(BM_Plane)->ArgsProduct({{0, 1, 2}, {0, 1}})->Unit(benchmark::kMillisecond);

// The whole P-frame as the encoder runs it: buffers rebuilt before Y and before U.
void BM_Frame(benchmark::State& state) {
  const auto& frames = Frames();
  if (frames.size() < 3) {
    state.SkipWithError("clip not decoded");
    return;
  }
  std::vector<uint8_t> out(size_t(kWidth) * kHeight * 8 + 10240), recon;
  uint32_t size = 0, total = 0;
  {
    QuietStdout quiet;
    mpmcafBeginJob(kWidth, kHeight);
  }
  for (auto _ : state) {
    QuietStdout quiet;
    total = 0;
    mpmcafPlaneSize(kWidth, kHeight);
    recon = frames[0].y;
    encodePlane(frames[2].y.data(), recon.data(), recon.data(), kWanted * 6, out.data(), &size);
    total += size;
    mpmcafPlaneSize(kWidth / 2, kHeight / 2);
    recon = frames[0].u;
    encodePlane(frames[2].u.data(), recon.data(), recon.data(), kWanted, out.data(), &size);
    total += size;
    recon = frames[0].v;
    encodePlane(frames[2].v.data(), recon.data(), recon.data(), kWanted, out.data(), &size);
    total += size;
  }
  state.counters["bytes"] = total;
  QuietStdout quiet;
  mpmcafEndJob();
}
BENCHMARK(BM_Frame)->Unit(benchmark::kMillisecond);

}  // namespace

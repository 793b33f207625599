// The cost of one rate-loop pass of an LZMA section (save, pack the frame's item, the trial
// size, restore) by the frame's place in a 600-frame section. Each frame is 2304 bytes of DXT1
// blocks of a real clip; the frames before it are committed to the section already.
// BM_LzmaPassWhole is the same pass done as LzmaCompress on the whole section, the packer's way
// before it resumed a kept state: the ratio of the two at each place is the gain. A pass costs
// the packing of what follows the kept state, which moves on by blocks of 32 KiB of input: so
// the cost of one place rises and falls with its place in such a block; BM_LzmaFramesFrom
// gives the mean over 32 frames (three trials and the commit each) from a place.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>
#include <vector>

#include "dxt/dxtBackEnds.h"
#include "base/byteIo.h"
#include "encoder/sectionPacker.h"
#include "lzmaLib.h"
#include "tests/support/videoFrames.h"

namespace {

constexpr uint32_t kFrameBytes = 2304;

// DXT1 blocks of 16 frames of a real clip at 320x176, one after another.
const std::vector<uint8_t>& ClipBlocks() {
  static std::vector<uint8_t> blocks;
  if (blocks.empty()) {
    const auto frames = zylDecodeVideoFrames(
        std::string(ZYL_MEDIA_DIR) + "/walkers_768x576_10fps_120f.mkv", 16, 320, 176);
    for (const auto& f : frames) {
      std::vector<uint8_t> out(size_t(f.width / 4) * (f.height / 4) * 8);
      zycDxtCompressHere(kDxtBackEndFast, f.pixels.data(), uint32_t(f.width),
                         uint32_t(f.height), out.data());
      blocks.insert(blocks.end(), out.begin(), out.end());
    }
  }
  return blocks;
}

const uint8_t* FrameBytes(uint32_t frame) {
  const std::vector<uint8_t>& blocks = ClipBlocks();
  const size_t count = blocks.size() / kFrameBytes;
  return blocks.data() + (frame % count) * kFrameBytes;
}

// arg: the frame's place in the section.
void BM_LzmaPassByPlace(benchmark::State& state) {
  const uint32_t place = uint32_t(state.range(0));
  if (ClipBlocks().size() < 600 * kFrameBytes / 16) {
    state.SkipWithError("clip not decoded");
    return;
  }
  zycSectionPacker packer;
  packer.Open(1, 320 * 176 * 3, 65536, nullptr);
  for (uint32_t i = 0; i < place; ++i) {
    packer.PackItem(FrameBytes(i), kFrameBytes);
    packer.sectionPackedSize += uint32_t(packer.FinishSize(0));
    packer.Commit();
  }
  for (auto _ : state) {
    packer.Save();
    packer.PackItem(FrameBytes(place), kFrameBytes);
    benchmark::DoNotOptimize(packer.FinishSize(0));
    packer.Restore();
  }
  state.counters["section_kB"] = double(place) * (kFrameBytes + 4) / 1000.0;
}
BENCHMARK(BM_LzmaPassByPlace)->Arg(10)->Arg(150)->Arg(300)->Arg(590)->Unit(benchmark::kMillisecond);

// arg: the first frame's place in the section. Time per frame.
void BM_LzmaFramesFrom(benchmark::State& state) {
  const uint32_t first = uint32_t(state.range(0));
  constexpr uint32_t kSpan = 32;
  if (ClipBlocks().size() < 600 * kFrameBytes / 16) {
    state.SkipWithError("clip not decoded");
    return;
  }
  for (auto _ : state) {
    state.PauseTiming();
    zycSectionPacker packer;
    packer.Open(1, 320 * 176 * 3, 65536, nullptr);
    for (uint32_t i = 0; i < first; ++i) {
      packer.PackItem(FrameBytes(i), kFrameBytes);
      packer.sectionPackedSize += uint32_t(packer.FinishSize(0));
      packer.Commit();
    }
    state.ResumeTiming();
    for (uint32_t i = first; i < first + kSpan; ++i) {
      for (uint32_t pass = 0; pass < 3; ++pass) {
        packer.Save();
        packer.PackItem(FrameBytes(i + pass), kFrameBytes);
        benchmark::DoNotOptimize(packer.FinishSize(0));
        packer.Restore();
      }
      packer.PackItem(FrameBytes(i), kFrameBytes);
      packer.sectionPackedSize += uint32_t(packer.FinishSize(0));
      packer.Commit();
    }
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * kSpan);
}
BENCHMARK(BM_LzmaFramesFrom)->Arg(10)->Arg(290)->Arg(560)->Unit(benchmark::kMillisecond);

// arg: the frame's place in the section. The pass as LzmaCompress on the whole section.
void BM_LzmaPassWhole(benchmark::State& state) {
  const uint32_t place = uint32_t(state.range(0));
  if (ClipBlocks().size() < 600 * kFrameBytes / 16) {
    state.SkipWithError("clip not decoded");
    return;
  }
  std::vector<uint8_t> section;
  for (uint32_t i = 0; i <= place; ++i) {
    uint8_t length[4];
    zycStore32(length, kFrameBytes);
    section.insert(section.end(), length, length + 4);
    section.insert(section.end(), FrameBytes(i), FrameBytes(i) + kFrameBytes);
  }
  std::vector<uint8_t> out(section.size() + section.size() / 2 + 65536);
  for (auto _ : state) {
    size_t outSize = out.size();
    size_t propsSize = 5;
    uint8_t props[5];
    LzmaCompress(out.data(), &outSize, section.data(), section.size(), props, &propsSize, 1,
                 65536, 2, 0, 2, 8, 1);
    benchmark::DoNotOptimize(outSize);
  }
  state.counters["section_kB"] = double(place) * (kFrameBytes + 4) / 1000.0;
}
BENCHMARK(BM_LzmaPassWhole)->Arg(10)->Arg(150)->Arg(300)->Arg(590)->Unit(benchmark::kMillisecond);

}  // namespace

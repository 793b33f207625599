// DecodeFrame on the 32-bit DXT1 path at 1280x720: a key frame of colour blocks, a P-frame
// with a usual mix of copies, splits, fades and colour blocks, one of copies only and one of
// fades only, each on every kernel set (arg: 0 plain, 1 SSE2, 2 AVX2), beside a plain copy of
// a frame of the same size as the baseline.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "stream/blockDecoder.h"
#include "stream/decoderTables.h"
#include "stream/zycDecoder.h"

namespace {

constexpr uint32_t kWidth = 1280;
constexpr uint32_t kHeight = 720;

// The streams of one frame, written directly.
struct FrameStreams {
  std::vector<uint8_t> tree;
  std::vector<uint8_t> motion;
  std::vector<uint32_t> colours;
  std::vector<uint32_t> indices;
  std::vector<uint8_t> fades;
  std::vector<uint8_t> colourItem;  // colour words, then index words
  size_t symbols = 0;
  size_t fadeCount = 0;

  void Symbol(uint32_t s) {
    if (symbols % 4 == 0) tree.push_back(0);
    tree.back() = uint8_t(tree.back() | s << (2 * (symbols % 4)));
    ++symbols;
  }
  void Fade(uint32_t level) {
    if (fadeCount % 2 == 0) fades.push_back(0);
    fades.back() = uint8_t(fades.back() | level << (fadeCount % 2 ? 4 : 0));
    ++fadeCount;
  }
  void Finish() {
    colourItem.resize(8 * colours.size());
    std::memcpy(colourItem.data(), colours.data(), 4 * colours.size());
    std::memcpy(colourItem.data() + 4 * colours.size(), indices.data(), 4 * indices.size());
  }
};

class Generator {
 public:
  explicit Generator(uint32_t seed) : state_(seed) {}

  uint32_t Next() {
    state_ = state_ * 1664525u + 1013904223u;
    return state_ >> 8;
  }

  // A small vector that keeps the block inside the picture.
  uint32_t Vector(uint32_t x, uint32_t y, uint32_t size) {
    for (int tries = 0; tries < 8; ++tries) {
      const uint32_t index = Next() % 64;
      const int sx = int(x) + kSmallMotionTable[index][0];
      const int sy = int(y) + kSmallMotionTable[index][1];
      if (sx >= 0 && sy >= 0 && sx + int(size) <= int(kWidth) && sy + int(size) <= int(kHeight))
        return index;
    }
    return 0;
  }

  void Colour(FrameStreams& f) {
    f.Symbol(2);
    f.colours.push_back(Next() | Next() << 16);
    f.indices.push_back(Next() ^ Next() << 12);
  }

  // A node of a P-frame, by percent: copies, splits, fades, colour blocks.
  void PNode(FrameStreams& f, uint32_t x, uint32_t y, uint32_t size) {
    const uint32_t roll = Next() % 100;
    if (roll < 70) {
      f.Symbol(0);
      f.motion.push_back(uint8_t(Vector(x, y, size)));
    } else if (roll < 85 && size > 4) {
      f.Symbol(1);
      const uint32_t h = size / 2;
      PNode(f, x, y, h);
      PNode(f, x + h, y, h);
      PNode(f, x, y + h, h);
      PNode(f, x + h, y + h, h);
    } else if (roll < 95) {
      f.Symbol(3);
      f.motion.push_back(uint8_t(Vector(x, y, size)));
      f.Fade(Next() % 16);
    } else {
      Colour(f);
    }
  }

  // A node of a key frame: 16 by 16 blocks split to colour blocks of 8 and 4.
  void KeyNode(FrameStreams& f, uint32_t size) {
    const uint32_t roll = Next() % 100;
    if (size == 4 || (size == 8 && roll < 50) || (size == 16 && roll < 10)) {
      Colour(f);
      return;
    }
    f.Symbol(1);
    for (int i = 0; i < 4; ++i) KeyNode(f, size / 2);
  }

 private:
  uint32_t state_;
};

FrameStreams keyFrame() {
  FrameStreams f;
  Generator g(7);
  for (uint32_t y = 0; y < kHeight; y += 16)
    for (uint32_t x = 0; x < kWidth; x += 16) g.KeyNode(f, 16);
  f.Finish();
  return f;
}

FrameStreams pFrame() {
  FrameStreams f;
  Generator g(3);
  for (uint32_t y = 0; y < kHeight; y += 16)
    for (uint32_t x = 0; x < kWidth; x += 16) g.PNode(f, x, y, 16);
  f.Finish();
  return f;
}

// Decodes `frame` over and over with the kernel set of the benchmark's argument.
void runDecode(benchmark::State& state, const FrameStreams& frame) {
  myDecoder io;
  auto decoder = std::make_unique<zycFrameDecoder>();
  decoder->io = &io;
  decoder->Setup(kWidth, kHeight, 32, 0, 1);
  if (state.range(0) > zycBestBlockKernels()) {
    state.SkipWithError("kernel set not on this processor");
    return;
  }
  decoder->kernels = uint8_t(state.range(0));
  std::vector<uint32_t> previous(kWidth * kHeight), current(kWidth * kHeight);
  for (size_t i = 0; i < previous.size(); ++i) previous[i] = uint32_t(i * 2654435761u);
  std::vector<uint8_t> tree(frame.tree);
  const size_t colourCount = frame.colours.size();
  for (auto _ : state) {
    // The tree is shifted in place by decoding: each run starts from a fresh copy.
    std::memcpy(tree.data(), frame.tree.data(), tree.size());
    decoder->treeStream = tree.data();
    decoder->motionStream = frame.motion.data();
    decoder->colourStream = frame.colourItem.data();
    decoder->indexStream = frame.colourItem.data() + 4 * colourCount;
    decoder->fadeStream = frame.fades.data();
    decoder->tableStream = nullptr;
    decoder->DecodeFrame(reinterpret_cast<uint8_t*>(previous.data()),
                         reinterpret_cast<uint8_t*>(current.data()));
    benchmark::DoNotOptimize(current.data());
    benchmark::ClobberMemory();
  }
  state.counters["fps"] =
      benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
  state.SetBytesProcessed(int64_t(state.iterations()) * kWidth * kHeight * 4);
}

void kernelArgs(benchmark::internal::Benchmark* b) {
  b->DenseRange(kBlockKernelsPlain, kBlockKernelsAvx2)->ArgName("kernels");
  b->Unit(benchmark::kMicrosecond);
}

void BM_DecodeFrameKeyColourBlocks(benchmark::State& state) {
  static const FrameStreams frame = keyFrame();
  runDecode(state, frame);
}
BENCHMARK(BM_DecodeFrameKeyColourBlocks)->Apply(kernelArgs);

void BM_DecodeFramePMix(benchmark::State& state) {
  static const FrameStreams frame = pFrame();
  runDecode(state, frame);
}
BENCHMARK(BM_DecodeFramePMix)->Apply(kernelArgs);

// A P-frame of 16 by 16 copies only: the floor that the block access pattern sets.
void BM_DecodeFramePCopiesOnly(benchmark::State& state) {
  static const FrameStreams frame = [] {
    FrameStreams f;
    Generator g(5);
    for (uint32_t y = 0; y < kHeight; y += 16) {
      for (uint32_t x = 0; x < kWidth; x += 16) {
        f.Symbol(0);
        f.motion.push_back(uint8_t(g.Vector(x, y, 16)));
      }
    }
    f.Finish();
    return f;
  }();
  runDecode(state, frame);
}
BENCHMARK(BM_DecodeFramePCopiesOnly)->Apply(kernelArgs);

// A P-frame of 16 by 16 fades only: the cost of the tone curves.
void BM_DecodeFramePFadesOnly(benchmark::State& state) {
  static const FrameStreams frame = [] {
    FrameStreams f;
    Generator g(6);
    for (uint32_t y = 0; y < kHeight; y += 16) {
      for (uint32_t x = 0; x < kWidth; x += 16) {
        f.Symbol(3);
        f.motion.push_back(uint8_t(g.Vector(x, y, 16)));
        f.Fade(g.Next() % 16);
      }
    }
    f.Finish();
    return f;
  }();
  runDecode(state, frame);
}
BENCHMARK(BM_DecodeFramePFadesOnly)->Apply(kernelArgs);

// Baseline: a plain copy of a frame of the same size.
void BM_DecodeFrameBaselineMemcpy(benchmark::State& state) {
  std::vector<uint32_t> previous(kWidth * kHeight, 0x12345678), current(kWidth * kHeight);
  for (auto _ : state) {
    std::memcpy(current.data(), previous.data(), previous.size() * 4);
    benchmark::DoNotOptimize(current.data());
    benchmark::ClobberMemory();
  }
  state.counters["fps"] =
      benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
  state.SetBytesProcessed(int64_t(state.iterations()) * kWidth * kHeight * 4);
}
BENCHMARK(BM_DecodeFrameBaselineMemcpy)->Unit(benchmark::kMicrosecond);

}  // namespace

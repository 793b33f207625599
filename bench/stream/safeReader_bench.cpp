// The cost of reading a foreign movie safely: the safe reader's checked decode of every frame
// against the trusting decoder fed with the same unpacked frames, and the cost of the checked
// walk with its unpacking. The movie is the encoder's golden movie of a real clip.
#include <benchmark/benchmark.h>
#include <zlib.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "stream/container.h"
#include "stream/framePayload.h"
#include "stream/safeReader.h"
#include "stream/zycDecoder.h"

namespace {

std::vector<uint8_t> GoldenMovie() {
  const std::string here = __FILE__;  // [<repo>/]bench/stream/safeReader_bench.cpp
  const std::string path = here.substr(0, here.rfind("bench/stream/")) +
                           "tests/golden/walkers_speech_6f.zyl";
  std::vector<uint8_t> bytes;
  if (FILE* f = std::fopen(path.c_str(), "rb")) {
    uint8_t buffer[4096];
    size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, f)) > 0)
      bytes.insert(bytes.end(), buffer, buffer + got);
    std::fclose(f);
  }
  return bytes;
}

// The movie's frames unpacked and split, without any check beyond what splitting needs.
struct TrustedMovie {
  zycStreamHeader header;
  std::vector<std::vector<uint8_t>> frames;
  std::vector<zycFrameItems> items;
};

bool Prepare(const std::vector<uint8_t>& movie, TrustedMovie* out) {
  zycSectionWalker walker;
  if (!walker.Open(movie.data(), movie.size())) return false;
  out->header = walker.header();
  zycSectionEntry entry;
  while (walker.Next(&entry)) {
    std::vector<uint8_t> unpacked(size_t(entry.header.size) * 64 + 65536);
    z_stream z{};
    inflateInit2(&z, -15);
    z.next_in = const_cast<Bytef*>(movie.data() + entry.offset + kSectionHeaderSizeZyl0);
    z.avail_in = entry.header.size;
    z.next_out = unpacked.data();
    z.avail_out = uInt(unpacked.size());
    inflate(&z, Z_SYNC_FLUSH);
    unpacked.resize(unpacked.size() - z.avail_out);
    inflateEnd(&z);
    size_t pos = 0;
    for (uint32_t i = 0; i < entry.header.frames; ++i) {
      zycFrameItems items;
      if (!zycSplitFrame(unpacked.data() + pos, unpacked.size() - pos, &items)) return false;
      out->frames.emplace_back(unpacked.begin() + long(pos),
                               unpacked.begin() + long(pos + items.frameBytes));
      out->items.push_back(items);
      pos += items.frameBytes;
    }
  }
  return !out->frames.empty();
}

void BM_TrustedDecodeAllFrames(benchmark::State& state) {
  TrustedMovie movie;
  if (!Prepare(GoldenMovie(), &movie)) {
    state.SkipWithError("golden movie missing");
    return;
  }
  myDecoder io;
  auto decoder = std::make_unique<zycFrameDecoder>();
  const uint32_t w = (movie.header.width + 15) & ~15u, h = (movie.header.height + 15) & ~15u;
  std::vector<uint8_t> picture(size_t(w) * h * 4), previous(picture.size()), scratch;
  for (auto _ : state) {
    decoder->io = &io;
    decoder->Release();
    decoder->Setup(movie.header.width, movie.header.height, 32,
                   movie.header.flags & kHeaderFlagYuv ? 1 : 0,
                   movie.header.flags & kHeaderFlagWideMotion ? 0 : 1);
    decoder->io = &io;
    tableWritePos = 0;
    for (size_t i = 0; i < movie.frames.size(); ++i) {
      scratch = movie.frames[i];
      zycSetFrameStreams(*decoder, movie.items[i], scratch.data());
      if (movie.items[i].image.present) {
        decoder->DecodeImage(picture.data());
      } else {
        decoder->DecodeFrame(picture.data(), previous.data());
        picture.swap(previous);
      }
    }
    benchmark::DoNotOptimize(picture.data());
  }
  decoder->io = &io;
  decoder->Release();
  state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(movie.frames.size()));
}
BENCHMARK(BM_TrustedDecodeAllFrames)->Unit(benchmark::kMicrosecond);

void BM_SafeReaderDecodeAllFrames(benchmark::State& state) {
  const std::vector<uint8_t> bytes = GoldenMovie();
  zycSafeReader reader;
  if (!reader.OpenMemory(bytes.data(), bytes.size(), "golden.zyl")) {
    state.SkipWithError("golden movie missing or refused");
    return;
  }
  for (auto _ : state) {
    reader.Rewind();
    while (reader.NextFrame() != zycSafeStatus::end) {
    }
    benchmark::DoNotOptimize(reader.picture().data());
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(reader.frames().size()));
}
BENCHMARK(BM_SafeReaderDecodeAllFrames)->Unit(benchmark::kMicrosecond);

void BM_SafeReaderOpen(benchmark::State& state) {
  const std::vector<uint8_t> bytes = GoldenMovie();
  zycSafeReader reader;
  if (bytes.empty()) {
    state.SkipWithError("golden movie missing");
    return;
  }
  for (auto _ : state) benchmark::DoNotOptimize(reader.OpenMemory(bytes.data(), bytes.size(), "golden.zyl"));
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes.size()));
}
BENCHMARK(BM_SafeReaderOpen)->Unit(benchmark::kMicrosecond);

}  // namespace

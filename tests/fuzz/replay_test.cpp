// Replays the fuzz corpora and every saved finding through the fuzz targets on each test run,
// without libFuzzer. The targets' entry points are renamed at compile time, one per target.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int zylFuzz_container(const uint8_t* data, size_t size);
extern "C" int zylFuzz_safeDecode(const uint8_t* data, size_t size);
extern "C" int zylFuzz_quadTree(const uint8_t* data, size_t size);
extern "C" int zylFuzz_planeStream(const uint8_t* data, size_t size);

namespace {

namespace fs = std::filesystem;

std::vector<fs::path> Inputs(const std::string& target) {
  std::vector<fs::path> files;
  for (const char* kind : {"corpus", "regressions"}) {
    const fs::path dir = fs::path(ZYL_SOURCE_DIR) / "tests" / "fuzz" / kind / target;
    if (!fs::is_directory(dir)) continue;
    for (const auto& entry : fs::directory_iterator(dir))
      if (entry.is_regular_file() && entry.path().filename().string()[0] != '.')
        files.push_back(entry.path());
  }
  return files;
}

size_t Replay(const std::string& target, int (*run)(const uint8_t*, size_t)) {
  const auto files = Inputs(target);
  for (const fs::path& path : files) {
    std::ifstream in(path, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    SCOPED_TRACE(path.string());
    EXPECT_EQ(run(bytes.data(), bytes.size()), 0);
  }
  return files.size();
}

}  // namespace

TEST(FuzzReplay, ContainerInputsRunClean) { EXPECT_GE(Replay("container", zylFuzz_container), 3u); }

TEST(FuzzReplay, SafeDecodeInputsRunClean) { EXPECT_GE(Replay("safeDecode", zylFuzz_safeDecode), 3u); }

TEST(FuzzReplay, QuadTreeInputsRunClean) { EXPECT_GE(Replay("quadTree", zylFuzz_quadTree), 3u); }
TEST(FuzzReplay, PlaneStreamInputsRunClean) { EXPECT_GE(Replay("planeStream", zylFuzz_planeStream), 3u); }

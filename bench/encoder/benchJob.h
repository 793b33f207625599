// Shared by the encoder's frame benchmarks: the real clips, their frames cached per size, one
// ZYL0 job through the encoder's seam into a temporary file, and the PSNR of a reconstruction.
#pragma once

#include <cmath>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "encoder/zycEncoder.h"
#include "stream/zylFormat.h"
#include "tests/support/videoFrames.h"

namespace zylBench {


inline const char* const kClips[] = {
    "walkers_768x576_10fps_120f.mkv",
    "handheld_box_640x480_30fps_sound.mp4",
    "coin_pen_568x320_30fps_sound.mov",
    "tree_320x240_15fps_cinepak.avi",
};

inline const std::vector<zylTestPicture>& Frames(int clip, int count, int w, int h) {
  static std::map<std::string, std::vector<zylTestPicture>> cache;
  const std::string key = std::to_string(clip) + "/" + std::to_string(count) + "/" +
                          std::to_string(w) + "x" + std::to_string(h);
  auto it = cache.find(key);
  if (it == cache.end()) {
    it = cache.emplace(key, zylDecodeVideoFrames(std::string(ZYL_MEDIA_DIR) + "/" + kClips[clip],
                                                 count, w, h)).first;
  }
  return it->second;
}

struct Job {
  zycEncoder encoder;
  zycFileHolder holder;
  zycStreamHeader header;
  std::string path;

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
  bool Begin(const zylTestPicture& p) {
    header.magic = kMagicZyl0;
    header.frameDuration = uint32_t(1000000 / (p.frameRate > 0 ? p.frameRate : 25.0));
    header.timeScale = 1000000;
    header.width = uint32_t(p.width);
    header.height = uint32_t(p.height);
    zylFrameImage image;
    image.pixels = const_cast<uint8_t*>(p.pixels.data());
    image.width = p.width;
    image.height = p.height;
    zylProgress progress{};
    const bool ok = encoder.Begin(header, image, &holder, nullptr, nullptr, nullptr, &progress,
                                  nullptr) == 0;
    image.pixels = nullptr;
    return ok;
  }
  void Next(const zylTestPicture& p) {
    zylFrameImage image;
    image.pixels = const_cast<uint8_t*>(p.pixels.data());
    image.width = p.width;
    image.height = p.height;
    zylProgress progress{};
    encoder.Next(image, &progress);
    image.pixels = nullptr;
  }
  long FileSize() {
    std::fflush(holder.file);
    std::fseek(holder.file, 0, SEEK_END);
    return std::ftell(holder.file);
  }
};

inline double Psnr(const zylTestPicture& p, const uint8_t* rebuilt, uint32_t pitch) {
  double squares = 0.0;
  for (int32_t y = 0; y < p.height; ++y) {
    for (int32_t x = 0; x < p.width; ++x) {
      for (int c = 0; c < 3; ++c) {
        const double d = double(p.pixels[(size_t(y) * p.width + x) * 4 + c]) -
                         double(rebuilt[size_t(y) * pitch + size_t(x) * 4 + c]);
        squares += d * d;
      }
    }
  }
  const double mse = squares / (double(p.width) * p.height * 3);
  return mse > 0 ? 10.0 * std::log10(255.0 * 255.0 / mse) : 99.0;
}

}  // namespace zylBench

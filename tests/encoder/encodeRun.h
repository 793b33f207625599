// One encode job driven through the seam, with the written file read back by both readers.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "encoder/zycEncoder.h"
#include "stream/safeReader.h"
#include "tests/encoder/movieCheck.h"
#include "tests/support/videoFrames.h"

// One job driven through the seam, with the written file read back after every frame.
class EncodeRun {
 public:
  // Without `toFile` the job has no open output.
  explicit EncodeRun(const std::string& name, bool toFile = true) {
    // The process number keeps runs of the suite that share a temporary folder apart.
    path_ = ::testing::TempDir() + "encoder_" + std::to_string(getpid()) + "_" + name + ".zyl";
    if (toFile) holder_.file = std::fopen(path_.c_str(), "w+b");
    encoder.verbose = false;
    encoder.threads = 2;  // each frame shared by two threads, whatever the machine
  }
  ~EncodeRun() {
    encoder.End();
    holder_.Close();
    std::remove(path_.c_str());
  }

  // An `fps` of 0 keeps the frame duration set in `header`.
  int32_t Begin(const zylTestPicture& picture, double fps = 25.0,
                const zylKeyframeRange* plan = nullptr) {
    header.magic = kMagicZyl0;
    header.version = version;
    if (fps > 0) header.frameDuration = uint32_t(1000000 / fps);
    header.timeScale = 1000000;
    header.width = uint32_t(picture.width);
    header.height = uint32_t(picture.height);
    zylFrameImage image;
    Wrap(picture, &image);
    zylProgress progress{};
    const int32_t r = encoder.Begin(header, image, &holder_, extraOutputs, audioSupplier,
                                    audioUser, &progress, plan);
    image.pixels = nullptr;
    if (r == 0) {
      progresses.push_back(progress);
      Check();
    }
    return r;
  }
  void Next(const zylTestPicture& picture) {
    zylFrameImage image;
    Wrap(picture, &image);
    zylProgress progress{};
    encoder.Next(image, &progress);
    image.pixels = nullptr;
    progresses.push_back(progress);
    Check();
  }
  // The file must walk and decode after every frame, and the decode must equal the encoder's
  // own reconstruction pixel for pixel.
  void Check() {
    if (!holder_.file) return;
    std::fflush(holder_.file);
    movie = zycMovieCheck();
    ASSERT_TRUE(zycCheckMovie(zycReadWholeFile(path_), &movie)) << movie.error;
    ASSERT_EQ(movie.frames.size(), progresses.size());
    const size_t bytes = size_t(encoder.PaddedWidth()) * encoder.PaddedHeight() * 4;
    ASSERT_EQ(movie.lastPicture.size(), bytes);
    ASSERT_EQ(0, std::memcmp(movie.lastPicture.data(), encoder.Reconstructed(), bytes))
        << "frame " << progresses.size() - 1 << " decodes differently";
  }
  std::vector<uint8_t> FileBytes() const { return zycReadWholeFile(path_); }
  // The reader for foreign files finds no problem anywhere, and its last picture is the
  // encoder's reconstruction.
  void ExpectSafeReaderAgrees() {
    const std::vector<uint8_t> bytes = FileBytes();
    zycSafeReader reader;
    ASSERT_TRUE(reader.OpenMemory(bytes.data(), bytes.size(), "movie.zyl")) << reader.error();
    std::vector<uint8_t> last;
    for (zycSafeStatus status; (status = reader.NextFrame()) != zycSafeStatus::end;) {
      ASSERT_EQ(status, zycSafeStatus::decoded) << reader.frameError();
      last = reader.picture();
    }
    ASSERT_EQ(last.size(), size_t(encoder.PaddedWidth()) * encoder.PaddedHeight() * 4);
    for (size_t i = 0; i < last.size(); i += 4) {
      ASSERT_EQ(0, std::memcmp(&last[i], encoder.Reconstructed() + i, 3)) << "pixel " << i / 4;
    }
  }

  zycEncoder encoder;
  uint32_t version = 0;
  // A job with sound: its supplier, and the numbered phone outputs.
  zylAudioSupplierFn audioSupplier = nullptr;
  void* audioUser = nullptr;
  FILE** extraOutputs = nullptr;
  zycStreamHeader header;
  std::vector<zylProgress> progresses;
  zycMovieCheck movie;

 private:
  static void Wrap(const zylTestPicture& p, zylFrameImage* image) {
    image->pixels = const_cast<uint8_t*>(p.pixels.data());
    image->width = p.width;
    image->height = p.height;
  }
  std::string path_;
  zycFileHolder holder_;
};

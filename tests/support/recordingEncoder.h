// An encoder for tests of the encode job: it sits behind the same Begin/Next/End seam as the
// real encoders, codes nothing, and records what the job handed it and in which order.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "seam/zycJobEncoder.h"

struct zycRecordedPicture {
  int32_t width = 0;
  int32_t height = 0;
  std::vector<uint8_t> pixels;  // 32-bit pixels as the encoder received them
};

class zycRecordingEncoder : public zycJobEncoder {
 public:
  // ---- Behaviour chosen by the test.
  uint32_t soundFlags = 32;      // what the job reads as "pFMT"
  int32_t beginResult = 0;       // non-zero refuses the job
  uint32_t audioBytesPerFrame = 0;  // sound pulled from the supplier in Begin and every Next

  // ---- What the job did.
  std::vector<std::string> calls;  // "SetJobRange", "Begin", "Next", "End" in order
  uint32_t firstFrame = 0;
  uint32_t frameTotal = 0;
  zycStreamHeader header;          // as Begin received it
  bool hadExtraOutputs = false;
  const zylKeyframeRange* keyframePlan = nullptr;
  std::vector<zycRecordedPicture> pictures;  // Begin's, then one per Next
  std::vector<std::vector<uint8_t>> audio;   // what each supplier call returned

  void SetJobRange(uint32_t first, uint32_t total) override {
    calls.push_back("SetJobRange");
    firstFrame = first;
    frameTotal = total;
  }

  int32_t Begin(zycStreamHeader& h, const zylFrameImage& image, zycFileHolder* output,
                FILE** extraOutputs, zylAudioSupplierFn supplier, void* user,
                zylProgress* progress, const zylKeyframeRange* plan) override {
    calls.push_back("Begin");
    header = h;
    hadExtraOutputs = extraOutputs != nullptr;
    // Something in every file the job opened, so that tests can tell which files were written.
    if (output && output->file) std::fputs("main", output->file);
    for (int i = 0; extraOutputs && i < kExtraOutputCount; ++i) {
      if (extraOutputs[i]) std::fprintf(extraOutputs[i], "extra%d", i + 1);
    }
    keyframePlan = plan;
    audioSupplier_ = supplier;
    audioUser_ = user;
    Record(image);
    PullAudio();
    if (beginResult == 0) Reconstruct(image, progress);
    return beginResult;
  }

  int32_t Next(const zylFrameImage& image, zylProgress* progress) override {
    calls.push_back("Next");
    Record(image);
    PullAudio();
    Reconstruct(image, progress);
    return 0;
  }

  void End() override { calls.push_back("End"); }
  const uint8_t* Reconstructed() const override {
    return reconstructed_.empty() ? nullptr : reconstructed_.data();
  }
  uint32_t Pitch() const override { return pitch_; }
  uint32_t SoundFlags() const override { return soundFlags; }

  int CallCount(const std::string& name) const {
    int n = 0;
    for (const std::string& call : calls) n += call == name;
    return n;
  }

 private:
  void Record(const zylFrameImage& image) {
    zycRecordedPicture picture;
    picture.width = image.width;
    picture.height = image.height;
    if (image.pixels) {
      picture.pixels.assign(image.pixels,
                            image.pixels + size_t(image.width) * size_t(image.height) * 4);
    }
    pictures.push_back(std::move(picture));
  }

  void PullAudio() {
    if (!audioBytesPerFrame || !audioSupplier_) return;
    const uint8_t* data = audioSupplier_(audioBytesPerFrame, audioUser_);
    audio.emplace_back(data, data + audioBytesPerFrame);
  }

  // The "reconstruction" is the picture on a row pitch of 8 pixels, filled in the progress
  // record as an encoder does.
  void Reconstruct(const zylFrameImage& image, zylProgress* progress) {
    const uint32_t padded = (uint32_t(image.width) + 7) & ~7u;
    pitch_ = padded * 4;
    reconstructed_.assign(size_t(pitch_) * size_t(image.height > 0 ? image.height : 1), 0);
    for (int32_t y = 0; image.pixels && y < image.height; ++y) {
      std::copy(image.pixels + size_t(y) * image.width * 4,
                image.pixels + size_t(y + 1) * image.width * 4,
                reconstructed_.begin() + size_t(y) * pitch_);
    }
    progress->frameIndex = frameIndex_++;
    progress->keyFrame = progress->frameIndex == 0;
    progress->size = 100 + int32_t(progress->frameIndex);
  }

  zylAudioSupplierFn audioSupplier_ = nullptr;
  void* audioUser_ = nullptr;
  std::vector<uint8_t> reconstructed_;
  uint32_t pitch_ = 0;
  uint32_t frameIndex_ = 0;
};

// zycMpmcEncoder: the ZYL1 encoder object.
//
// This build holds the object with its parameter fields and their defaults, written directly by
// the codec's parameter table, and the Begin/Next/End seam the encode job drives. ZYL1 coding
// itself (the I-frame credit loop, the plane bit streams, the quad-tree still coder) is not part
// of this build: Begin says so on the console and refuses the job, which the encode job turns
// into status 3.
#pragma once

#include <cstdint>

#include "codec/zycJobEncoder.h"

class zycMpmcEncoder : public zycJobEncoder {
 public:
  zycMpmcEncoder();
  ~zycMpmcEncoder() override;
  zycMpmcEncoder(const zycMpmcEncoder&) = delete;
  zycMpmcEncoder& operator=(const zycMpmcEncoder&) = delete;

  // zycJobEncoder
  void SetJobRange(uint32_t first, uint32_t total) override;
  // Prints "ZYL1 encoding is not available in this build\n" and returns 1.
  int32_t Begin(zycStreamHeader& header, const zylFrameImage& image, zycFileHolder* output,
                FILE** extraOutputs, zylAudioSupplierFn audioSupplier, void* audioUser,
                zylProgress* progress, const zylKeyframeRange* keyframePlan) override;
  int32_t Next(const zylFrameImage& image, zylProgress* progress) override;
  // Resets the count of written frames.
  void End() override;
  const uint8_t* Reconstructed() const override { return nullptr; }
  uint32_t Pitch() const override { return paddedWidth * 4; }
  uint32_t SoundFlags() const override { return soundFlags; }

  // ---- Parameter fields, in order, with their defaults.
  uint32_t paramS = 0;                 // "sFMT", copied into the file header
  uint32_t paramT = 0;                 // "tFMT", copied into the file header
  uint32_t compressionRatio = 100;     // "RATI"
  float iFrameWeight = 0.18f;          // "xFMT" / 100: share of the budget kept for I-frames
  uint32_t iFrameCreditMax = 2500;     // "yFMT", ms
  uint32_t iFrameCreditMin = 1000;     // "zFMT", ms
  uint32_t iFrameCreditCap = 7500;     // "{FMT", ms
  uint32_t IFrameCreditCount = 0;      // ms of movie time saved up for I-frames
  // "iFMT": 1 still image, any other value quad tree. There is no default: the host sets the
  // tag. The field starts at 0 only so that it never holds an indeterminate value.
  uint32_t iFrameFormat = 0;
  uint32_t soundFlags = 0x20;          // "pFMT"
  uint32_t soundBitRate = 16000;       // "oFMT"
  uint32_t keyFrameOnSoundBlock = 0;   // "qFMT"
  uint32_t lastFrameIsKey = 0;         // "rFMT"
  uint32_t embedRequest = 0;           // "EXTC", stored and not used by this encoder
  // "uFMT": block table bytes handed to the still-image compressor, rounded down to a multiple
  // of 48. No default of its own.
  uint32_t vqSectionLimit = 0;
  uint32_t firstFrame = 0;             // set by the job
  uint32_t frameCount = 0;             // set by the job
  zycStreamHeader header;
  const zylKeyframeRange* keyframePlan = nullptr;

  uint32_t framesWritten = 0;
  uint32_t paddedWidth = 0;
  uint32_t paddedHeight = 0;
  bool verbose = true;                 // "wFMT"
};

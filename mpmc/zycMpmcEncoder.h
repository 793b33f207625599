// zycMpmcEncoder: the ZYL1 encoder object. Its parameter fields are written directly by the
// codec's parameter table; Begin, Next and End code a movie (the encode job drives them through
// the zycJobEncoder seam). Every frame is one of four modes: a still-image or quad-tree I-frame
// opening a section, a P-frame of three plane streams, or a repeat of the previous picture. The
// I-frame credit (milliseconds of movie time saved up) decides how much an I-frame may spend;
// the running bonus carries each frame's surplus or debt into the next ones.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "seam/zycJobEncoder.h"
#include "stream/container.h"
#include "stream/sound.h"

class VQSLSQCompressor;
class DXT1QuadTreeCompressor;
class zycZyl1Decoder;

class zycMpmcEncoder : public zycJobEncoder {
 public:
  // The frame modes; an I-frame mode is also the `keyType` of its section.
  enum Mode : uint32_t { modeVQ = 0, modeQuadTree = 1, modePFrame = 2, modeRepeat = 3 };

  zycMpmcEncoder();
  ~zycMpmcEncoder() override;
  zycMpmcEncoder(const zycMpmcEncoder&) = delete;
  zycMpmcEncoder& operator=(const zycMpmcEncoder&) = delete;

  // zycJobEncoder
  void SetJobRange(uint32_t first, uint32_t total) override;
  // Writes the header and the first I-frame. Returns 0.
  int32_t Begin(zycStreamHeader& header, const zylFrameImage& image, zycFileHolder* output,
                FILE** extraOutputs, zylAudioSupplierFn audioSupplier, void* audioUser,
                zylProgress* progress, const zylKeyframeRange* keyframePlan) override;
  // Codes one more frame. Returns 0.
  int32_t Next(const zylFrameImage& image, zylProgress* progress) override;
  // Frees the plane coder's buffers and closes the decoder; the count of written frames goes
  // back to 0.
  void End() override;
  const uint8_t* Reconstructed() const override {
    return OldBitmapColor.empty() ? nullptr : OldBitmapColor.data();
  }
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
  uint32_t IFrameCreditCount = 0;      // ms of movie time saved up for I-frames; wraps below 0
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

  // ---- Job state.
  zycSoundStep sound;                  // soundLead, soundPhase, samplesPerFrame, ADPCM state
  zycFileHolder* outFile = nullptr;
  FILE* extraSoundFiles[kExtraOutputCount] = {};
  uint32_t framesWritten = 0;
  uint32_t lastKeyFrame = 0;
  uint32_t groupBytes = 0;
  uint32_t paddedWidth = 0;
  uint32_t paddedHeight = 0;
  uint32_t frameBudget = 0;            // mean bytes per frame
  int32_t bonusSize = 0;               // running surplus (+) or debt (-) of frame bytes
  zycOpenSectionState group;           // the open section: its position and 8-byte header
  float lastQuality = 0.0f;            // the last frame's ErrorMaxAvg
  double lastQualitySq = 0.0;          // the last frame's ErrorMaxAvgSq
  uint32_t lastMode = modeVQ;
  uint32_t mode = modeVQ;
  std::vector<uint8_t> CurrentBitmapColor, OldBitmapColor, TryBitmapColor;
  std::vector<uint8_t> CurrentY, OldY, TryY, CurrentU, OldU, TryU, CurrentV, OldV, TryV;
  bool verbose = true;                 // "wFMT"

  // What the last frame did, for tests and statistics.
  struct FrameInfo {
    uint32_t mode = modeVQ;
    int32_t wantedSize = 0;
    uint32_t imageBytes = 0;           // the I-frame image, or the three planes together
    uint32_t recordBytes = 0;
    double errorMaxAvg = 0.0;
    double snr = 0.0;                  // colour SNR of the reconstruction, dB
  };
  FrameInfo lastFrame;

 private:
  struct Measure {
    double errorMaxAvg = 0.0;
    uint32_t maxErrorMax = 0;
    double errorMaxAvgSq = 0.0;
    double snr = 0.0;
  };
  // What the padded picture holds outside the source: its edge repeated (I-frames), or the
  // old picture (P-frames, where padding then costs nothing).
  enum class Padding { kEdge, kOld };
  void ReadFrame(const zylFrameImage& image, Padding padding);
  // The I-frame mode "iFMT" asks for.
  uint32_t IFrameMode() const { return iFrameFormat == 1 ? modeVQ : modeQuadTree; }
  Measure Compare(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) const;
  double Fps() const;
  uint32_t CreditToUse() const;
  int32_t IFrameWantedSize(uint32_t used) const;
  void Compress(uint32_t frameMode, int32_t wantedSize);
  void Write(zylProgress* progress);
  void Fail();

  uint32_t width_ = 0, height_ = 0;    // the frame's own size
  std::unique_ptr<VQSLSQCompressor> compressor;
  std::unique_ptr<DXT1QuadTreeCompressor> quadTree_;
  std::unique_ptr<zycZyl1Decoder> decoder;
  std::vector<uint8_t> packed_;        // Current as 3-byte pixels
  std::vector<uint8_t> outY_, outU_, outV_, record_;
  uint32_t sizeY_ = 0, sizeU_ = 0, sizeV_ = 0;
  int32_t tryBonus_ = 0;               // the bonus after Compress, committed by Write
  Measure tryMeasure_;
  bool begun_ = false;
};

// zycMpmcEncoder: Begin writes the header and the first I-frame, Next decides the mode of one
// more frame from the I-frame credit, the unchanged-source test and the quality test, Compress
// codes it, and Write appends its record and patches the headers so that the file is a whole
// movie after every frame. The reference is always the reconstruction: I-frames through the
// ZYL1 frame decoder, P-frames through the planes the plane coder reconstructs.
#include "mpmc/zycMpmcEncoder.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include "base/consoleLog.h"
#include "base/cpuFeatures.h"
#include "stream/zyl1Decoder.h"
#include "vq/VQSLSQCompressor.h"

#include "mpmc/DXT1QuadTreeCompressor.h"
#include "mpmc/mcproc.h"

namespace {

// trunc(v) as a signed 32-bit number; values beyond its range stop at its ends.
int32_t TruncSaturated(double v) {
  if (!(v == v)) return 0;
  if (v >= 2147483647.0) return INT32_MAX;
  if (v <= -2147483648.0) return INT32_MIN;
  return int32_t(v);
}

// a + b in 32 bits, stopping at the ends of the range: a wrapped credit can ask for sizes
// beyond it.
int32_t AddSaturated(int32_t a, int64_t b) {
  const int64_t sum = int64_t(a) + b;
  return sum > INT32_MAX ? INT32_MAX : sum < INT32_MIN ? INT32_MIN : int32_t(sum);
}

bool IsIFrameMode(uint32_t mode) {
  return mode == zycMpmcEncoder::modeVQ || mode == zycMpmcEncoder::modeQuadTree;
}

double Snr(double squares, double count) {
  return 10.0 * std::log10(65025.0 / (squares / count));
}

}  // namespace

zycMpmcEncoder::zycMpmcEncoder() : compressor(std::make_unique<VQSLSQCompressor>(zycCpuHasSse())) {
  header.frameDuration = 66666;
  header.timeScale = 1000000;
}

zycMpmcEncoder::~zycMpmcEncoder() { End(); }

void zycMpmcEncoder::SetJobRange(uint32_t first, uint32_t total) {
  firstFrame = first;
  frameCount = total;
}

double zycMpmcEncoder::Fps() const {
  return double(header.timeScale) / double(header.frameDuration);
}

uint32_t zycMpmcEncoder::CreditToUse() const {
  uint32_t used = IFrameCreditCount;
  if (used > iFrameCreditMax) used = iFrameCreditMax;
  if (used < iFrameCreditMin) used = iFrameCreditMin;
  return used;
}

int32_t zycMpmcEncoder::IFrameWantedSize(uint32_t used) const {
  const int32_t wanted = TruncSaturated(double(used) / 1000.0 * Fps() * double(frameBudget) *
                                        double(iFrameWeight));
  return wanted < 0 ? 0 : wanted;
}

void zycMpmcEncoder::Fail() {
  if (outFile) outFile->NoteError(errno);
}

// The padded picture: the source inside its size, `padding` outside it.
void zycMpmcEncoder::ReadFrame(const zylFrameImage& image, Padding padding) {
  const uint32_t w = image.pixels && image.width > 0 ? uint32_t(image.width) : 0;
  const uint32_t h = image.pixels && image.height > 0 ? uint32_t(image.height) : 0;
  uint8_t* out = CurrentBitmapColor.data();
  for (uint32_t y = 0; y < paddedHeight; ++y) {
    for (uint32_t x = 0; x < paddedWidth; ++x, out += 4) {
      const uint8_t* from;
      if (x < w && y < h) {
        from = image.pixels + (size_t(y) * w + x) * 4;
      } else if (padding == Padding::kOld) {
        from = OldBitmapColor.data() + (size_t(y) * paddedWidth + x) * 4;
      } else if (w && h) {
        from = image.pixels + (size_t(y < h ? y : h - 1) * w + (x < w ? x : w - 1)) * 4;
      } else {
        static const uint8_t kBlack[4] = {0, 0, 0, 255};
        from = kBlack;
      }
      std::memcpy(out, from, 4);
    }
  }
}

// `a` against `b` on the frame's own size, rows `paddedWidth` apart.
zycMpmcEncoder::Measure zycMpmcEncoder::Compare(const std::vector<uint8_t>& a,
                                                const std::vector<uint8_t>& b) const {
  uint64_t sum = 0, squares = 0, sum6 = 0;  // sum6 wraps for very different pictures
  uint32_t largest = 0;
  for (uint32_t y = 0; y < height_; ++y) {
    const uint8_t* p = a.data() + size_t(y) * paddedWidth * 4;
    const uint8_t* q = b.data() + size_t(y) * paddedWidth * 4;
    for (uint32_t x = 0; x < width_; ++x, p += 4, q += 4) {
      const int32_t dB = std::abs(p[0] - q[0]), dG = std::abs(p[1] - q[1]),
                    dR = std::abs(p[2] - q[2]);
      const uint32_t d = uint32_t(dB + dG + dR);
      sum += d;
      if (d > largest) largest = d;
      squares += uint64_t(dB * dB + dG * dG + dR * dR);
      const uint64_t d2 = uint64_t(d) * d;
      sum6 += d2 * d2 * d2;
    }
  }
  Measure m;
  const double count = 3.0 * double(width_) * double(height_);
  if (count == 0) return m;
  m.errorMaxAvg = double(sum) / count;
  m.maxErrorMax = uint32_t(double(largest) / 3.0 + 0.5);
  m.errorMaxAvgSq = std::pow(double(sum6), 1.0 / 6.0) * 1000.0 / count;
  m.snr = Snr(double(squares), count);
  return m;
}

// ---------------------------------------------------------------------------------------------
// Begin.

int32_t zycMpmcEncoder::Begin(zycStreamHeader& jobHeader, const zylFrameImage& image,
                              zycFileHolder* output, FILE** extraOutputs,
                              zylAudioSupplierFn audioSupplier, void* audioUser,
                              zylProgress* progress, const zylKeyframeRange* plan) {
  End();

  // 1. The compressor's limit, the plan, the quality and the credit.
  compressor->tableLimit = (vqSectionLimit / 48) * 48;
  compressor->verbose = verbose;
  keyframePlan = plan;
  lastQuality = 0.0f;
  lastQualitySq = 0.0;
  IFrameCreditCount = iFrameCreditMax;
  framesWritten = 0;
  lastKeyFrame = 0;
  groupBytes = 0;
  lastMode = mode = modeVQ;
  outFile = output;
  for (FILE*& f : extraSoundFiles) f = nullptr;

  // 2. The header words and the padded size.
  const uint32_t keepDuration = header.frameDuration, keepScale = header.timeScale;
  header = jobHeader;
  if (header.frameDuration == 0) header.frameDuration = keepDuration;
  if (header.timeScale == 0) header.timeScale = keepScale;
  width_ = uint32_t(image.pixels && image.width > 0 ? image.width : 0);
  height_ = uint32_t(image.pixels && image.height > 0 ? image.height : 0);
  paddedWidth = (header.width + 7) & ~7u;
  paddedHeight = (header.height + 7) & ~7u;
  if (width_ > paddedWidth) width_ = paddedWidth;
  if (height_ > paddedHeight) height_ = paddedHeight;

  // 3. The plane coder's buffers and the embedded decoder.
  mpmcafBeginJob(paddedWidth, paddedHeight);
  if (!quadTree_) quadTree_ = std::make_unique<DXT1QuadTreeCompressor>();
  decoder = std::make_unique<zycZyl1Decoder>();
  decoder->Setup(paddedWidth, paddedHeight);
  begun_ = true;

  // 4. The twelve picture arrays; pad bytes 255, as the decoder writes them.
  const size_t pixels = size_t(paddedWidth) * paddedHeight;
  for (std::vector<uint8_t>* p : {&CurrentBitmapColor, &OldBitmapColor, &TryBitmapColor}) {
    p->assign(pixels * 4, 0);
    for (size_t i = 0; i < pixels; ++i) (*p)[4 * i + 3] = 255;
  }
  for (std::vector<uint8_t>* p : {&CurrentY, &OldY, &TryY}) p->assign(pixels, 0);
  for (std::vector<uint8_t>* p : {&CurrentU, &OldU, &TryU, &CurrentV, &OldV, &TryV})
    p->assign(pixels / 4, 0);
  outY_.assign(pixels * 8 + 10240, 0);
  outU_.assign(pixels * 2 + 10240, 0);
  outV_.assign(pixels * 2 + 10240, 0);

  // 5. The rest of the header, and the sound lead-in.
  header.headerSize = kHeaderSizeZyl1;
  header.fileSize = 0;
  header.frameCount = 0;
  header.reserved36 = 0;
  header.paramS = paramS;
  header.paramT = paramT;
  sound.Start(header.soundRate, header.soundChannels, soundBitRate, header.frameDuration,
              header.timeScale, audioSupplier, audioUser);
  header.soundChunkLimit =
      zycSoundChunkLimit(sound.soundLead, sound.samplesPerFrame, header.soundChannels);
  jobHeader = header;

  // 6. The header at position 0.
  if (output && output->file && !zycWriteMovieStart(output->file, header, &group)) Fail();
  bonusSize = -60;

  // 7. The extra sound outputs start with four zero bytes.
  if (extraOutputs) {
    static const uint8_t kZeros[4] = {};
    for (int i = 0; i < kExtraOutputCount; ++i) extraSoundFiles[i] = extraOutputs[i];
    for (int i = 0; i < 4; ++i) {
      if ((soundFlags & (1u << i)) && extraSoundFiles[i]) {
        if (std::fwrite(kZeros, 1, 4, extraSoundFiles[i]) != 4) Fail();
      }
    }
  }

  // 8. The frame budget. Without any sound flag it stays 0, and so does every wanted size.
  frameBudget = 0;
  const uint32_t S = header.soundChunkLimit;
  const uint32_t budget = (paddedWidth * paddedHeight * 3 - sound.soundLead + S) /
                              (compressionRatio ? compressionRatio : 1) -
                          ((S - sound.soundLead) >> 2);
  if (soundFlags & 15) {
    bonusSize -= 4;
    frameBudget = budget;
  } else if (soundFlags & 32) {
    frameBudget = budget;
  }

  // 9. The first I-frame's share of the credit.
  const uint32_t used = CreditToUse();
  const int32_t wantedSize = IFrameWantedSize(used);
  if (verbose) {
    zycLog("---IFrameCreditCount:%d  IFrameCreditToBeUsed:%d   --> wantedSize:%d (bonus Size: "
           "%d)\n",
           int32_t(IFrameCreditCount), int32_t(used), wantedSize, bonusSize);
  }
  IFrameCreditCount -= used;

  // 10. The sound, the picture with its edges repeated, the I-frame.
  sound.Take(soundFlags, extraSoundFiles);
  ReadFrame(image, Padding::kEdge);
  Compress(IFrameMode(), wantedSize);
  Write(progress);
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Next.

int32_t zycMpmcEncoder::Next(const zylFrameImage& image, zylProgress* progress) {
  if (!begun_) return 0;
  const double fps = Fps();
  // 1. A frame's worth of credit.
  if (verbose) {
    zycLog("------------------------------------Next Frame: %d ------------------------------\n",
           int32_t(framesWritten + 1));
  }
  IFrameCreditCount += uint32_t(TruncSaturated(1000.0 / fps + 0.5));

  // 2. The sound (a new sound block never begins here: the phone formats end the process).
  sound.Take(soundFlags, extraSoundFiles);
  const bool newSoundBlock = false;

  // 4. The keyframe plan.
  const uint32_t frameNumber = framesWritten + firstFrame;
  bool forcedKey = false, inNoKeyRange = false;
  for (const zylKeyframeRange* node = keyframePlan; node; node = node->next) {
    for (uint32_t i = 0; node->frames && i < node->frameCount; ++i) {
      if (node->frames[i] == frameNumber) forcedKey = true;
    }
    if (frameNumber > node->first && frameNumber < node->last) inNoKeyRange = true;
  }
  if (lastFrameIsKey && framesWritten == frameCount - 1) forcedKey = true;
  if (forcedKey) inNoKeyRange = false;

  uint32_t used = 0;
  uint32_t surplus = 0;
  int32_t wantedSize = 0;
  uint32_t frameMode;
  if (((newSoundBlock && keyFrameOnSoundBlock) || forcedKey) && !inNoKeyRange) {
    // 5. A forced I-frame.
    ReadFrame(image, Padding::kEdge);
    frameMode = IFrameMode();
    used = CreditToUse();
    wantedSize = IFrameWantedSize(used);
  } else {
    // 6. An unchanged source repeats the old picture.
    ReadFrame(image, Padding::kOld);
    const Measure same = Compare(CurrentBitmapColor, OldBitmapColor);
    if (verbose) {
      zycLog("Check same Frame: CurrentBitmapColor-->OldBitmapColor: ErrorMaxAvg:%f, "
             "MaxErrorMax:%d\n",
             same.errorMaxAvg, int32_t(same.maxErrorMax));
    }
    if (same.errorMaxAvg < 0.7 && same.maxErrorMax < 40) {
      if (verbose) zycLog("Keep previous frame !\n");
      frameMode = modeRepeat;
    } else {
      frameMode = modePFrame;
    }
    // 7. The P-frame share, and the credit above the cap given back to P-frames.
    wantedSize = int32_t(frameBudget) -
                 TruncSaturated(double(frameBudget) * double(iFrameWeight));
    if (IFrameCreditCount > iFrameCreditCap) {
      surplus = IFrameCreditCount - iFrameCreditCap;
      wantedSize = AddSaturated(wantedSize, TruncSaturated(double(surplus) / 1000.0 * fps *
                                                           double(frameBudget) *
                                                           double(iFrameWeight)));
    }
  }

  // 8. A sixteenth of the running surplus or debt, at most half the frame upward and a third
  // downward.
  if (wantedSize < 0) wantedSize = 0;
  int32_t adjustment = bonusSize >> 4;
  if (adjustment >= 0 && double(adjustment) > wantedSize * 0.5) {
    adjustment = TruncSaturated(wantedSize * 0.5);
  } else if (adjustment < 0 && -double(adjustment) > wantedSize * double(0.33333334f)) {
    adjustment = TruncSaturated(-wantedSize * double(0.33333334f));
  }
  bonusSize = AddSaturated(bonusSize, -int64_t(adjustment));
  wantedSize = AddSaturated(wantedSize, adjustment);
  if (wantedSize < 0) wantedSize = 0;
  if (verbose) {
    zycLog("---IFrameCreditCount:%d  IFrameCreditToBeUsed:%d   --> wantedSize:%d (bonus Size: "
           "%d, adjustment size:%d)\n",
           int32_t(IFrameCreditCount), int32_t(used), wantedSize, bonusSize, adjustment);
  }
  IFrameCreditCount -= used;

  bool compressed = false;
  bool chargeSurplus = true;
  if (frameMode == modePFrame) {
    // 9. The P-frame, then the two quality tests.
    Compress(modePFrame, wantedSize);
    compressed = true;
    const double quality = std::fabs(tryMeasure_.errorMaxAvg - double(lastQuality));
    const double qualitySqSix_Minus = std::fabs(tryMeasure_.errorMaxAvgSq - lastQualitySq);
    const double qualityLimite = framesWritten - lastKeyFrame < 2 ? 4.5 : 2.5;
    if (verbose) {
      zycLog("PFrame --> Quality:%f qualitySqSix_Minus:%f  (qualityLimite:%f) "
             "IFrameCreditCount:%d \n",
             quality, qualitySqSix_Minus, qualityLimite, int32_t(IFrameCreditCount));
    }
    if (IFrameCreditCount >= iFrameCreditMin && quality > qualityLimite && !inNoKeyRange) {
      if (verbose) zycLog("Create KeyFrame\n");
      ReadFrame(image, Padding::kEdge);
      frameMode = IFrameMode();
      used = CreditToUse();
      wantedSize = IFrameWantedSize(used);
      if (verbose) {
        zycLog("------------------------------------IFrameCreditCount:%d  "
               "IFrameCreditToBeUsed:%d   --> wantedSize:%d\n",
               int32_t(IFrameCreditCount), int32_t(used), wantedSize);
      }
      IFrameCreditCount -= used;
      sizeU_ = sizeV_ = 0;
      compressed = false;
      chargeSurplus = false;
    } else {
      const Measure shown = Compare(TryBitmapColor, OldBitmapColor);
      if (shown.errorMaxAvg < 0.5 && shown.maxErrorMax < 10) {
        zycLog("Check same Frame: TryBitmapColor-->OldBitmapColor: ErrorMaxAvg:%f, "
               "MaxErrorMax:%d\n",
               shown.errorMaxAvg, int32_t(shown.maxErrorMax));
        if (verbose) zycLog("Keep previous frame !\n");
        frameMode = modeRepeat;
        compressed = false;
      }
    }
  }
  // 10. The credit above the cap is spent, also by a frame that became a repeat.
  if (chargeSurplus && surplus > 0) IFrameCreditCount -= surplus;

  // 11.
  if (!compressed) Compress(frameMode, wantedSize);
  Write(progress);
  return 0;
}

// ---------------------------------------------------------------------------------------------
// Compress: codes Current in `frameMode` into Try and measures the result.

void zycMpmcEncoder::Compress(uint32_t frameMode, int32_t wantedSize) {
  int32_t bonus = bonusSize;
  mode = frameMode;
  sizeY_ = sizeU_ = sizeV_ = 0;
  const uint32_t halfWidth = paddedWidth / 2, halfHeight = paddedHeight / 2;
  if (IsIFrameMode(frameMode)) {
    bonus = AddSaturated(bonus, -8);  // the section header
    const size_t pixels = size_t(paddedWidth) * paddedHeight;
    packed_.resize(pixels * 3);
    for (size_t i = 0; i < pixels; ++i) std::memcpy(&packed_[3 * i], &CurrentBitmapColor[4 * i], 3);
    uint32_t size = 0;
    if (frameMode == modeVQ) {
      std::vector<uint8_t> image;
      size = compressor->compress(packed_.data(), paddedWidth, paddedHeight, wantedSize, image);
      if (image.size() > outY_.size()) outY_.resize(image.size());
      std::memcpy(outY_.data(), image.data(), size);
    } else {
      quadTree_->compress(packed_.data(), paddedWidth, paddedHeight, uint32_t(wantedSize),
                          outY_.data(), &size);
    }
    sizeY_ = size;
    if (verbose) zycLog("Size IFrame compress: %d\n", int32_t(size));
    bonus = AddSaturated(bonus, int64_t(wantedSize) - int64_t(size));
    zycZyl1Streams streams;
    streams.first = outY_.data();
    streams.firstSize = size;
    if (const char* why = decoder->Decode(uint8_t(frameMode), streams)) {
      ZYC_ERROR("zycMpmcEncoder::Compress", "%s\n", why);
    }
    std::memcpy(TryBitmapColor.data(), decoder->picture(), TryBitmapColor.size());
  } else {
    // The reference planes: derived from the picture after an I-frame, else the old planes.
    if (IsIFrameMode(lastMode)) {
      zycPlanesFromPicture(OldBitmapColor.data(), paddedWidth * 4, paddedWidth, paddedHeight,
                           TryY.data(), TryU.data(), TryV.data());
    } else {
      TryY = OldY;
      TryU = OldU;
      TryV = OldV;
    }
    if (frameMode == modePFrame) {
      zycPlanesFromPicture(CurrentBitmapColor.data(), paddedWidth * 4, paddedWidth, paddedHeight,
                           CurrentY.data(), CurrentU.data(), CurrentV.data());
      // Y gets three quarters of the budget, U and V an eighth each.
      mpmcafPlaneSize(paddedWidth, paddedHeight);
      const uint32_t yBits = uint32_t(std::min<int64_t>(int64_t(wantedSize) * 6, INT32_MAX));
      encodePlane(CurrentY.data(), TryY.data(), TryY.data(), yBits,
                  outY_.data(), &sizeY_);
      mpmcafPlaneSize(halfWidth, halfHeight);
      encodePlane(CurrentU.data(), TryU.data(), TryU.data(), uint32_t(wantedSize), outU_.data(),
                  &sizeU_);
      encodePlane(CurrentV.data(), TryV.data(), TryV.data(), uint32_t(wantedSize), outV_.data(),
                  &sizeV_);
    }
    const int32_t total = int32_t(sizeY_ + sizeU_ + sizeV_);
    bonus = AddSaturated(bonus, int64_t(wantedSize) - total);
    zycLog("-- PFrame compression:\n");
    zycLog("   wantedSize: %d\n", wantedSize);
    zycLog("   compressed size: %d\n", total);
    if (frameMode == modePFrame) {
      zycPictureFromPlanes(TryY.data(), TryU.data(), TryV.data(), paddedWidth, paddedHeight,
                           TryBitmapColor.data(), paddedWidth * 4);
    } else {
      TryBitmapColor = OldBitmapColor;
    }
  }
  tryBonus_ = bonus;
  tryMeasure_ = Compare(CurrentBitmapColor, TryBitmapColor);
  zycLog("OutputFrameTry: ErrorMaxAvg:%f ErrorMaxAvgSq:%f color SNR: %.2f\n",
         tryMeasure_.errorMaxAvg, tryMeasure_.errorMaxAvgSq, tryMeasure_.snr);
  lastFrame.mode = frameMode;
  lastFrame.wantedSize = wantedSize;
  lastFrame.imageBytes = sizeY_ + sizeU_ + sizeV_;
}

// ---------------------------------------------------------------------------------------------
// Write: the record, the section, the headers.

void zycMpmcEncoder::Write(zylProgress* progress) {
  // 1. Try becomes Old.
  lastMode = mode;
  bonusSize = tryBonus_;
  OldBitmapColor = TryBitmapColor;
  OldY = TryY;
  OldU = TryU;
  OldV = TryV;

  FILE* file = outFile ? outFile->file : nullptr;
  // 2. An I-frame opens a section.
  const bool key = IsIFrameMode(mode);
  if (key) {
    if (file && !zycOpenSection(file, kMagicZyl1, uint8_t(mode), &group)) Fail();
    lastKeyFrame = framesWritten;
    groupBytes = 0;
  }

  // 3, 4. The record: the image or the Y plane, the sound, the U and V planes.
  zycRecordContent content;
  content.first = outY_.data();
  content.firstSize = mode == modeRepeat ? 0 : sizeY_;
  content.hasSound = header.soundRate != 0 && (soundFlags & 32) && sound.soundSize != 0;
  if (content.hasSound) {
    content.sound = sound.chunk.data();
    content.soundSize = sound.soundSize;
  }
  content.hasPlanes = mode == modePFrame;
  if (content.hasPlanes) {
    content.plane2 = outU_.data();
    content.plane2Size = sizeU_;
    content.plane3 = outV_.data();
    content.plane3Size = sizeV_;
  }
  content.repeat = mode == modeRepeat;
  record_.clear();
  const uint32_t recordBytes = zycAppendRecord(content, &record_);
  const uint32_t tablePart = zycRecordTableBytes(content);
  if (file && std::fwrite(record_.data(), 1, record_.size(), file) != record_.size()) Fail();

  // 5. The bonus pays the record's head; the quality is kept; the progress record.
  bonusSize = AddSaturated(bonusSize, -int64_t(4 + tablePart));
  lastQuality = float(tryMeasure_.errorMaxAvg);
  lastQualitySq = tryMeasure_.errorMaxAvgSq;
  if (progress) {
    progress->frameIndex = framesWritten;
    progress->keyFrame = key ? 1 : 0;
    progress->size = int32_t(recordBytes);
    progress->soundSize = content.hasSound ? sound.soundSize : 0;
    progress->credit = bonusSize;
    const double q = std::floor(tryMeasure_.snr * 100.0 + 0.5);
    progress->quantizer = q >= 4294967295.0 ? UINT32_MAX : q <= 0 ? 0 : uint32_t(q);
    progress->motionBytesCount = 0;
  }
  lastFrame.recordBytes = recordBytes;
  lastFrame.errorMaxAvg = tryMeasure_.errorMaxAvg;
  lastFrame.snr = tryMeasure_.snr;

  // 6. The section and the file header are brought up to date.
  groupBytes += recordBytes;
  ++framesWritten;
  header.frameCount = framesWritten;
  group.header.frames = framesWritten - lastKeyFrame;
  group.header.size = groupBytes;
  if (file) zycPatchAfterFrame(outFile, &header, group);
}

// ---------------------------------------------------------------------------------------------
// End.

void zycMpmcEncoder::End() {
  if (begun_) {
    mpmcafEndJob();
    if (decoder) decoder->Release();
    begun_ = false;
  }
  framesWritten = 0;
}

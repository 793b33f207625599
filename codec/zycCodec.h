// zycCodec: the one implementation of zylCodec.
//
// A flat object holding both encoders by value for its whole life; `mode` picks which one a
// job drives. Parameters are fields of the encoders (and a few of the codec itself), written
// through the tag table of codec/paramTable.h. One thread drives the object; it has no lock.
#pragma once

#include <cstdint>

#include "base/growableArray.h"
#include "codec/encodeJob.h"
#include "codec/zylCodec.h"
#include "encoder/zycEncoder.h"
#include "mpmc/zycMpmcEncoder.h"

class zycCodec : public zylCodec {
 public:
  zycCodec(zylProgressCallback callback, uint32_t user);
  virtual ~zycCodec();
  zycCodec(const zycCodec&) = delete;
  zycCodec& operator=(const zycCodec&) = delete;

  void Destroy() override;                                                    // slot 0
  int32_t GetParam(uint32_t tag) override;                                    // slot 1
  float GetParamF(uint32_t tag) override;                                     // slot 2
  void SetParamF(uint32_t tag, float value) override;                         // slot 3
  void SetParam(uint32_t tag, int32_t value) override;                        // slot 4
  void SetCodecMode(uint32_t newMode) override;                               // slot 5
  int32_t Encode(zylSource* source, uint32_t reserved,
                 const char16_t* outputName) override;                        // slot 6
  int32_t Encode(zylSource* source, uint32_t reserved, const char16_t* outputName,
                 uint32_t firstFrame, uint32_t frameCount,
                 const zylKeyframeRange* keyframePlan,
                 char16_t* outputNameBuffer) override;                        // slot 7
  int32_t Encode(zylSource* source, uint32_t reserved, const char16_t* outputName,
                 uint32_t firstFrame, uint32_t frameCount, uint32_t unused) override;  // slot 8
  int32_t Encode(zylSource* source, uint32_t reserved, const char16_t* outputName,
                 uint32_t firstFrame, uint32_t frameCount) override;          // slot 9
  int32_t Append(const char16_t* file1, const char16_t* file2) override;     // slot 10
  int32_t ReplaceSection(const char16_t* file1, const char16_t* file2, uint32_t frameStart,
                         uint32_t frameCount) override;                       // slot 11
  void SetSkipExtraFiles(uint8_t skip) override;                              // slot 12
  bool GetSkipExtraFiles() override;                                          // slot 13
  zylSourceInfo GetSourceInfo(uint32_t reserved, const zylSource* source) override;  // slot 14

  // The encoder of the current mode behind the job seam; null in a mode other than 0 and 1.
  zycJobEncoder* ModeEncoder();
  // What an encode job takes from the codec; its sound comes through zylAudioSupplier from
  // `source`, which the job's caller sets first.
  zycJobSettings JobSettings();

  // ---- Fields, in order.
  uint32_t headerVersion = 0;  // "HXTC"
  uint32_t mode = 0;           // 0 ZYL0, 1 ZYL1
  uint32_t fxtc = 0;           // "FXTC", stored only
  uint32_t gxtc = 1;           // "GXTC", stored only
  zycEncoder encoder;
  zycMpmcEncoder mpmcEncoder;
  bool skipExtraFiles = false;
  uint32_t soundEnabled = 1;   // "SND\0"
  zylSource* source = nullptr;  // the source of the latest job
  zycGrowableArray<uint8_t> audioBuffer;  // what the audio supplier hands to the encoders
  zylProgressCallback progressCallback = nullptr;
  uint32_t progressUser = 0;
};

// Makes a codec; null if it could not be allocated.
zylCodec* zycCreateCodec(zylProgressCallback callback, uint32_t user);

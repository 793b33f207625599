// The sound step of both encoders: how many samples a frame takes, when a chunk is due, the
// call of the supplier and the ADPCM coding of the chunk. The extra phone-format outputs need a
// sound library this system does not have; asking for them ends the process.
#pragma once

#include <cstdint>
#include <cstdio>
#include <vector>

#include "stream/adpcm.h"

// Hands `bytes` bytes of 16-bit PCM to the sound step; `user` is the value given with it (the
// codec, whose frame pump reads the source).
typedef const uint8_t* (*zylAudioSupplierFn)(uint32_t bytes, void* user);

// ("oFMT" x 4) / (channels x 2), in unsigned integers; 0 without channels.
uint32_t zycSoundLead(uint32_t soundLeadBase, uint32_t channels);
// soundRate x frameDuration / timeScale.
double zycSamplesPerFrame(uint32_t soundRate, uint32_t frameDuration, uint32_t timeScale);
// soundLead + ceil(samplesPerFrame) x channels x 2 (a sum of samples and bytes, by definition).
uint32_t zycSoundChunkLimit(uint32_t soundLead, double samplesPerFrame, uint32_t channels);

// In frames for the phone sound outputs the sound item puts a record of two u16 before the
// chunk: 4, then 2 for 16000 samples a second, else 1.
constexpr uint32_t kPhoneSoundHeadBytes = 4;
void zycStorePhoneSoundHead(uint32_t soundRate, uint8_t out[kPhoneSoundHeadBytes]);

struct zycSoundStep {
  uint32_t soundRate = 0;
  uint32_t soundChannels = 0;
  uint32_t soundLead = 0;
  double soundPhase = 0.0;
  double samplesPerFrame = 0.0;
  zylAudioSupplierFn soundRead = nullptr;
  void* soundUser = nullptr;
  zycAdpcmState adpcm = {};
  std::vector<uint8_t> chunk;  // the coded chunk of this frame
  std::vector<int16_t> samples;
  uint32_t soundSize = 0;      // its bytes; 0 when the frame has none

  // A new job: the lead, the phase, the samples per frame; the ADPCM state cleared.
  void Start(uint32_t rate, uint32_t channels, uint32_t soundLeadBase, uint32_t frameDuration,
             uint32_t timeScale, zylAudioSupplierFn read, void* user);
  // The step of one frame. `extraFiles` are the five extra outputs (null entries are closed).
  // Returns the samples per channel taken, 0 when no chunk was due.
  uint32_t Take(uint32_t soundFlags, FILE* const* extraFiles);
};

#include "stream/sound.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

#include "base/byteIo.h"
#include "base/consoleLog.h"

uint32_t zycSoundLead(uint32_t soundLeadBase, uint32_t channels) {
  return channels ? (soundLeadBase * 4u) / (channels * 2u) : 0;
}

double zycSamplesPerFrame(uint32_t soundRate, uint32_t frameDuration, uint32_t timeScale) {
  return timeScale ? double(soundRate) * double(frameDuration) / double(timeScale) : 0.0;
}

uint32_t zycSoundChunkLimit(uint32_t soundLead, double samplesPerFrame, uint32_t channels) {
  return soundLead + uint32_t(std::ceil(samplesPerFrame)) * channels * 2u;
}

void zycStorePhoneSoundHead(uint32_t soundRate, uint8_t out[kPhoneSoundHeadBytes]) {
  zycStore16(out, 4);
  zycStore16(out + 2, soundRate == 16000 ? 2 : 1);
}

void zycSoundStep::Start(uint32_t rate, uint32_t channels, uint32_t soundLeadBase,
                         uint32_t frameDuration, uint32_t timeScale, zylAudioSupplierFn read,
                         void* user) {
  soundRate = rate;
  soundChannels = channels;
  soundLead = zycSoundLead(soundLeadBase, channels);
  soundPhase = double(soundLead);
  samplesPerFrame = zycSamplesPerFrame(rate, frameDuration, timeScale);
  soundRead = read;
  soundUser = user;
  adpcm = zycAdpcmState{};
  soundSize = 0;
}

uint32_t zycSoundStep::Take(uint32_t soundFlags, FILE* const* extraFiles) {
  soundSize = 0;
  if (soundRate == 0) return 0;
  soundPhase += samplesPerFrame;
  if (soundPhase < double(soundLead)) return 0;
  uint32_t n = uint32_t(std::ceil(soundPhase));
  n = (n + 3) & ~3u;
  soundPhase -= double(n);
  const uint32_t bytes = n * soundChannels * 2;
  chunk.assign(size_t(bytes) + 156, 0);
  const uint8_t* pcm = soundRead ? soundRead(bytes, soundUser) : nullptr;
  static const uint32_t kFileBits[4] = {1, 2, 4, 8};
  for (int i = 0; i < 4; ++i) {
    if ((soundFlags & kFileBits[i]) && extraFiles && extraFiles[i]) {
      zycLog("Must use docomo sound library");
      std::fflush(stdout);
      std::exit(1);
    }
  }
  if ((soundFlags & 32) && pcm && soundChannels) {
    samples.resize(size_t(n) * soundChannels);
    std::memcpy(samples.data(), pcm, bytes);  // the supplier's bytes need not be aligned
    soundSize = zycAdpcmEncode(adpcm, samples.data(), n, soundChannels, chunk.data());
  }
  return n;
}

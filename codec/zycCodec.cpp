#include "codec/zycCodec.h"

#include <new>

#include "codec/encodeJob.h"
#include "codec/fileSurgery.h"
#include "codec/framePump.h"
#include "codec/paramTable.h"

zycCodec::zycCodec(zylProgressCallback callback, uint32_t user)
    : progressCallback(callback), progressUser(user) {}

zycCodec::~zycCodec() = default;

zylCodec* zycCreateCodec(zylProgressCallback callback, uint32_t user) {
  // A codec that can't be made, for want of memory in the allocation or in its members, is null.
  try {
    return new zycCodec(callback, user);
  } catch (...) {
    return nullptr;
  }
}

void zycCodec::Destroy() { delete this; }

zycJobEncoder* zycCodec::ModeEncoder() {
  if (mode == 0) return &encoder;
  if (mode == 1) return &mpmcEncoder;
  return nullptr;
}

zycJobSettings zycCodec::JobSettings() {
  zycJobSettings settings;
  settings.mode = mode;
  settings.headerVersion = headerVersion;
  settings.soundEnabled = soundEnabled != 0;
  settings.skipExtraFiles = skipExtraFiles;
  settings.embedRequest = encoder.embedRequest != 0;
  settings.audioSupplier = zylAudioSupplier;
  settings.audioUser = this;
  settings.progressCallback = progressCallback;
  settings.progressUser = progressUser;
  return settings;
}

int32_t zycCodec::GetParam(uint32_t tag) {
  const zycParamEntry* entry = FindParam(tag);
  if (!entry || entry->setOnly) return -1;
  if (mode == 0) {
    if (entry->z.exists()) return LoadParam(encoder, entry->z, entry->scale);
    if (entry->k.exists()) return LoadParam(*this, entry->k, entry->scale);
  }
  if (mode == 0 || mode == 1) {
    // A tag the ZYL0 encoder doesn't have falls through to the ZYL1 encoder in mode 0 too.
    if (entry->m.exists()) return LoadParam(mpmcEncoder, entry->m, entry->scale);
    if (entry->k.exists()) return LoadParam(*this, entry->k, entry->scale);
  }
  return -1;
}

float zycCodec::GetParamF(uint32_t tag) {
  const zycParamEntry* entry = FindParam(tag);
  if (mode != 0 || !entry || !entry->floatSlots) return -1.0f;
  return encoder.*entry->z.f32;
}

void zycCodec::SetParamF(uint32_t tag, float value) {
  const zycParamEntry* entry = FindParam(tag);
  if (mode != 0 || !entry || !entry->floatSlots) return;
  encoder.*entry->z.f32 = value;
}

void zycCodec::SetParam(uint32_t tag, int32_t value) {
  const zycParamEntry* entry = FindParam(tag);
  if (!entry) return;
  if (entry->anyMode) {
    StoreParam(*this, entry->k, entry->scale, value);
    return;
  }
  if (mode == 0) {
    if (ParamRejects(*entry, value)) return;
    StoreParam(encoder, entry->z, entry->scale, value);
    StoreParam(*this, entry->k, entry->scale, value);
  }
  if (mode == 0 || mode == 1) {
    // No range check here: in mode 1 the ZYL1 encoder takes any value.
    StoreParam(mpmcEncoder, entry->m, entry->scale, value);
    StoreParam(*this, entry->k, entry->scale, value);
  }
}

void zycCodec::SetCodecMode(uint32_t newMode) { mode = newMode; }

// The short forms go through the interface again, so that an override of the full form catches
// all of them.
int32_t zycCodec::Encode(zylSource* src, uint32_t reserved, const char16_t* outputName) {
  zylCodec* self = this;
  return self->Encode(src, reserved, outputName, 0, 0);
}

int32_t zycCodec::Encode(zylSource* src, uint32_t reserved, const char16_t* outputName,
                         uint32_t firstFrame, uint32_t frameCount,
                         const zylKeyframeRange* keyframePlan, char16_t* outputNameBuffer) {
  // Nothing is thrown across the interface: a job the encoders could not finish (out of memory)
  // has unwound its picture and main output and counts as a failed job.
  source = src;  // the audio supplier reads it
  try {
    return RunEncodeJob(JobSettings(), ModeEncoder(), src, outputName, firstFrame, frameCount,
                        keyframePlan, outputNameBuffer);
  } catch (...) {
    return 3;
  }
}

int32_t zycCodec::Encode(zylSource* src, uint32_t reserved, const char16_t* outputName,
                         uint32_t firstFrame, uint32_t frameCount, uint32_t) {
  zylCodec* self = this;
  return self->Encode(src, reserved, outputName, firstFrame, frameCount, nullptr, nullptr);
}

int32_t zycCodec::Encode(zylSource* src, uint32_t reserved, const char16_t* outputName,
                         uint32_t firstFrame, uint32_t frameCount) {
  zylCodec* self = this;
  return self->Encode(src, reserved, outputName, firstFrame, frameCount, 0u);
}

int32_t zycCodec::Append(const char16_t* file1, const char16_t* file2) {
  return ::Append(file1, file2);
}

int32_t zycCodec::ReplaceSection(const char16_t* file1, const char16_t* file2,
                                 uint32_t frameStart, uint32_t frameCount) {
  return ::ReplaceSection(file1, file2, frameStart, frameCount, mode);
}

void zycCodec::SetSkipExtraFiles(uint8_t skip) { skipExtraFiles = skip != 0; }

bool zycCodec::GetSkipExtraFiles() { return skipExtraFiles; }

zylSourceInfo zycCodec::GetSourceInfo(uint32_t, const zylSource* src) {
  zylSourceInfo info = {};
  if (!src) return info;
  info.width = uint32_t(src->width);
  info.height = uint32_t(src->height);
  info.frameRate = float(src->frameRate);
  info.frameCount = src->frameCount;
  info.audioChannels = uint32_t(src->audioChannels);
  info.audioSampleRate = uint32_t(src->audioSampleRate);
  return info;
}

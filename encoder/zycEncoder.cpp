#include "encoder/zycEncoder.h"

// Interim: the object and its parameter fields exist; coding arrives with the encoder's frame
// loop. Until then Begin refuses every job.
struct zycEncoder::State {};

zycEncoder::zycEncoder() = default;
zycEncoder::~zycEncoder() { delete state_; }

void zycEncoder::SetJobRange(uint32_t first, uint32_t total) {
  firstFrame = first;
  frameTotal = total;
}

int32_t zycEncoder::Begin(zycStreamHeader&, const zylFrameImage&, zycFileHolder*, FILE**,
                          zylAudioSupplierFn, void*, zylProgress*, const zylKeyframeRange*) {
  return 1;
}

int32_t zycEncoder::Next(const zylFrameImage&, zylProgress*) { return 0; }
void zycEncoder::End() {}
const uint8_t* zycEncoder::Reconstructed() const { return nullptr; }
uint32_t zycEncoder::Pitch() const { return 0; }

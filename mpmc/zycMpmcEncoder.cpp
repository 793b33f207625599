#include "mpmc/zycMpmcEncoder.h"

#include "base/consoleLog.h"

zycMpmcEncoder::zycMpmcEncoder() {
  header.frameDuration = 66666;
  header.timeScale = 1000000;
}

zycMpmcEncoder::~zycMpmcEncoder() = default;

void zycMpmcEncoder::SetJobRange(uint32_t first, uint32_t total) {
  firstFrame = first;
  frameCount = total;
}

int32_t zycMpmcEncoder::Begin(zycStreamHeader&, const zylFrameImage&, zycFileHolder*, FILE**,
                              zylAudioSupplierFn, void*, zylProgress*,
                              const zylKeyframeRange* plan) {
  keyframePlan = plan;
  zycLog("ZYL1 encoding is not available in this build\n");
  return 1;
}

int32_t zycMpmcEncoder::Next(const zylFrameImage&, zylProgress*) { return 0; }

void zycMpmcEncoder::End() { framesWritten = 0; }

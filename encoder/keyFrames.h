// The choice between a key frame and a P-frame: how much of the picture changed, how long ago
// the last key frame was, and the host's key frame plan. Search only.
#pragma once

#include <cstdint>

#include "base/zylTypes.h"

struct zycBlock;

// Top blocks whose motion error exceeds this count as changed: about 17 per channel and pixel.
constexpr uint32_t kChangedMotionError = 0x332A;

// The percentage of `count` top blocks whose motionError is above kChangedMotionError.
double zycChangedPercent(const zycBlock* topBlocks, uint32_t count);

struct zycKeyPlanVerdict {
  bool forced = false;
  bool inhibited = false;
};
// Walks the plan for source frame `position`: listed in a node's frames forces; strictly
// between a node's first and last inhibits.
zycKeyPlanVerdict zycWalkKeyPlan(const zylKeyframeRange* plan, uint32_t position);

// The decision itself. A forced frame is never inhibited.
bool zycIsKeyFrame(double changed, double seconds, float iRng, bool forced, bool inhibited);

#include "encoder/keyFrames.h"

#include "encoder/motionSearch.h"

double zycChangedPercent(const zycBlock* topBlocks, uint32_t count) {
  if (count == 0) return 0.0;
  uint32_t changed = 0;
  for (uint32_t i = 0; i < count; ++i) {
    if (topBlocks[i].motionError > kChangedMotionError) ++changed;
  }
  return 100.0 * double(changed) / double(count);
}

zycKeyPlanVerdict zycWalkKeyPlan(const zylKeyframeRange* plan, uint32_t position) {
  zycKeyPlanVerdict v;
  for (const zylKeyframeRange* node = plan; node; node = node->next) {
    for (uint32_t i = 0; i < node->frameCount && node->frames; ++i) {
      if (node->frames[i] == position) v.forced = true;
    }
    if (node->first < position && position < node->last) v.inhibited = true;
  }
  return v;
}

bool zycIsKeyFrame(double changed, double seconds, float iRng, bool forced, bool inhibited) {
  if (forced) inhibited = false;
  bool pFrame;
  if (changed <= 25.0) {
    pFrame = ((changed < 5.0 || seconds < iRng) && !forced) || inhibited;
  } else {
    pFrame = (seconds < iRng && !forced) || inhibited;
  }
  return !pFrame;
}

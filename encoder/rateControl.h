// Rate control of the ZYL0 encoder: the frame budget from the account, the step from one error
// threshold to the next, and the decisions of the rate loops of Next and Begin. Search only.
#pragma once

#include <cstdint>

// The budget inputs of a job.
struct zycBudget {
  int32_t compressionSize = 0;  // A: the average frame budget
  double iRat = 0.2;            // F: the slack share
  float iDmp = 1.0f;            // seconds of slack a key frame gets
  uint32_t timeScale = 1000000;
  uint32_t frameDuration = 40000;

  double FramesPerSecond() const {
    return frameDuration ? double(timeScale) / double(frameDuration) : 0.0;
  }
  // K = iDmp x fps x A x F, truncated.
  int32_t KeyFrameSize() const;
  // The wanted size of a P-frame with `changed` percent of changed top blocks and `credit`.
  int32_t PFrameSize(double changed, int32_t credit) const;
};

// The next threshold by convergence. `branch` tells which rule gave it: 0 the next error
// (errorMax 0), 1 a percentage, 2 the smallest increment, 3 the step to the next error.
struct zycConvergence {
  uint32_t next = 0;
  int branch = 0;
  float coeff = 0.0f;
  float pct = 0.0f;
  uint32_t increment = 0;
};
zycConvergence zycConvergenceStep(uint32_t errorMax, uint32_t errorNext, int32_t size,
                                  int32_t wantedSize);

// The loop of Next: upward steps of 20 x ratio until the frame fits, bisection, then the
// convergence rule. After each pass, AfterPass says whether to make another, and sets errorMax.
struct zycRateLoop {
  int32_t wantedSize = 0;
  int32_t targetSize = 0;
  uint32_t errorMin = 0;
  uint32_t errorLimit = 100000;
  bool verbose = false;

  uint32_t errorMax = 0;
  uint32_t current = 0;
  uint32_t low = 0;
  uint32_t step = 0;
  bool stop = false;
  int32_t prevSize = 0;
  uint32_t stagnantDicotomie = 0;
  uint32_t passes = 0;

  void Start(int32_t wanted, int32_t target, uint32_t ratio, uint32_t minError,
             uint32_t limitError);
  bool AfterPass(int32_t size, uint32_t errorNext);
};

// The loop of Begin: the convergence rule alone, with its messages.
struct zycBeginRateLoop {
  int32_t wantedSize = 0;
  int32_t targetSize = 0;
  uint32_t errorMin = 0;
  uint32_t errorLimit = 100000;
  bool verbose = false;
  uint32_t errorMax = 0;
  uint32_t passes = 0;

  bool AfterPass(int32_t size, uint32_t errorNext);
};

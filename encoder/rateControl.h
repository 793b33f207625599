// Rate control of the ZYL0 encoder: the job's budget and credit, the frame budget from them,
// the step from one error threshold to the next, and the rate loop of Next and Begin. Search
// only.
#pragma once

#include <cstdint>

// What a job's budget is made from.
struct zycBudgetSetup {
  uint32_t pictureBytes = 0;     // the padded picture at three bytes a pixel
  uint32_t soundChunkLimit = 0;  // S of the header
  uint32_t soundLead = 0;
  uint32_t soundRate = 0;
  uint32_t soundFlags = 0;       // "pFMT"
  uint32_t ratio = 100;          // "RATI"; 0 counts as 1
  uint32_t lastKeyOver = 0;      // "rFMT": frames that pay for a forced last key frame; 0 none
};

// The budget of a job: the average frame size, its slack, and the credit, which is what the
// frames so far saved (positive) or overspent against that average.
struct zycBudget {
  int32_t compressionSize = 0;  // A: the average frame budget
  double iRat = 0.2;            // F: the slack share
  float iDmp = 1.0f;            // seconds of slack a key frame gets
  uint32_t timeScale = 1000000;
  uint32_t frameDuration = 40000;
  int32_t credit = 0;

  double FramesPerSecond() const {
    return frameDuration ? double(timeScale) / double(frameDuration) : 0.0;
  }
  // Sets A from the picture, the sound and the ratio, and the opening credit, which pays for
  // the movie's header. `verbose` prints A.
  void Open(const zycBudgetSetup& setup, bool verbose);
  // K = iDmp x fps x A x F, truncated.
  int32_t KeyFrameSize() const;
  // The wanted size of a P-frame with `changed` percent of changed top blocks.
  int32_t PFrameSize(double changed) const;
  // A key frame opens a section: the credit pays its 6-byte head.
  void OpenSection() { credit -= 6; }
  // A frame of `size` packed bytes went out, `soundSize` of them sound, which is not charged.
  void Spend(int32_t size, uint32_t soundSize) {
    credit += compressionSize - size + int32_t(soundSize);
  }
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

// The rate loop of a frame. Next's loop steps upward by 20 x ratio until the frame fits, then
// bisects, then takes the convergence rule; Begin's loop takes the convergence rule from the
// start and reports each step. After each pass, AfterPass says whether to make another, and
// sets errorMax.
struct zycRateLoop {
  int32_t wantedSize = 0;
  int32_t targetSize = 0;
  uint32_t errorMin = 0;
  uint32_t errorLimit = 100000;
  bool verbose = false;
  bool reportSteps = false;  // print each convergence step

  uint32_t errorMax = 0;
  uint32_t current = 0;
  uint32_t low = 0;
  uint32_t step = 0;
  bool stop = false;  // the step and bisection phase is over
  int32_t prevSize = 0;
  uint32_t stagnantDicotomie = 0;
  uint32_t passes = 0;

  // Next's loop.
  void Start(int32_t wanted, int32_t target, uint32_t ratio, uint32_t minError,
             uint32_t limitError);
  // Begin's loop.
  void StartConverging(int32_t wanted, int32_t target, uint32_t minError, uint32_t limitError);
  bool AfterPass(int32_t size, uint32_t errorNext);
};

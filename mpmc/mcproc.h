// The MPMCAF plane coder: one picture plane coded against its reference by a greedy loop that
// adds, one at a time, the motion block, affine block or atom that buys the most squared error
// per estimated bit, until the bit budget, the SNR target or the gains run out; then the atoms'
// quantiser step is chosen and both element lists are written as the plane's bit stream.
// Search; the stream itself is written by the plane writer.
// State: single-instance module state; one plane coder per process.
#pragma once

#include <cstdint>

#include "mpmc/mpmcSupport.h"

void mpmcafBeginJob(uint32_t width, uint32_t height);  // param defaults, plane buffers for this size, job buffers, windows, dictionary
void mpmcafPlaneSize(uint32_t width, uint32_t height); // freePlaneBuffers, set size, buildPlaneBuffers
// One plane: param.targetBits = targetBits; `reference` is read, `recon` (may equal
// `reference`) receives clamp(mc + mp); the stream goes to `out`, its byte count to *outSize.
void encodePlane(const uint8_t* source, const uint8_t* reference, uint8_t* recon,
                 uint32_t targetBits, uint8_t* out, uint32_t* outSize);
void mpmcafEndJob();                                   // freeJobBuffers
extern uint32_t allocCount;

// The block candidate of this iteration, left at blockList[blockCount]; returns its gain per bit.
double mcaf_proc(const mpmcParam* p, const McRect& changedRect);
// Estimated bits of block list entry `index`.
int32_t blockBits(int32_t index);
// Tries the steps 4, 8, .. 64 and requantises the atoms at the cheapest; returns that step.
double chooseQuantStep(double minGain);

extern McBlock* blockList;
extern int32_t blockCount;

// Where the last plane's processor time went, in microseconds, and how it ended.
struct mpmcafPlaneReport {
  uint64_t firstSearch;  // the first iteration's searches: SAD tables and every gain
  uint64_t iterations;   // the other iterations
  uint64_t quantiser;    // chooseQuantStep
  uint64_t writing;      // the bit stream
  int32_t iterationCount;
  double snr;
};
extern mpmcafPlaneReport planeReport;

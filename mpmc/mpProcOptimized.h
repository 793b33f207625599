// Matching pursuit of the plane coder: a fixed-point bank of 64 separable 8x8 filters over the
// residual finds each pixel's best atom, a cached best position saves whole-picture scans, and
// the atom list keeps its atoms sorted by position with a running estimate of their bits.
// Search, except atomDelta's arithmetic, which readers repeat bit for bit.
// State: single-instance module state.
#pragma once

#include <cstdint>

#include "mpmc/mpmcSupport.h"

struct mpProcOptimized {
  static void initOptimizedDict();
  static void freeOptimizedDict();
  // The doubles of the eight shapes, printed as they are made.
  static void makeDictionary();
  static void freeDictionary();
  static void buildAtomArrays(int32_t count);
  static void freeAtomArrays();
  static void buildWorkBuffers(int32_t width, int32_t height);
  static void freeWorkBuffers();

  static void reset();
  static void initSearchFromProfessorData(const mpmcParam* p, Pic* source, Label* mc, Label* mp,
                                          const McRect& changedRect);
  static void mpSearch();

  static int16_t* m_optimizedDict;  // 64 taps, shape by shape, at scale 32768
  static double (*dictionary)[8];   // the shapes as doubles
};

extern mpAtom* atoms;
extern mpAtom** sortedAtoms;
extern int32_t atomCount;
extern int32_t atomBitsTotal;

// The gain per bit of the best atom now, left at atoms[atomCount].
double nextAtom(const McRect& changedRect, const mpmcParam* p);
// Takes that atom into the list and the images; returns its bits.
int32_t applyAtom(int32_t* gainOut, McRect* changedRectOut, const mpmcParam* p);
// Applies (mc and mp given) or estimates (mp null) an atom at `step`; returns the gain.
int32_t atomDelta(const mpAtom* atom, Label* mc, Label* mp, const mpmcParam* p, McRect* rect,
                  double step);
// Estimated bits of the atom section for atoms 0..last; atom `last` may not be sorted in yet.
// The next atom's estimate comes from terms kept up to date as atoms are sorted in.
int32_t atomBits(int32_t last);
// The same estimate from a scan of all atoms.
int32_t zycAtomBitsScan(int32_t last);
// Sorts atoms[atomCount] into the list and its running bit terms; returns its bits.
int32_t sortInAtom();
// Level costs of the magnitudes less minLevel for the 16 candidates: plain Rice k = 0..7, then
// with values 0 and 1 << k swapped, the swapped value carried on from one k to the next.
void zycLevelCosts(const int32_t* magnitudes, int32_t count, int32_t minLevel, int64_t costs[16]);
// Requantises every atom at step s, rebuilds mpImage, returns trunc(bits * multiplier + SSE).
int32_t requantize(double s, double multiplier);

// The 64-filter bank over one area: for each pixel of [x0, x1) x [y0, y1) the strongest response
// and its atom index, from the 16-bit residual laid out with an 8-pixel zero margin.
struct zycFilterArea {
  const int16_t* residual;  // pixel (0, 0) of the plane
  int32_t residualStride;
  int16_t* firstPass;       // scratch, at least (x1 - x0) * (y1 - y0 + 8) values
  int32_t* best;            // pixel (0, 0) of the plane, stride bestStride
  uint16_t* bestIndex;
  int32_t bestStride;
  int32_t x0, y0, x1, y1;
};
using zycFilterBankFn = void (*)(const zycFilterArea& area, const int16_t* dict);
void zycFilterBankPlain(const zycFilterArea& area, const int16_t* dict);

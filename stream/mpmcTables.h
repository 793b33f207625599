// Tables shared by the ZYL1 plane coder and its reader: the rounding of all plane-coder
// arithmetic, the overlapped block windows and the atom shapes. Pure math, no state.
// Bit-exact: a change here changes plane streams and what readers rebuild from them.
#pragma once

#include <cstdint>

// t = trunc(v + 0.5), less 1 if t >= v + 0.5: ceil(v + 0.5) - 1, so exact halves go down.
int32_t quantRound(double v);

// Block windows: level k (block size 4 << k) overlaps its neighbours by zycOmcOverlap[k] pixels
// on each side, so its window is zycOmcWindowSize[k] pixels square.
inline constexpr int32_t zycOmcOverlap[4] = {1, 2, 3, 4};
inline constexpr int32_t zycOmcWindowSize[4] = {6, 12, 22, 40};
inline constexpr int32_t zycOmcWindowMax = 40;

// The window along one axis, w(i) for i = 0 .. zycOmcWindowSize[level] - 1.
void zycOmcWindowAxis(int32_t level, double* axis);
// The whole window, quantRound(w(i) * w(j) * 65536) at [j * size + i], values 0 .. 65536.
void zycOmcWindow(int32_t level, int32_t* window);

// The eight 8-tap atom shapes, each of unit length. Tap n (t = n - 3 of the generating formula,
// -3 .. 4) weighs the pixel n - 4 away from the atom's position.
void zycAtomShapes(double shapes[8][8]);
// The weight of tap (h, v) of atom (atomH, atomV): quantRound(H * V * 65536).
inline int32_t zycAtomWeight(const double shapes[8][8], int32_t atomH, int32_t atomV, int32_t h,
                             int32_t v) {
  return quantRound(shapes[atomH][h] * shapes[atomV][v] * 65536.0);
}
// An atom's effect d at one pixel for the fixed-point product m = c * weight, rounded half away
// from zero in 1/65536 units.
inline int64_t zycAtomDelta(int64_t m) {
  return m >= 1 ? (m + 32768) >> 16 : -((32768 - m) >> 16);
}

// The reader of ZYL1 plane streams: one picture plane rebuilt from its reference, its block list
// (motion and affine blocks blended through the overlapped windows) and its atom list, exactly
// as the plane coder reconstructs it. Bounds-checked for foreign input; allocates only in Setup.
// Bit-exact.
#pragma once

#include <cstdint>

struct zycPlaneReader {
  // Sizes the scratch for planes up to width x height; once per movie. false if out of memory.
  bool Setup(uint32_t width, uint32_t height);
  // Rebuilds one plane (width x height, both multiples of 4, row stride = width) from its
  // stream of `bytes` bytes. `plane` holds the reference on entry and the new plane on
  // return, exactly the reconstruction the encoder writes. nullptr on success, else a short
  // static message naming the problem. Never reads outside the stream, never writes outside
  // the plane, allocates nothing.
  const char* Decode(const uint8_t* stream, uint32_t bytes, uint32_t width, uint32_t height,
                     uint8_t* plane);
  void Release();

  zycPlaneReader() = default;
  zycPlaneReader(const zycPlaneReader&) = delete;
  zycPlaneReader& operator=(const zycPlaneReader&) = delete;
  ~zycPlaneReader() { Release(); }

  uint8_t* reference = nullptr;  // the reference plane, copied before it is overwritten
  int32_t* image = nullptr;      // blocks, then atoms, before the final clamp
  uint64_t capacity = 0;         // pixels both hold
  int32_t windows[4][40 * 40] = {};
  double shapes[8][8] = {};
};

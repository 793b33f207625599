// The plane stream writer: the block section (count, overlaps, each block's type, position, size
// and vector difference or affine map) and the atom section (count, Rice parameters chosen by
// cost, step, smallest level, then each atom's gap, shapes, level and sign), most significant
// bit first, padded to a byte. Bit-exact: the plane stream reader reads exactly this.
#pragma once

#include <cstdint>

#include "mpmc/mpmcSupport.h"

// An atom as written: its coefficient is level * step of the plane's step.
struct zycAtomCopy {
  int32_t x, y, atomH, atomV;
  double coefficient;
};

// Writes both sections for a width x height plane, atoms in position order; returns the bytes.
// Ends the process with "!! offset overflow = %d\n" when the smallest level exceeds 1023.
uint32_t zycWritePlaneStream(const McBlock* blocks, int32_t blockCount, const zycAtomCopy* atoms,
                             int32_t atomCount, double step, int32_t width, int32_t height,
                             uint8_t* out);

// The code of a vector difference's magnitude 0..32 and its length in bits (sign not included).
int32_t zycVectorCodeBits(int32_t magnitude);
uint32_t zycVectorCode(int32_t magnitude);

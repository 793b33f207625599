#include "mpmc/planeWriter.h"

#include <bit>
#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "base/consoleLog.h"
#include "mpmc/mpProcOptimized.h"
#include "stream/mpmcTables.h"

namespace {

static_assert(sizeof(zycAtomCopy) == 24);
static_assert(sizeof(McBlock) == 28);

int32_t LevelOf(int32_t size) { return size == 4 ? 0 : size == 8 ? 1 : size == 16 ? 2 : 3; }


// Most significant bit first into bytes; a value of n bits is cut to its low n bits.
struct BitWriter {
  uint8_t* out;
  uint32_t bytes = 0;
  uint32_t partial = 0;
  int32_t freeBits = 8;

  void Put(uint32_t value, int32_t n) {
    for (int32_t i = n - 1; i >= 0; --i) {
      partial = (partial << 1) | ((value >> i) & 1u);
      if (--freeBits == 0) {
        out[bytes++] = static_cast<uint8_t>(partial);
        partial = 0;
        freeBits = 8;
      }
    }
  }
  void PutRice(uint32_t value, int32_t k) {
    for (uint32_t z = value >> k; z > 0; --z) Put(0, 1);
    Put(1, 1);
    Put(value, k);
  }
  void Pad() {
    if (freeBits != 8) Put(0, freeBits);
  }
};

void WriteBlockSection(BitWriter& bits, const McBlock* blocks, int32_t count, int32_t posBits, int32_t width) {
  bits.Put(static_cast<uint32_t>(count), 12);
  for (int32_t k = 0; k < 4; ++k) bits.Put(1, 1);
  for (int32_t k = 0; k < 4; ++k) bits.Put(static_cast<uint32_t>(k), k + 1);
  int32_t previous[2] = {0, 0};
  for (int32_t i = 0; i < count; ++i) {
    const McBlock& b = blocks[i];
    bits.Put(b.type, 1);
    bits.Put(static_cast<uint32_t>(((b.y * width) >> 4) + (b.x >> 2)), posBits);
    bits.Put(static_cast<uint32_t>(LevelOf(b.size)), 2);
    if (b.type == 0) {
      const int32_t v[2] = {quantRound(b.dx * 2.0), quantRound(b.dy * 2.0)};
      for (int32_t axis = 0; axis < 2; ++axis) {
        int32_t d = v[axis] - previous[axis];
        if (d < -32) d += 64;
        if (d > 31) d -= 64;
        const int32_t magnitude = std::abs(d);
        bits.Put(zycVectorCode(magnitude), zycVectorCodeBits(magnitude));
        if (magnitude) bits.Put(d < 0 ? 1 : 0, 1);
        previous[axis] = v[axis];
      }
    } else {
      bits.Put(static_cast<uint32_t>(std::clamp(b.a + 1024, 0, 4095)), 12);
      bits.Put(static_cast<uint32_t>(std::clamp(b.b + 256, 0, 511)), 9);
    }
  }
}

void WriteAtomSection(BitWriter& bits, const zycAtomCopy* list, int32_t count, double step, int32_t width) {
  bits.Put(static_cast<uint32_t>(count), 12);
  if (count == 0) return;
  int32_t* positions = static_cast<int32_t*>(mpmcAlloc(sizeof(int32_t) * count));
  int32_t* magnitudes = static_cast<int32_t*>(mpmcAlloc(sizeof(int32_t) * count));
  int32_t minLevel = 0;
  for (int32_t i = 0; i < count; ++i) {
    positions[i] = list[i].y * width + list[i].x;
    magnitudes[i] = std::abs(quantRound(list[i].coefficient / step));
    if (i == 0 || magnitudes[i] < minLevel) minLevel = magnitudes[i];
  }
  if (minLevel > 1023) {
    zycLog("!! offset overflow = %d\n", minLevel);
    std::fflush(stdout);
    std::exit(1);
  }
  int32_t kPos = 0;
  int64_t bestPos = 0;
  for (int32_t k = 0; k < 16; ++k) {
    int64_t sum = 0;
    int32_t previous = 0;
    for (int32_t i = 0; i < count; ++i) {
      sum += ((positions[i] - previous) >> k) + 1 + k;
      previous = positions[i];
    }
    if (k == 0 || sum < bestPos) {
      bestPos = sum;
      kPos = k;
    }
  }
  int64_t costs[16];
  zycLevelCosts(magnitudes, count, minLevel, costs);
  int32_t choice = 0;
  for (int32_t c = 1; c < 16; ++c)
    if (costs[c] < costs[choice]) choice = c;
  const int32_t kLevel = choice & 7;
  const uint32_t swap = choice >= 8 ? 1 : 0;
  const uint32_t mask = 1u << kLevel;
  bits.Put(static_cast<uint32_t>(kPos), 4);
  bits.Put(swap, 1);
  bits.Put(static_cast<uint32_t>(kLevel), 3);
  bits.Put(static_cast<uint32_t>(step) / 4 - 1, 4);
  bits.Put(static_cast<uint32_t>(minLevel), 10);
  int32_t previous = 0;
  for (int32_t i = 0; i < count; ++i) {
    bits.PutRice(static_cast<uint32_t>(positions[i] - previous), kPos);
    previous = positions[i];
    bits.Put(static_cast<uint32_t>(list[i].atomV), 4);
    bits.Put(static_cast<uint32_t>(list[i].atomH), 4);
    uint32_t n = static_cast<uint32_t>(magnitudes[i] - minLevel);
    if (swap) n = n == 0 ? mask : (n == mask ? 0 : n);
    bits.PutRice(n, kLevel);
    bits.Put(list[i].coefficient > 0 ? 0 : 1, 1);
  }
  mpmcFree(magnitudes);
  mpmcFree(positions);
}

}  // namespace

uint32_t zycWritePlaneStream(const McBlock* blocks, int32_t blockCount, const zycAtomCopy* atoms,
                             int32_t atomCount, double step, int32_t width, int32_t height,
                             uint8_t* out) {
  BitWriter writer{out};
  const int32_t posBits = static_cast<int32_t>(std::bit_width(static_cast<uint32_t>(width * height / 16)));
  WriteBlockSection(writer, blocks, blockCount, posBits, width);
  WriteAtomSection(writer, atoms, atomCount, step, width);
  writer.Pad();
  return writer.bytes;
}

int32_t zycVectorCodeBits(int32_t magnitude) {
  static constexpr int32_t kBits[11] = {1, 2, 3, 4, 6, 7, 7, 7, 9, 9, 9};
  if (magnitude <= 10) return kBits[magnitude];
  if (magnitude <= 24) return 10;
  if (magnitude <= 30) return 11;
  return 12;
}

uint32_t zycVectorCode(int32_t magnitude) {
  static constexpr uint32_t kCodes[11] = {1, 1, 1, 1, 3, 5, 4, 3, 11, 10, 9};
  if (magnitude <= 10) return kCodes[magnitude];
  if (magnitude <= 24) return static_cast<uint32_t>(17 - (magnitude - 11));
  if (magnitude <= 30) return static_cast<uint32_t>(7 - (magnitude - 25));
  return magnitude == 31 ? 3 : 2;
}


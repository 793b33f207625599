#include "stream/planeReader.h"

#include <bit>
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "stream/mpmcTables.h"

namespace {

// Most significant bit first, with the end of the stream checked on every read.
struct PlaneBits {
  const uint8_t* data;
  uint64_t bitCount;
  uint64_t position = 0;

  bool Read(uint32_t n, uint32_t* value) {
    if (n > bitCount - position) return false;
    uint32_t v = 0;
    for (uint32_t i = 0; i < n; ++i, ++position)
      v = (v << 1) | ((data[position >> 3] >> (7 - (position & 7))) & 1u);
    *value = v;
    return true;
  }
  // n >> k zero bits, a one, then the low k bits of n. Values that can't fit 32 bits fail.
  bool ReadRice(uint32_t k, uint32_t* value) {
    uint64_t zeros = 0;
    for (;;) {
      if (position >= bitCount) return false;
      const uint32_t bit = (data[position >> 3] >> (7 - (position & 7))) & 1u;
      ++position;
      if (bit) break;
      if (++zeros > (0xffffffffu >> k)) return false;
    }
    uint32_t low = 0;
    if (!Read(k, &low)) return false;
    *value = static_cast<uint32_t>(zeros << k) | low;
    return true;
  }
};


// Magnitude of a vector difference from its code: 1 in 1 bit for 0, 1 in 2 bits for 1, and so
// on as the plane coder's table gives. -1 when the bits match no code.
int32_t ReadVectorMagnitude(PlaneBits& bits) {
  uint32_t code = 0, length = 0;
  for (;;) {
    uint32_t bit;
    if (!bits.Read(1, &bit)) return -1;
    code = (code << 1) | bit;
    ++length;
    switch (length) {
      case 1: case 2: case 3: case 4:
        if (code == 1) return static_cast<int32_t>(length) - 1;
        break;
      case 6:
        if (code == 3) return 4;
        break;
      case 7:
        if (code >= 3 && code <= 5) return 5 + (5 - static_cast<int32_t>(code));
        break;
      case 9:
        if (code >= 9 && code <= 11) return 8 + (11 - static_cast<int32_t>(code));
        break;
      case 10:
        if (code >= 4 && code <= 17) return 11 + (17 - static_cast<int32_t>(code));
        break;
      case 11:
        if (code >= 2 && code <= 7) return 25 + (7 - static_cast<int32_t>(code));
        break;
      case 12:
        if (code == 3) return 31;
        if (code == 2) return 32;
        return -1;
      default:
        break;
    }
  }
}

inline int32_t Clamp255(int64_t v) { return v < 0 ? 0 : (v > 255 ? 255 : static_cast<int32_t>(v)); }

}  // namespace

bool zycPlaneReader::Setup(uint32_t width, uint32_t height) {
  Release();
  const uint64_t pixels = static_cast<uint64_t>(width) * height;
  if (pixels == 0 || pixels > (1ull << 31)) return false;
  reference = static_cast<uint8_t*>(std::malloc(pixels));
  image = static_cast<int32_t*>(std::malloc(pixels * sizeof(int32_t)));
  if (!reference || !image) {
    Release();
    return false;
  }
  capacity = pixels;
  for (int32_t k = 0; k < 4; ++k) zycOmcWindow(k, windows[k]);
  zycAtomShapes(shapes);
  return true;
}

void zycPlaneReader::Release() {
  std::free(reference);
  std::free(image);
  reference = nullptr;
  image = nullptr;
  capacity = 0;
}

const char* zycPlaneReader::Decode(const uint8_t* stream, uint32_t bytes, uint32_t width,
                                   uint32_t height, uint8_t* plane) {
  if (!image) return "plane reader not set up";
  if (width < 4 || height < 4 || (width & 3) || (height & 3)) return "bad plane size";
  const uint64_t pixels = static_cast<uint64_t>(width) * height;
  if (pixels > capacity) return "plane larger than set up";
  if (!stream && bytes) return "no stream";
  PlaneBits bits{stream, static_cast<uint64_t>(bytes) * 8};
  const int32_t w = static_cast<int32_t>(width), h = static_cast<int32_t>(height);

  std::memcpy(reference, plane, pixels);
  for (uint64_t i = 0; i < pixels; ++i) image[i] = plane[i];

  // The reference with a repeated edge of `margin` pixels, read through clamped coordinates.
  constexpr int32_t margin = 24;
  const int32_t paddedW = w + 2 * margin, paddedH = h + 2 * margin;
  auto padded = [&](int32_t px, int32_t py) -> int32_t {
    px = std::clamp(px - margin, 0, w - 1);
    py = std::clamp(py - margin, 0, h - 1);
    return reference[static_cast<int64_t>(py) * w + px];
  };

  // Block section.
  uint32_t blockCount, v;
  if (!bits.Read(12, &blockCount)) return "plane stream ends in the block header";
  for (uint32_t k = 0; k < 4; ++k) {
    if (!bits.Read(1, &v)) return "plane stream ends in the block header";
    if (v != 1) return "plane stream without overlapped blocks";
  }
  for (uint32_t k = 0; k < 4; ++k) {
    if (!bits.Read(k + 1, &v)) return "plane stream ends in the block header";
    if (v != k) return "plane stream with an unknown block overlap";
  }
  const uint32_t gridW = width / 4;
  const uint32_t gridCount = static_cast<uint32_t>(pixels / 16);
  const uint32_t posBits = static_cast<uint32_t>(std::bit_width(gridCount));
  int32_t previous[2] = {0, 0};
  for (uint32_t b = 0; b < blockCount; ++b) {
    uint32_t type, position, level;
    if (!bits.Read(1, &type) || !bits.Read(posBits, &position) || !bits.Read(2, &level))
      return "plane stream ends in a block";
    if (position >= gridCount) return "block outside the plane";
    const int32_t x = static_cast<int32_t>(position % gridW) * 4;
    const int32_t y = static_cast<int32_t>(position / gridW) * 4;
    const int32_t size = 4 << level;
    const int32_t ov = zycOmcOverlap[level];
    const int32_t n = zycOmcWindowSize[level];
    const int32_t* window = windows[level];
    const int32_t x0 = std::max(x - ov, 0), y0 = std::max(y - ov, 0);
    const int32_t x1 = std::min(x + size + ov, w), y1 = std::min(y + size + ov, h);
    if (type == 0) {
      int32_t half[2];
      for (int32_t axis = 0; axis < 2; ++axis) {
        const int32_t magnitude = ReadVectorMagnitude(bits);
        if (magnitude < 0) return "bad vector code";
        int32_t d = magnitude;
        if (magnitude) {
          uint32_t sign;
          if (!bits.Read(1, &sign)) return "plane stream ends in a block";
          if (sign) d = -d;
        }
        int32_t value = previous[axis] + d;
        if (value < -32) value += 64;
        if (value > 31) value -= 64;
        previous[axis] = half[axis] = value;
      }
      // Half-pel vector: whole part by floor, a half adds the right or lower neighbour.
      const int32_t ix = half[0] >> 1, iy = half[1] >> 1;
      const int32_t fx = half[0] & 1, fy = half[1] & 1;
      for (int32_t py = y0; py < y1; ++py) {
        const int32_t ry = py + margin + iy;
        if (ry < 0 || ry >= paddedH) continue;
        const int32_t ry1 = std::min(ry + fy, paddedH - 1);
        const int32_t* wrow = window + (py - (y - ov)) * n - (x - ov);
        int32_t* out = image + static_cast<int64_t>(py) * w;
        for (int32_t px = x0; px < x1; ++px) {
          const int32_t rx = px + margin + ix;
          if (rx < 0 || rx >= paddedW) continue;
          const int32_t rx1 = std::min(rx + fx, paddedW - 1);
          const int32_t p =
              (padded(rx, ry) + padded(rx1, ry) + padded(rx, ry1) + padded(rx1, ry1) + 2) / 4;
          const int64_t weight = wrow[px];
          out[px] = static_cast<int32_t>((p * weight + (65536 - weight) * out[px] + 32768) >> 16);
        }
      }
    } else {
      uint32_t aField, bField;
      if (!bits.Read(12, &aField) || !bits.Read(9, &bField)) return "plane stream ends in a block";
      const int32_t a = static_cast<int32_t>(aField) - 1024;
      const int32_t bOffset = static_cast<int32_t>(bField) - 256;
      for (int32_t py = y0; py < y1; ++py) {
        const int32_t* wrow = window + (py - (y - ov)) * n - (x - ov);
        const uint8_t* ref = reference + static_cast<int64_t>(py) * w;
        int32_t* out = image + static_cast<int64_t>(py) * w;
        for (int32_t px = x0; px < x1; ++px) {
          const int32_t p = Clamp255(((a * ref[px]) >> 8) + bOffset);
          const int64_t weight = wrow[px];
          out[px] = static_cast<int16_t>((p * weight + (65536 - weight) * out[px] + 32768) >> 16);
        }
      }
    }
  }

  // Atom section.
  uint32_t atomCount;
  if (!bits.Read(12, &atomCount)) return "plane stream ends before the atoms";
  if (atomCount) {
    uint32_t kPos, swap, kLevel, stepField, minLevel;
    if (!bits.Read(4, &kPos) || !bits.Read(1, &swap) || !bits.Read(3, &kLevel) ||
        !bits.Read(4, &stepField) || !bits.Read(10, &minLevel))
      return "plane stream ends in the atom header";
    const int64_t step = (static_cast<int64_t>(stepField) + 1) * 4;
    const uint32_t mask = 1u << kLevel;
    uint64_t position = 0;
    for (uint32_t a = 0; a < atomCount; ++a) {
      uint32_t gap, atomV, atomH, n, sign;
      if (!bits.ReadRice(kPos, &gap) || !bits.Read(4, &atomV) || !bits.Read(4, &atomH) ||
          !bits.ReadRice(kLevel, &n) || !bits.Read(1, &sign))
        return "plane stream ends in an atom";
      position += gap;
      if (position >= pixels) return "atom outside the plane";
      if (atomV > 7 || atomH > 7) return "bad atom shape";
      if (swap) n = n == 0 ? mask : (n == mask ? 0 : n);
      const int64_t magnitude = static_cast<int64_t>(n) + minLevel;
      const int64_t level = sign ? -magnitude : magnitude;
      // The coefficient level * step, as the coder requantised it; a whole number already.
      const int64_t c = level * step;
      const int32_t x = static_cast<int32_t>(position % width);
      const int32_t y = static_cast<int32_t>(position / width);
      for (int32_t vy = 0; vy < 8; ++vy) {
        const int32_t py = y - 4 + vy;
        if (py < 0 || py >= h) continue;
        int32_t* out = image + static_cast<int64_t>(py) * w;
        for (int32_t hx = 0; hx < 8; ++hx) {
          const int32_t px = x - 4 + hx;
          if (px < 0 || px >= w) continue;
          const int64_t d = zycAtomDelta(c * zycAtomWeight(shapes, atomH, atomV, hx, vy));
          out[px] = Clamp255(out[px] + d);
        }
      }
    }
  }

  for (uint64_t i = 0; i < pixels; ++i) plane[i] = static_cast<uint8_t>(Clamp255(image[i]));
  return nullptr;
}

#include "stream/quadTreeReader.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "base/byteIo.h"
#include "stream/quadTreeFormat.h"
#include "stream/quadTreeLerp.h"

namespace {

constexpr uint32_t kMaxSide = 1u << 15;  // far beyond any movie; keeps the sizes in 32 bits

uint32_t Log2(uint32_t value) {
  uint32_t log = 0;
  while ((1u << log) < value) ++log;
  return log;
}

uint32_t Unpack565(uint32_t value) {
  const uint32_t red = (value >> 11) & 0x1F;
  const uint32_t green = (value >> 5) & 0x3F;
  const uint32_t blue = value & 0x1F;
  return ((blue << 3) | (blue >> 2)) | ((green << 2) | (green >> 4)) << 8 |
         ((red << 3) | (red >> 2)) << 16 | 0xFF000000u;
}

uint32_t Channel(uint32_t word, int shift) { return (word >> shift) & 0xFF; }

// (l + r) >> 1 in each byte.
uint32_t Mid(uint32_t l, uint32_t r) { return (l & r) + (((l ^ r) & 0xFEFEFEFEu) >> 1); }

void Fill(uint8_t* dst, uint32_t word, uint32_t count) {
  for (uint32_t k = 0; k < count; ++k) zycStore32(dst + 4 * k, word);
}

// One walk over one image.
struct Walk {
  zycQuadTreeReader* reader;
  const uint8_t* tree;
  uint32_t treeBits;  // 8 * L
  uint32_t bit = 0;
  const uint8_t* blocks;
  uint32_t blockCount;  // whole blocks after the tree
  uint32_t nextBlock = 0;
  uint8_t* pixels;
  uint32_t pitch;
  uint32_t width, height;
  uint32_t cellsWide;

  uint8_t* At(uint32_t x, uint32_t y) const { return pixels + size_t(y) * pitch + size_t(x) * 4; }
  uint32_t Word(uint32_t x, uint32_t y) const { return zycLoad32(At(x, y)); }

  const char* Square(uint32_t x, uint32_t y, uint32_t size);
  void Leaf(uint32_t x, uint32_t y, uint32_t size, const uint8_t* block);
  void Seams(uint32_t x, uint32_t y, uint32_t size);
};

// One bit a square, depth first. A square whose corner lies outside the picture has a 0 bit
// and no block. A square across the picture's edge is always split by the coder unless it is
// 4 pixels across; such a leaf writes only its pixels inside the picture.
const char* Walk::Square(uint32_t x, uint32_t y, uint32_t size) {
  if (bit >= treeBits) return "tree bits past L";
  const bool split = (tree[bit >> 3] >> (7 - (bit & 7))) & 1;
  ++bit;
  if (x >= width || y >= height) return split ? "split bit on a square outside the picture" : nullptr;
  if (split) {
    if (size == kQuadTreeMinSize) return "split bit on a 4-pixel square";
    const uint32_t half = size / 2;
    for (uint32_t child = 0; child < 4; ++child) {
      const char* problem = Square(x + (child & 1) * half, y + (child >> 1) * half, half);
      if (problem) return problem;
    }
    if (half > kQuadTreeMinSize) Seams(x, y, size);
    return nullptr;
  }
  if (size > kQuadTreeMinSize && (x + size > width || y + size > height))
    return "leaf across the picture's edge";
  if (nextBlock >= blockCount) return "too few leaf blocks";
  Leaf(x, y, size, blocks + size_t(nextBlock) * kQuadTreeLeafBytes);
  ++nextBlock;
  return nullptr;
}

void Walk::Leaf(uint32_t x0, uint32_t y0, uint32_t size, const uint8_t* block) {
  uint32_t p[16];
  zycDecodeQuadTreeBlock(block, p);
  uint8_t* const base = pixels;  // locals: stores into the picture cannot change them
  const size_t stride = pitch;
  const auto at = [base, stride](uint32_t x, uint32_t y) { return base + y * stride + size_t(x) * 4; };
  const uint8_t logSize = uint8_t(Log2(size));

  if (size == kQuadTreeMinSize) {
    reader->leafLog[size_t(y0 / 4) * cellsWide + x0 / 4] = logSize;
    uint8_t bytes[64];
    for (int i = 0; i < 16; ++i) zycStore32(bytes + 4 * i, p[i]);
    const uint32_t columns = x0 + 4 <= width ? 4 : width - x0;
    const uint32_t rows = y0 + 4 <= height ? 4 : height - y0;
    for (uint32_t r = 0; r < rows; ++r) memcpy(at(x0, y0 + r), bytes + 16 * r, 4 * columns);
    return;
  }
  for (uint32_t cy = y0 / 4; cy < (y0 + size) / 4; ++cy)
    memset(reader->leafLog + size_t(cy) * cellsWide + x0 / 4, logSize, size / 4);

  // The 16 pixels sit at the cell centres, h in from the edges and c apart. Rows first, into
  // the scratch, then columns into the picture: the square's inner 3c x 3c pixels.
  const uint32_t c = size / 4, h = size / 8, logC = Log2(c), span = 3 * c;
  uint32_t* rows = reader->centreRows;
  for (uint32_t r = 0; r < 4; ++r)
    for (uint32_t k = 0; k < 3; ++k)
      zycQuadTreeLerp(p[4 * r + k], p[4 * r + k + 1], logC, c,
           reinterpret_cast<uint8_t*>(rows + r * span + k * c), 4);
  for (uint32_t r = 0; r < 3; ++r) {
    uint8_t* top = at(x0 + h, y0 + h + r * c);
    for (uint32_t t = 0; t < span; ++t)
      zycQuadTreeLerp(rows[r * span + t], rows[(r + 1) * span + t], logC, c, top + 4 * t, ptrdiff_t(stride));
  }

  // Bands: every row and column of them repeats the nearest interpolated pixel. The seam
  // ramps of the parents then replace what lies along inner seams.
  const uint32_t inner0 = y0 + h, inner1 = y0 + size - h - 1;  // first and last inner rows
  for (uint32_t k = 0; k < h; ++k) {
    memcpy(at(x0 + h, y0 + k), at(x0 + h, inner0), size_t(span) * 4);
    memcpy(at(x0 + h, inner1 + 1 + k), at(x0 + h, inner1), size_t(span) * 4);
  }
  for (uint32_t y = inner0; y <= inner1; ++y) {
    Fill(at(x0, y), zycLoad32(at(x0 + h, y)), h);
    Fill(at(x0 + size - h, y), zycLoad32(at(x0 + size - h - 1, y)), h);
  }
  // Corners: the block's corner pixels, flat.
  for (uint32_t k = 0; k < h; ++k) {
    Fill(at(x0, y0 + k), p[0], h);
    Fill(at(x0 + size - h, y0 + k), p[3], h);
    Fill(at(x0, inner1 + 1 + k), p[12], h);
    Fill(at(x0 + size - h, inner1 + 1 + k), p[15], h);
  }
}

// The inner seams of a square whose four children are done, the vertical one first. For two
// facing leaves of sides A and B, l lies h(A) in from the seam, r lies h(B) in on the other
// side (the pixel at the seam for a side of 4), m = (l + r) >> 1; the pixels between l and the
// seam become a ramp from l to m, those between the seam and r a ramp from m to r. A side of 4
// gets no ramp. The walk goes by 4-pixel cells, the finest step any leaf can have.
void Walk::Seams(uint32_t x, uint32_t y, uint32_t size) {
  const uint32_t half = size / 2;
  const uint8_t* logs = reader->leafLog;
  const uint32_t seamX = x + half;
  if (seamX < width) {
    for (uint32_t cy = y / 4; cy < (y + size) / 4 && cy * 4 < height; ++cy) {
      const uint32_t a = logs[size_t(cy) * cellsWide + seamX / 4 - 1];
      const uint32_t b = logs[size_t(cy) * cellsWide + seamX / 4];
      if (a == 2 && b == 2) continue;
      const uint32_t hA = (1u << a) / 8, hB = (1u << b) / 8;
      const uint32_t yEnd = cy * 4 + 4 < height ? cy * 4 + 4 : height;
      for (uint32_t row = cy * 4; row < yEnd; ++row) {
        const uint32_t l = Word(seamX - 1 - hA, row), r = Word(seamX + hB, row);
        const uint32_t m = Mid(l, r);
        if (a > 2) zycQuadTreeLerp(l, m, a - 3, hA, At(seamX - hA, row), 4);
        if (b > 2) zycQuadTreeLerp(m, r, b - 3, hB, At(seamX, row), 4);
      }
    }
  }
  const uint32_t seamY = y + half;
  if (seamY < height) {
    const ptrdiff_t down = ptrdiff_t(pitch);
    for (uint32_t cx = x / 4; cx < (x + size) / 4 && cx * 4 < width; ++cx) {
      const uint32_t a = logs[size_t(seamY / 4 - 1) * cellsWide + cx];
      const uint32_t b = logs[size_t(seamY / 4) * cellsWide + cx];
      if (a == 2 && b == 2) continue;
      const uint32_t hA = (1u << a) / 8, hB = (1u << b) / 8;
      const uint32_t xEnd = cx * 4 + 4 < width ? cx * 4 + 4 : width;
      for (uint32_t col = cx * 4; col < xEnd; ++col) {
        const uint32_t l = Word(col, seamY - 1 - hA), r = Word(col, seamY + hB);
        const uint32_t m = Mid(l, r);
        if (a > 2) zycQuadTreeLerp(l, m, a - 3, hA, At(col, seamY - hA), down);
        if (b > 2) zycQuadTreeLerp(m, r, b - 3, hB, At(col, seamY), down);
      }
    }
  }
}

}  // namespace

void zycQuadTreeLerpPlain(uint32_t from, uint32_t to, uint32_t shift, uint32_t count, uint8_t* dst,
                          ptrdiff_t stride) {
  int32_t value[3], step[3];
  for (int c = 0; c < 3; ++c) {
    const int32_t a = int32_t(Channel(from, 8 * c));
    const int32_t b = int32_t(Channel(to, 8 * c));
    step[c] = ((b - a) * 65536) >> shift;
    value[c] = a * 65536 + step[c] / 2;
  }
  for (uint32_t k = 0; k < count; ++k, dst += stride) {
    zycStore32(dst, uint32_t(value[0] >> 16) | uint32_t(value[1] >> 16) << 8 |
                        uint32_t(value[2] >> 16) << 16 | 0xFF000000u);
    value[0] += step[0];
    value[1] += step[1];
    value[2] += step[2];
  }
}

void zycDecodeQuadTreeBlock(const uint8_t block[8], uint32_t out[16]) {
  const uint32_t a = zycLoad16(block), b = zycLoad16(block + 2);
  uint32_t codes[4] = {Unpack565(a), Unpack565(b), 0xFF000000u, 0xFF000000u};
  for (int c = 0; c < 3; ++c) {
    const uint32_t c0 = Channel(codes[0], 8 * c), c1 = Channel(codes[1], 8 * c);
    if (a <= b) {
      codes[2] |= ((c0 + c1) / 2) << (8 * c);
    } else {
      codes[2] |= ((2 * c0 + c1) / 3) << (8 * c);
      codes[3] |= ((c0 + 2 * c1) / 3) << (8 * c);
    }
  }
  for (int i = 0; i < 16; ++i) out[i] = codes[(block[4 + i / 4] >> (2 * (i % 4))) & 3];
}

bool zycQuadTreeReader::Setup(uint32_t width, uint32_t height) {
  Release();
  if (width > kMaxSide || height > kMaxSide) return false;
  const uint32_t cells = ((width + 3) / 4) * ((height + 3) / 4);
  const uint32_t span = 3 * zycQuadTreeRootSize(width, height) / 4;
  leafLog = static_cast<uint8_t*>(malloc(cells ? cells : 1));
  centreRows = static_cast<uint32_t*>(malloc(sizeof(uint32_t) * 4 * span));
  if (!leafLog || !centreRows) {
    Release();
    return false;
  }
  leafLogBytes = cells;
  spanCapacity = span;
  setupWidth = width;
  setupHeight = height;
  return true;
}

void zycQuadTreeReader::Release() {
  free(leafLog);
  free(centreRows);
  leafLog = nullptr;
  centreRows = nullptr;
  leafLogBytes = spanCapacity = setupWidth = setupHeight = 0;
}

const char* zycQuadTreeReader::Decode(const uint8_t* image, uint32_t bytes, uint32_t width,
                                      uint32_t height, uint8_t* pixels, uint32_t pitch) {
  if (width == 0 || height == 0) return "empty picture";
  if (width > setupWidth || height > setupHeight) return "picture larger than Setup";
  if (pitch / 4 < width) return "pitch shorter than a row";
  if (bytes < kQuadTreeHeadBytes) return "image shorter than its header";
  const uint32_t treeField = zycLoadQuadTreeField(image);
  if (treeField > bytes - kQuadTreeHeadBytes) return "tree bytes past the image";
  const uint8_t* tree = image + kQuadTreeHeadBytes;
  Walk walk{this,
            tree,
            treeField * 8,
            0,
            tree + treeField,
            (bytes - kQuadTreeHeadBytes - treeField) / kQuadTreeLeafBytes,
            0,
            pixels,
            pitch,
            width,
            height,
            (width + 3) / 4};
  return walk.Square(0, 0, zycQuadTreeRootSize(width, height));
}

// The decoder front: allocator interface, set-up, dispatch by depth and path, still images,
// and the block table ring of table-format frames.
#include "stream/zycDecoder.h"

#include <cstdlib>
#include <cstring>

#include "base/byteIo.h"
#include "base/consoleLog.h"
#include "stream/blockDecoder.h"
#include "stream/decoderTables.h"
#include "stream/imageFormat.h"
#include "stream/zylFormat.h"

uint32_t tableWritePos = 0;

namespace {

zycDecoder* currentDecoder = nullptr;

// Reads values most significant bit first from little-endian 32-bit words.
class BitReader {
 public:
  explicit BitReader(const uint8_t* words) : next_(words) {}

  uint32_t Read(uint32_t bits) {
    if (bits > 32) {
      Read(bits - 32);
      bits = 32;
    }
    if (bits == 0) return 0;
    if (count_ < bits) {
      buffer_ = buffer_ << 32 | zycLoad32(next_);
      next_ += 4;
      count_ += 32;
    }
    count_ -= bits;
    return uint32_t(buffer_ >> count_) & uint32_t((uint64_t(1) << bits) - 1);
  }

 private:
  const uint8_t* next_;
  uint64_t buffer_ = 0;
  uint32_t count_ = 0;
};

// Expands an 8-byte DXT1 block to 16 pixels of three bytes (top field, middle field, low
// field), row by row. Mixed colours truncate, unlike the colour blocks of the tree.
void expandBlock(const uint8_t* block, uint8_t* out) {
  const uint32_t c[2] = {zycLoad16(block), zycLoad16(block + 2)};
  uint32_t pal[4][3];
  for (int e = 0; e < 2; ++e) {
    const uint32_t top = c[e] >> 11, middle = (c[e] >> 5) & 63, low = c[e] & 31;
    pal[e][0] = (top << 3) | (top >> 2);
    pal[e][1] = (middle << 2) | (middle >> 4);
    pal[e][2] = (low << 3) | (low >> 2);
  }
  for (int f = 0; f < 3; ++f) {
    const uint32_t a = pal[0][f], b = pal[1][f];
    if (c[0] > c[1]) {
      pal[2][f] = (b + 2 * a) / 3;
      pal[3][f] = (a + 2 * b) / 3;
    } else {
      pal[2][f] = (a + b) / 2;
      pal[3][f] = 0;
    }
  }
  for (int i = 0; i < 16; ++i) {
    const uint32_t index = (block[4 + i / 4] >> (2 * (i % 4))) & 3;
    out[3 * i + 0] = uint8_t(pal[index][0]);
    out[3 * i + 1] = uint8_t(pal[index][1]);
    out[3 * i + 2] = uint8_t(pal[index][2]);
  }
}

// Replaces `*buffer` by one of at least `bytes` through `io` when it is smaller. False when
// the allocation fails (the buffer is then gone).
bool ensureBuffer(zycDecoder* io, uint8_t** buffer, uint32_t* capacity, uint32_t bytes) {
  if (bytes <= *capacity && *buffer) return true;
  if (!io) return false;
  if (*buffer) io->Free(*buffer);
  *buffer = static_cast<uint8_t*>(io->Alloc(bytes));
  *capacity = *buffer ? bytes : 0;
  return *buffer != nullptr;
}

// One channel of the surface formula; 32-bit wrapping arithmetic, arithmetic shifts.
inline int32_t wrap(int64_t v) { return int32_t(uint32_t(uint64_t(v))); }

inline int32_t shl16(int32_t v) { return int32_t(uint32_t(v) << 16); }

inline uint8_t surfaceValue(const uint8_t* k, int32_t x, int32_t y) {
  const int32_t k0 = int16_t(zycLoad16(k)), k1 = int16_t(zycLoad16(k + 2));
  const int32_t k2 = int16_t(zycLoad16(k + 4)), k3 = int16_t(zycLoad16(k + 6));
  const int32_t k4 = int16_t(zycLoad16(k + 8)), k5 = int16_t(zycLoad16(k + 10));
  const int32_t u = wrap(int64_t(wrap(int64_t(shl16(k2)) + int64_t(k4) * y) >> 16) * y);
  const int32_t v =
      wrap(int64_t(wrap(int64_t(shl16(k1)) + int64_t(k3) * x + int64_t(k5) * y) >> 16) * x);
  const int32_t f = wrap(int64_t(wrap(int64_t(u) + v + (shl16(k0) >> 4))) << 1);
  const int32_t value = f >> 16;
  return uint8_t(value < 0 ? 0 : value > 255 ? 255 : value);
}

inline int32_t surfaceCoordinate(uint32_t pixel) { return int32_t((pixel << 22) >> 16); }

}  // namespace

// ---- zycDecoder and myDecoder ----

zycDecoder::zycDecoder()
    : playerReady(1), playerFrame(0), playerFlags(0), playerPosition(0), playerUser(nullptr) {
  currentDecoder = this;
}

zycDecoder::~zycDecoder() {
  if (currentDecoder == this) currentDecoder = nullptr;
}

int zycDecoder::Idle() { return 0; }

zycDecoder* zycCurrentDecoder() { return currentDecoder; }

void* myDecoder::Alloc(uint32_t size) { return size ? std::malloc(size) : nullptr; }

void* myDecoder::Realloc(void* pointer, uint32_t size) {
  if (size == 0) {
    std::free(pointer);
    return nullptr;
  }
  return std::realloc(pointer, size);
}

void myDecoder::Free(void* pointer) { std::free(pointer); }

int myDecoder::Read(void* destination, uint32_t size) {
  if (file && size) {
    size_t got = std::fread(destination, 1, size, file);
    (void)got;
  }
  return 0;
}

int myDecoder::ReadU8(uint8_t* destination) { return Read(destination, 1); }
int myDecoder::ReadU16(uint16_t* destination) { return Read(destination, 2); }
int myDecoder::ReadU32(uint32_t* destination) { return Read(destination, 4); }
int myDecoder::ReadU32Second(uint32_t* destination) { return Read(destination, 4); }

int myDecoder::Seek(int32_t offset, int fromStart) {
  if (!file) return -1;
  return std::fseek(file, offset, fromStart ? SEEK_SET : SEEK_CUR) != 0 ? -1 : 0;
}

// ---- zycFrameDecoder ----

void zycFrameDecoder::Setup(uint32_t sourceWidth, uint32_t sourceHeight, uint32_t depth_,
                            uint32_t yuv_, uint8_t smallMotion_) {
  treeView = 0;
  width = (sourceWidth + 15) & ~15u;
  height = (sourceHeight + 15) & ~15u;
  depth = depth_;
  yuv = yuv_;
  ownStateWord = 0;
  ownStopWord = 0;
  stateWord = &ownStateWord;
  stopWord = &ownStopWord;
  stopMask = 0;
  resumeRow = 0;
  smallMotion = smallMotion_;
  kernels = zycBestBlockKernels();

  std::memset(motionOffset, 0, sizeof motionOffset);
  if (smallMotion) {
    for (int i = 0; i < 256; ++i)
      motionOffset[i] = int32_t(kSmallMotionTable[i][1]) * int32_t(width) + kSmallMotionTable[i][0];
  } else {
    int8_t vectors[kLargeMotionCount][2];
    zycFillLargeMotionTable(vectors);
    for (int i = 0; i < kLargeMotionCount; ++i)
      motionOffset[i] = int32_t(vectors[i][1]) * int32_t(width) + vectors[i][0];
  }

  blockTable = nullptr;
  blockTableBytes = 0;
  tableScratch = nullptr;
  tableScratchBytes = 0;

  if (depth != 16) {
    zycFillTone8(tone8);
  } else {
    zycFillTone5(tone5);
    zycFillTone6(tone6);
  }
  if (yuv) {
    zycFillYuvTables(Ytable, CrToR, CbToB, CrToG, CbToG);
    zycFillClamp(clampTable);
    zycFillClamp565(clamp565);
  }
  zycFillThirds(thirds);
}

void zycFrameDecoder::Release() {
  if (io) {
    if (blockTable) io->Free(blockTable);
    if (tableScratch) io->Free(tableScratch);
  }
  blockTable = nullptr;
  blockTableBytes = 0;
  tableScratch = nullptr;
  tableScratchBytes = 0;
}

void zycFrameDecoder::DecodeFrame(uint8_t* previous, uint8_t* current) {
  const bool resuming = *stateWord & 2;
  if (!resuming) {
    src = previous;
    dst = current;
    treeBits = 0;
    fadeHalf = 0;
  }
  if (!tableStream) {
    switch (depth) {
      case 32:
        zycDecodeBlocksDxt32(*this);
        break;
      case 24:
        zycDecodeBlocksDxt24(*this);
        break;
      case 16:
        zycDecodeBlocksDxt16(*this);
        break;
      default:
        break;
    }
    return;
  }
  if (!resuming) {
    // Table path: bring this frame's blocks out of the ring into the scratch first.
    const uint8_t* image = tableStream;
    const zycTableImageHeader head = zycLoadTableImageHeader(image);
    if (head.marker != 0) return;
    const uint32_t ringBytes = head.tableBytes;
    const uint32_t origin = head.tableOrigin;
    const uint32_t blockCount = head.blockCount;
    const uint32_t newCount = head.newCount;
    const uint32_t newOffset = head.newOffset;
    const uint32_t indexBits = head.indexBits;
    // A ring too small for its own new entries cannot be filled.
    if (uint64_t(newCount) * kBlockBytes > ringBytes) return;
    if (ringBytes > blockTableBytes && !ensureBuffer(io, &blockTable, &blockTableBytes, ringBytes))
      return;
    uint32_t pixelBytes;
    switch (depth) {
      case 16:
      case 24:
        pixelBytes = 3;
        break;
      case 32:
        pixelBytes = 4;
        break;
      default:
        return;
    }
    const uint64_t need = uint64_t(blockCount) * 16 * pixelBytes;
    if (need > 0xFFFFFFFFu) return;
    if (need > tableScratchBytes &&
        !ensureBuffer(io, &tableScratch, &tableScratchBytes, uint32_t(need)))
      return;

    if (head.reset) tableWritePos = 0;
    const uint8_t* entries = image + newOffset;
    const uint64_t newBytes = uint64_t(newCount) * kBlockBytes;
    if (tableWritePos + newBytes > ringBytes) {
      const int64_t room = int64_t(ringBytes) - int64_t(tableWritePos);
      const int64_t tail = room > 0 ? room / kBlockBytes : 0;
      uint32_t pos = tableWritePos;
      for (int64_t k = 0; k < tail; ++k, pos += kBlockBytes)
        expandBlock(entries + kImageBlockBytes * k, blockTable + pos);
      ZYC_ASSERT(pos == ringBytes, "zycFrameDecoder::DecodeFrame", "block table wrap at %u of %u\n",
                 pos, ringBytes);
      pos = 0;
      for (int64_t k = tail; k < newCount; ++k, pos += kBlockBytes)
        expandBlock(entries + kImageBlockBytes * k, blockTable + pos);
      tableWritePos = pos;
    } else {
      for (uint32_t k = 0; k < newCount; ++k, tableWritePos += kBlockBytes)
        expandBlock(entries + kImageBlockBytes * k, blockTable + tableWritePos);
    }

    const int64_t entryCount = ringBytes / kBlockBytes;
    const int64_t ahead = (int64_t(ringBytes) - int64_t(origin)) / kBlockBytes;
    BitReader bits(image + 24);
    for (uint32_t k = 0; k < blockCount; ++k) {
      int64_t index = bits.Read(indexBits);
      if (index >= ahead) index -= entryCount;
      const int64_t pos = int64_t(origin) + index * kBlockBytes;
      uint8_t* to = tableScratch + size_t(k) * kBlockBytes;
      if (pos >= 0 && pos + kBlockBytes <= blockTableBytes) {
        std::memcpy(to, blockTable + pos, kBlockBytes);
      } else {
        std::memset(to, 0, kBlockBytes);  // outside the ring: only a damaged stream gets here
      }
    }

    const size_t pixels = size_t(blockCount) * 16;
    if (depth == 32) {
      for (size_t i = pixels; i-- > 0;) {
        const uint8_t b0 = tableScratch[3 * i], b1 = tableScratch[3 * i + 1],
                      b2 = tableScratch[3 * i + 2];
        uint8_t* p = tableScratch + 4 * i;
        p[0] = b2;
        p[1] = b1;
        p[2] = b0;
        p[3] = 255;
      }
    } else if (depth == 24) {
      for (size_t i = 0; i < pixels; ++i) {
        uint8_t* p = tableScratch + 3 * i;
        const uint8_t b0 = p[0];
        p[0] = p[2];
        p[2] = b0;
      }
    }
    tableStream = tableScratch;
  }
  switch (depth) {
    case 32:
      zycDecodeBlocksTable32(*this);
      break;
    case 24:
      zycDecodeBlocksTable24(*this);
      break;
    case 16:
      zycDecodeBlocksTable16(*this);
      break;
    default:
      break;
  }
}

void zycFrameDecoder::DecodeImage(uint8_t* output) {
  const uint8_t* image = colourStream;
  if (!image || !zycHasStillImageMagic(image)) return;
  const zycStillImageHeader head = zycLoadStillImageHeader(image);
  const uint32_t ringBytes = head.tableBytes;
  const uint32_t surfaceBits = head.surfaceBits;
  const uint32_t vqBits = head.vqBits;
  const uint32_t imageWidth = head.width;
  const uint32_t imageHeight = head.height;
  const uint8_t* surfaces = image + head.surfaceOffset;
  const uint32_t codebookCount = head.codebookCount;
  const uint8_t* codebook = image + head.codebookOffset;

  if (ringBytes > blockTableBytes && !ensureBuffer(io, &blockTable, &blockTableBytes, ringBytes))
    return;
  // The codebook must fit the table it is expanded into.
  if (uint64_t(codebookCount) * kBlockBytes > blockTableBytes) return;

  const size_t rowBytes = size_t(imageWidth) * 3;
  uint8_t* temporary = nullptr;
  uint8_t* out = output;
  if (depth == 16) {
    temporary = static_cast<uint8_t*>(std::malloc(rowBytes * imageHeight + 1));
    if (!temporary) return;
    out = temporary;
  }

  for (uint32_t k = 0; k < codebookCount; ++k)
    expandBlock(codebook + kImageBlockBytes * size_t(k), blockTable + size_t(k) * kBlockBytes);
  tableWritePos = codebookCount * kBlockBytes;

  BitReader bits(image + kStillImageHeaderBytes);
  for (uint32_t by = 0; by + 8 <= imageHeight; by += 8) {
    for (uint32_t bx = 0; bx + 8 <= imageWidth; bx += 8) {
      uint8_t* block = out + by * rowBytes + size_t(bx) * 3;
      if (bits.Read(1)) {
        for (int q = 0; q < 4; ++q) {
          const uint32_t index = bits.Read(vqBits);
          uint8_t* to = block + (q >> 1) * 4 * rowBytes + (q & 1) * 12;
          const uint64_t from = uint64_t(index) * kBlockBytes;
          for (int row = 0; row < 4; ++row, to += rowBytes) {
            if (from + kBlockBytes <= blockTableBytes) {
              std::memcpy(to, blockTable + from + 12 * row, 12);
            } else {
              std::memset(to, 0, 12);  // outside the table: only a damaged stream gets here
            }
          }
        }
      } else {
        const uint8_t* entry = surfaces + size_t(bits.Read(surfaceBits)) * kSurfaceEntryBytes;
        for (uint32_t row = 0; row < 8; ++row) {
          const int32_t y = surfaceCoordinate(by + row);
          uint8_t* to = block + row * rowBytes;
          for (uint32_t col = 0; col < 8; ++col) {
            const int32_t x = surfaceCoordinate(bx + col);
            to[3 * col + 0] = surfaceValue(entry, x, y);
            to[3 * col + 1] = surfaceValue(entry + 12, x, y);
            to[3 * col + 2] = surfaceValue(entry + 24, x, y);
          }
        }
      }
    }
  }

  const size_t pixels = size_t(imageWidth) * imageHeight;
  if (depth == 32) {
    for (size_t i = pixels; i-- > 0;) {
      const uint8_t b0 = out[3 * i], b1 = out[3 * i + 1], b2 = out[3 * i + 2];
      uint8_t* p = out + 4 * i;
      p[0] = b0;
      p[1] = b1;
      p[2] = b2;
      p[3] = 255;
    }
  } else if (depth == 16) {
    for (size_t i = 0; i < pixels; ++i) {
      const uint8_t* p = temporary + 3 * i;
      zycStore16(output + 2 * i, uint16_t((p[2] >> 3) << 11 | (p[1] >> 2) << 5 | p[0] >> 3));
    }
    std::free(temporary);
  }
}

void zycExpandTableBlock(const uint8_t block[8], uint8_t out[48]) { expandBlock(block, out); }

void zycDecodeDxt1Block(const zycFrameDecoder& tables, uint32_t colourWord, uint32_t indexWord,
                        uint32_t out[16]) {
  uint32_t palette[4];
  zycDxt1Palette32(tables, colourWord & 0xFFFF, colourWord >> 16, palette);
  for (int i = 0; i < 16; ++i) {
    out[i] = palette[indexWord & 3];
    indexWord >>= 2;
  }
}

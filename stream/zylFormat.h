// Constants of the movie format and the in-memory stream header record. Bit-exact: a change here
// changes files.
#pragma once

#include <cstdint>

// Magics, as little-endian 32-bit words of their four characters.
constexpr uint32_t kMagicZyl0 = 0x304C595Au;  // "ZYL0"
constexpr uint32_t kMagicZyl1 = 0x314C595Au;  // "ZYL1"

constexpr uint32_t kHeaderSizeZyl0 = 64;
constexpr uint32_t kHeaderSizeZyl1 = 60;
constexpr uint32_t kSectionHeaderSizeZyl0 = 6;
constexpr uint32_t kSectionHeaderSizeZyl1 = 8;
constexpr uint32_t kTimeScale = 1000000;
constexpr uint32_t kReserved52 = 7;

// The two header fields that change after every frame: fileSize stands at 8 in ZYL0 and at 12
// in ZYL1, frameCount at 16 in both.
constexpr uint32_t kFileSizeAtZyl0 = 8;
constexpr uint32_t kFileSizeAtZyl1 = 12;
constexpr uint32_t kFrameCountAt = 16;

// The section packing of a ZYL0 file, the byte at offset 56 of headers with a packing byte.
constexpr uint8_t kPackingDeflate = 0;
constexpr uint8_t kPackingLzma = 1;
// An LZMA section starts with the LZMA properties and the unpacked length as a u64.
constexpr uint32_t kLzmaPropertyBytes = 5;
constexpr uint32_t kLzmaHeadBytes = kLzmaPropertyBytes + 8;

// File header flags of ZYL0.
constexpr uint32_t kHeaderFlagAlways = 1;
constexpr uint32_t kHeaderFlagSound = 2;
constexpr uint32_t kHeaderFlagYuv = 4;
constexpr uint32_t kHeaderFlagWideMotion = 8;  // motion indices are u16

// Frame flags, the first byte of a ZYL0 frame's tree item.
constexpr uint8_t kFrameFlagAlways = 1;
constexpr uint8_t kFrameFlagMotion = 2;
constexpr uint8_t kFrameFlagColour = 4;
constexpr uint8_t kFrameFlagImage = 8;
constexpr uint8_t kFrameFlagSound = 16;
constexpr uint8_t kFrameFlagFade = 32;
constexpr uint8_t kFrameFlagTable = 64;

// Block tree symbols.
constexpr uint8_t kSymbolCopy = 0;
constexpr uint8_t kSymbolSplit = 1;
constexpr uint8_t kSymbolColour = 2;
constexpr uint8_t kSymbolFade = 3;

// Still images (key frames of both formats) and table-block images (the table item of a ZYL0
// P-frame); their headers are in stream/imageFormat.h.
constexpr uint32_t kStillImageMagic = 0x7FED52A5u;
constexpr uint8_t kStillImageVersion = 3;
constexpr uint32_t kStillImageHeaderBytes = 28;
constexpr uint32_t kSurfaceEntryBytes = 36;  // three channels of six i16 coefficients
constexpr uint32_t kTableImageHeaderBytes = 24;
constexpr uint32_t kImageBlockBytes = 8;      // a codebook entry or new table entry: one DXT1 block
constexpr uint32_t kBlockBytes = 48;  // one decoded 4x4 block of the block table, 3 bytes a pixel

// ZYL1 frame record flags.
constexpr uint8_t kRecordFlagSound = 1;
constexpr uint8_t kRecordFlagPlanes = 6;
constexpr uint8_t kRecordFlagRepeat = 8;

// The stream header record: the file header of either format in memory. The job fills magic,
// version, frameDuration, timeScale, width, height, soundRate, soundChannels and flags; the
// encoder's Begin completes it. ZYL0 stores the fields in this order (with `tail` at 56);
// ZYL1 stores headerSize at 8 and moves fileSize to 12 (see the container code).
struct zycStreamHeader {
  uint32_t magic = 0;
  uint32_t version = 0;
  uint32_t fileSize = 0;
  uint32_t flags = 0;
  uint32_t frameCount = 0;
  uint32_t frameDuration = 0;
  uint32_t timeScale = 0;
  uint32_t width = 0;
  uint32_t height = 0;
  uint32_t reserved36 = 0;
  uint32_t soundRate = 0;
  uint32_t soundChannels = 0;
  uint32_t soundChunkLimit = 0;
  uint32_t reserved52 = 0;
  uint8_t tail[8] = {};  // ZYL0 offsets 56 to 63
  // ZYL1 only.
  uint32_t headerSize = 0;
  uint32_t paramS = 0;
  uint32_t paramT = 0;
};

// ZYL1 frame kinds, the `frameKind` of a record: the key frame's image format, a P-frame of
// three plane streams, or a repeat of the previous picture.
constexpr uint8_t kFrameKindStill = 0;
constexpr uint8_t kFrameKindQuadTree = 1;
constexpr uint8_t kFrameKindPlanes = 2;
constexpr uint8_t kFrameKindRepeat = 3;

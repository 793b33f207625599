// The frame decoder: the allocator and file interface zycDecoder, its file-backed form
// myDecoder, and the decoder state zycFrameDecoder that turns a frame's streams into pixels.
// Bit-exact: both encoders rebuild their reference pictures through this code.
#pragma once

#include <cstdint>
#include <cstdio>

#include "stream/zylFormat.h"

// Allocator and file interface of a player. Ten slots; the block decoder uses Alloc and Free.
// The base has no bodies for slots 0 to 8. Constructing one makes it the module's current
// decoder (zycCurrentDecoder); destroying the current one clears that pointer.
class zycDecoder {
 public:
  zycDecoder();
  zycDecoder(const zycDecoder&) = delete;
  zycDecoder& operator=(const zycDecoder&) = delete;

  virtual void* Alloc(uint32_t size) = 0;                   // slot 0; size 0 gives null
  virtual void* Realloc(void* pointer, uint32_t size) = 0;  // slot 1
  virtual void Free(void* pointer) = 0;                     // slot 2
  virtual int Read(void* destination, uint32_t size) = 0;   // slot 3
  virtual int ReadU8(uint8_t* destination) = 0;             // slot 4
  virtual int ReadU16(uint16_t* destination) = 0;           // slot 5
  virtual int ReadU32(uint32_t* destination) = 0;           // slot 6
  virtual int ReadU32Second(uint32_t* destination) = 0;     // slot 7
  virtual int Seek(int32_t offset, int fromStart) = 0;      // slot 8
  virtual int Idle();                                       // slot 9, returns 0

  // Fields of a player object; the encoders leave them idle. The constructor zeroes them and
  // sets `playerReady` to 1.
  uint32_t playerReady;
  uint32_t playerFrame;
  uint32_t playerFlags;
  uint32_t playerPosition;
  void* playerUser;

 protected:
  // Owners delete the concrete class (myDecoder); the interface has ten slots and no more.
  ~zycDecoder();
};

// The module's current decoder: the last one constructed and not yet destroyed.
zycDecoder* zycCurrentDecoder();

// zycDecoder on the C heap and an open file. `file` is not owned: the owner opens and closes it.
class myDecoder final : public zycDecoder {
 public:
  myDecoder() = default;
  ~myDecoder() = default;

  void* Alloc(uint32_t size) override;
  void* Realloc(void* pointer, uint32_t size) override;
  void Free(void* pointer) override;
  int Read(void* destination, uint32_t size) override;  // all return 0
  int ReadU8(uint8_t* destination) override;
  int ReadU16(uint16_t* destination) override;
  int ReadU32(uint32_t* destination) override;
  int ReadU32Second(uint32_t* destination) override;
  // From the start with `fromStart` non-zero, else from the current position; -1 when the
  // seek reports failure, 0 otherwise.
  int Seek(int32_t offset, int fromStart) override;

  FILE* file = nullptr;
};

// Byte position in the block table at which the next new block goes. One for the whole
// library: one encoder runs at a time in a process.
extern uint32_t tableWritePos;

constexpr int kClampBias = 277;       // index of the value 0 in the clamp tables

// Decoder state. Set up once per movie by Setup; the owner sets `io` and, per frame, the
// stream positions, `stopWord`, `stopMask` and `stateWord`, then calls DecodeFrame (P-frames
// and tree key frames) or DecodeImage (still key frames) and exchanges its frame buffers.
// `stopWord` and `stateWord` point into the state itself after Setup: do not copy a state
// that is in use.
struct zycFrameDecoder {
  zycDecoder* io = nullptr;
  uint8_t* blockTable = nullptr;  // ring of 48-byte blocks
  uint32_t blockTableBytes = 0;
  uint8_t* tableScratch = nullptr;  // the current table frame's blocks in output format
  uint32_t tableScratchBytes = 0;
  uint8_t treeView = 0;        // non-zero: the 32-bit DXT1 routine paints the tree instead
  uint32_t treeBits = 0;       // symbols already taken from the current tree byte
  uint32_t fadeHalf = 0;       // 1: the next fade level is the high half of the current byte
  uint32_t width = 0;          // rounded up to a multiple of 16; also the stride in pixels
  uint32_t height = 0;         // rounded up to a multiple of 16
  uint32_t depth = 0;          // 16, 24 or 32 bits a pixel
  uint32_t yuv = 0;            // non-zero: colour words hold Cr, Y, Cb
  uint8_t* src = nullptr;      // current block in the previous picture
  uint8_t* dst = nullptr;      // current block in the picture being made
  uint8_t smallMotion = 0;     // non-zero: u8 motion indices into the 256-entry table
  uint8_t kernels = 0;         // kernel set of the 32-bit routines (blockDecoder.h); Setup
                               // picks the fastest there is
  int32_t motionOffset[4096];  // dy * width + dx
  uint8_t thirds[768];         // (i + 1) / 3
  uint8_t tone5[16][32];
  uint32_t tone6[16][64];  // already at bits 5-10
  uint8_t tone8[16][256];
  int32_t Ytable[256];
  int32_t CrToR[256];
  int32_t CbToB[256];
  int32_t CrToG[256];
  int32_t CbToG[256];
  uint8_t clampTable[812];        // index v + kClampBias, v from -277 to 534
  uint32_t clamp565[812];         // the same range, grey in R5G6B5
  uint8_t* treeStream = nullptr;  // decoding shifts the tree bytes in place
  const uint8_t* motionStream = nullptr;
  const uint8_t* colourStream = nullptr;  // colour words, or the still image for DecodeImage
  const uint8_t* indexStream = nullptr;
  const uint8_t* fadeStream = nullptr;
  const uint8_t* tableStream = nullptr;  // table-block image, or null on the DXT1 path
  uint32_t* stopWord = nullptr;
  uint32_t stopMask = 0;
  uint32_t ownStopWord = 0;
  uint32_t* stateWord = nullptr;  // bit 1: a frame is under way and stopped
  uint32_t ownStateWord = 0;
  uint32_t resumeRow = 0;  // pixel row of blocks at which a stopped frame goes on

  // Prepares the tables for a movie. Does not touch `io`; forgets (does not free) any block
  // table or scratch: call Release first when the state was used before.
  void Setup(uint32_t sourceWidth, uint32_t sourceHeight, uint32_t depth, uint32_t yuv,
             uint8_t smallMotion);
  // Decodes a P-frame or a tree key frame from `previous` into `current`.
  void DecodeFrame(uint8_t* previous, uint8_t* current);
  // Decodes the still image at `colourStream` into `output`.
  void DecodeImage(uint8_t* output);
  // Frees the block table and the scratch through `io`.
  void Release();
};

// Expands an 8-byte DXT1 block of a still image codebook or a table image to the 48-byte block
// the block table holds: 16 pixels of three bytes (top field, middle field, low field), row by
// row, mixed colours truncated.
void zycExpandTableBlock(const uint8_t block[8], uint8_t out[48]);

// Decodes one DXT1 block (colour word: color0 low, color1 high; index word: pixel 0 in bits
// 0-1) to 16 pixel words, row by row, exactly as the 32-bit routine does; with `tables.yuv`
// non-zero the colours are YUV and are converted through the state's tables.
void zycDecodeDxt1Block(const zycFrameDecoder& tables, uint32_t colourWord, uint32_t indexWord,
                        uint32_t out[16]);

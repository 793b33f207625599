// zylTypes.h: the plain records that cross the codec interface (the progress record, the key
// frame plan, the source summary and the frame picture). They depend on nothing of the library,
// so the encoders use them without reaching up to the interface; a host gets them through
// zylCodec.h, which includes this header (installed beside it as include/zyl/base/zylTypes.h).
#pragma once

#include <cstdint>
#include <cstdlib>

// The progress record, zeroed before the first frame and handed to the callback after every
// frame. Its fields and their order are fixed. With 32-bit pointers it is 64 bytes; on a 64-bit
// build the two pointers are 8 bytes wide and 8-byte aligned, so the record is 80 bytes there.
struct zylProgress {
  uint32_t frameIndex;        // the frame just coded, from 0 within the job
  uint8_t keyFrame;           // non-zero for a key frame
  int32_t size;               // bytes of this frame in the stream
  uint32_t soundSize;         // bytes of sound of this frame, before packing
  int32_t credit;             // the encoder's running balance after the frame
  uint32_t quantizer;         // final error threshold (ZYL1: colour SNR x 100)
  uint32_t opcodeBytes;       // bytes of packed block-tree opcodes
  uint32_t motionBytesCount;  // bytes of motion indices
  uint32_t dxtBlockCount;     // DXT1 blocks (still-image key frame: the compressor's target)
  uint32_t fadeBytesCount;    // bytes of packed fade levels
  uint32_t sourceFrameCount;  // frames of the source, not of the job
  uint32_t width;             // width of the frame image
  uint32_t height;            // height of the frame image
  const uint8_t* pixels;         // source frame, 32-bit pixels (B, G, R, 255), top row first
  const uint8_t* reconstructed;  // what a player shows, 32-bit pixels, `pitch` bytes a row
  uint32_t pitch;                // bytes per row of `reconstructed`
};

// Returns zero to stop the job after the frame just reported.
typedef int32_t (*zylProgressCallback)(zylProgress* progress, uint32_t user);

// One node of the host's key frame plan: positions listed in `frames` force a key frame, a
// position strictly between `first` and `last` forbids one.
struct zylKeyframeRange {
  uint32_t first;
  uint32_t last;
  const uint32_t* frames;
  uint32_t frameCount;
  const zylKeyframeRange* next;
};

// What slot 14 copies out of a source descriptor.
struct zylSourceInfo {
  uint32_t width;
  uint32_t height;
  float frameRate;
  uint32_t frameCount;
  uint32_t audioChannels;
  uint32_t audioSampleRate;
};

// One picture for the encoders: 32-bit pixels (blue, green, red, 255), rows top first, no padding.
struct zylFrameImage {
  uint8_t* pixels = nullptr;
  int32_t width = 0;
  int32_t height = 0;

  zylFrameImage() = default;
  zylFrameImage(const zylFrameImage&) = delete;
  zylFrameImage& operator=(const zylFrameImage&) = delete;
  ~zylFrameImage() { Release(); }
  void Release() {
    std::free(pixels);
    pixels = nullptr;
    width = 0;
    height = 0;
  }
};

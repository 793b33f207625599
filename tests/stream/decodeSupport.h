// A decoder state with its allocator, and the few steps that every decoder test repeats.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <vector>

#include "stream/framePayload.h"
#include "stream/zycDecoder.h"
#include "tests/stream/dxt1Rules.h"
#include "tests/support/movieBuilder.h"

struct TestDecoder {
  myDecoder io;
  std::unique_ptr<zycFrameDecoder> state = std::make_unique<zycFrameDecoder>();

  TestDecoder(uint32_t width, uint32_t height, uint32_t depth = 32, uint32_t yuv = 0,
              uint8_t smallMotion = 1) {
    state->io = &io;
    state->Setup(width, height, depth, yuv, smallMotion);
  }
  ~TestDecoder() { state->Release(); }

  // Splits `frame` and points the streams at it.
  void Point(movieBuilder::Bytes& frame) {
    zycFrameItems items;
    ASSERT_TRUE(zycSplitFrame(frame.data(), frame.size(), &items))
        << zycPayloadErrorText(items.error);
    zycSetFrameStreams(*state, items, frame.data());
  }
  // Decodes `frame` from `previous` into `current`.
  void Frame(movieBuilder::Bytes& frame, void* previous, void* current) {
    Point(frame);
    state->DecodeFrame(static_cast<uint8_t*>(previous), static_cast<uint8_t*>(current));
  }
  void Image(movieBuilder::Bytes& frame, void* output) {
    Point(frame);
    state->DecodeImage(static_cast<uint8_t*>(output));
  }
};

// Index word whose 16 entries are all `index`.
inline uint32_t allIndices(uint32_t index) {
  uint32_t w = 0;
  for (int i = 0; i < 16; ++i) w |= index << (2 * i);
  return w;
}

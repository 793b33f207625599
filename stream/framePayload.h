// Walkers over one frame's bytes: the items of a ZYL0 frame and the streams of a ZYL1 frame
// record. Every position is checked against the given length; nothing outside it is read.
// Bit-exact.
#pragma once

#include <cstddef>
#include <cstdint>

struct zycFrameDecoder;

// What a walker found wrong; zycPayloadErrorText gives the words.
enum class zycPayloadError : uint8_t {
  none = 0,
  lengthCut,        // an item's u32 length does not fit in the bytes left
  bodyCut,          // an item's body runs past the bytes left
  emptyTree,        // the tree item has no flags byte
  flagsBit0Clear,   // the flags byte lacks bit 0
  flagsBit7Set,     // the flags byte has bit 7 set
  imageAndTree,     // a key frame image whose tree item holds more than the flags byte
  colourLengthOdd,  // a colour item whose length is not a multiple of 8
  recordCut,        // a record's first word or fixed fields run past the bytes left
  recordSizeCut,    // the record's size runs past the bytes left
  recordFlagsBad,   // record flags with unknown bits or with only one of bits 1 and 2
  entriesCut,       // the stream entries and their pad run past the record
  streamCut,        // a stream runs past the record
  streamOverlap,    // a stream starts before the previous one ends, or off its alignment
  recordTail,       // bytes stand behind the record's last stream
};

const char* zycPayloadErrorText(zycPayloadError error);

// One item: its body's offset from the frame's first byte and its length. `present` is false
// for an item that the flags byte does not announce.
struct zycFrameItem {
  bool present = false;
  uint32_t offset = 0;
  uint32_t size = 0;
};

// The items of a ZYL0 frame, as found in the order that the flags byte gives.
struct zycFrameItems {
  uint8_t flags = 0;
  zycFrameItem tree;        // flags byte, then 2-bit symbols
  zycFrameItem motion;      // motion indices
  zycFrameItem colour;      // colour words, then index words
  zycFrameItem image;       // still image of a key frame
  zycFrameItem sound;       // the frame's sound chunk
  zycFrameItem fade;        // fade levels, two to a byte
  zycFrameItem table;       // table-block image
  uint32_t frameBytes = 0;  // bytes the frame took, length words included
  zycPayloadError error = zycPayloadError::none;
  uint32_t errorOffset = 0;  // offset from the frame's first byte of the fault
};

// Splits the ZYL0 frame at `frame` (unpacked section bytes from the frame's start, `length`
// of them available) into its items. Returns false with `items->error` set when the bytes do
// not hold a whole frame.
bool zycSplitFrame(const uint8_t* frame, size_t length, zycFrameItems* items);

// Points the decoder's streams at a split frame's items: the tree stream behind the flags
// byte; the motion stream at the motion body; the colour stream at the colour body (or at the
// image, for a key frame image), the index stream at half the colour item; the fade stream at
// the fade body; the table stream at the table-block image, or null without one. `frame` is
// the same bytes that were split; the tree bytes are changed in place by decoding.
void zycSetFrameStreams(zycFrameDecoder& decoder, const zycFrameItems& items, uint8_t* frame);

// One stream of a ZYL1 frame record: offset from the record's first byte, and size.
struct zycRecordStream {
  bool present = false;
  uint32_t offset = 0;
  uint32_t size = 0;
};

struct zycFrameRecord {
  uint8_t recordFlags = 0;
  uint32_t recordBytes = 0;  // the whole record, first word included
  zycRecordStream first;     // image or first plane; absent when its size is 0
  zycRecordStream sound;
  zycRecordStream plane2;
  zycRecordStream plane3;
  zycPayloadError error = zycPayloadError::none;
  uint32_t errorOffset = 0;
};

// Walks the ZYL1 frame record at `data` with `length` bytes available.
bool zycSplitRecord(const uint8_t* data, size_t length, zycFrameRecord* record);

// Bit streams of the still image and table images: values written most significant bit first
// into 32-bit words stored little-endian; a value that crosses a word is split over the two.
// Bit-exact format code.
#pragma once

#include <cstdint>
#include <vector>

#include "base/byteIo.h"

class VqBitWriter {
 public:
  // Appends the low `bits` bits of `value` (0 to 32 bits; 0 writes nothing).
  void put(uint32_t value, uint32_t bits) {
    while (bits > 0) {
      if (free_ == 0) {
        words_.push_back(0);
        free_ = 32;
      }
      const uint32_t take = bits < free_ ? bits : free_;
      const uint32_t chunk = uint32_t((uint64_t(value) >> (bits - take)) & ((uint64_t(1) << take) - 1));
      words_.back() |= chunk << (free_ - take);
      free_ -= take;
      bits -= take;
    }
  }
  // Bytes written so far, padded to a whole word.
  uint32_t byteSize() const { return uint32_t(words_.size() * 4); }
  // Stores the words little-endian at `out` (byteSize() bytes).
  void copyTo(uint8_t* out) const {
    for (size_t i = 0; i < words_.size(); ++i) zycStore32(out + 4 * i, words_[i]);
  }
  uint64_t bitCount() const { return uint64_t(words_.size()) * 32 - free_; }

 private:
  std::vector<uint32_t> words_;
  uint32_t free_ = 0;  // bits left in the last word
};

class VqBitReader {
 public:
  explicit VqBitReader(const uint8_t* data) : data_(data) {}
  // Reads `bits` bits (0 to 32; 0 reads nothing and gives 0).
  uint32_t get(uint32_t bits) {
    uint64_t value = 0;
    while (bits > 0) {
      const uint32_t word = zycLoad32(data_ + (position_ >> 5) * 4);
      const uint32_t used = uint32_t(position_ & 31);
      const uint32_t left = 32 - used;
      const uint32_t take = bits < left ? bits : left;
      const uint32_t chunk = uint32_t((uint64_t(word) << used & 0xFFFFFFFFu) >> (32 - take));
      value = value << take | chunk;
      position_ += take;
      bits -= take;
    }
    return uint32_t(value);
  }
  uint64_t position() const { return position_; }

 private:
  const uint8_t* data_;
  uint64_t position_ = 0;
};

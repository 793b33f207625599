// Little-endian loads and stores on byte buffers. Everything on disk is little-endian.
#pragma once

#include <cstdint>
#include <cstring>

inline uint16_t zycLoad16(const void* p) {
  const uint8_t* b = static_cast<const uint8_t*>(p);
  return uint16_t(b[0] | b[1] << 8);
}
inline uint32_t zycLoad32(const void* p) {
  const uint8_t* b = static_cast<const uint8_t*>(p);
  return uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
}
inline uint64_t zycLoad64(const void* p) {
  return uint64_t(zycLoad32(p)) | uint64_t(zycLoad32(static_cast<const uint8_t*>(p) + 4)) << 32;
}
inline void zycStore16(void* p, uint16_t v) {
  uint8_t* b = static_cast<uint8_t*>(p);
  b[0] = uint8_t(v);
  b[1] = uint8_t(v >> 8);
}
inline void zycStore32(void* p, uint32_t v) {
  uint8_t* b = static_cast<uint8_t*>(p);
  b[0] = uint8_t(v);
  b[1] = uint8_t(v >> 8);
  b[2] = uint8_t(v >> 16);
  b[3] = uint8_t(v >> 24);
}
inline void zycStore64(void* p, uint64_t v) {
  zycStore32(p, uint32_t(v));
  zycStore32(static_cast<uint8_t*>(p) + 4, uint32_t(v >> 32));
}

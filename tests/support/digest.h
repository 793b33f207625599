// A 32-bit FNV-1a digest, for tests that pin bytes whose exact values matter (movies, streams,
// blocks) or compare pictures by digest. Chain calls by passing the last result as `digest`.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

constexpr uint32_t kZylDigestStart = 2166136261u;

inline uint32_t zylDigest(const uint8_t* bytes, size_t size, uint32_t digest = kZylDigestStart) {
  for (size_t i = 0; i < size; ++i) digest = (digest ^ bytes[i]) * 16777619u;
  return digest;
}

inline uint32_t zylDigest(const std::vector<uint8_t>& bytes, uint32_t digest = kZylDigestStart) {
  return zylDigest(bytes.data(), bytes.size(), digest);
}

// Fuzz target: the ZYL1 plane stream reader on any bytes. The first byte gives the plane's width
// (4 to 64), the second its height, the third seeds the reference; the rest is the stream.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "stream/planeReader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  static zycPlaneReader* reader = [] {
    auto* r = new zycPlaneReader;
    r->Setup(64, 64);
    return r;
  }();
  const uint32_t width = 4 * (1 + data[0] % 16), height = 4 * (1 + data[1] % 16);
  std::vector<uint8_t> plane(width * height);
  for (size_t i = 0; i < plane.size(); ++i)
    plane[i] = static_cast<uint8_t>(data[2] + i * 37 + (i / width) * 11);
  // The stream in a buffer of its own, so that any read past its end is seen.
  std::vector<uint8_t> stream(data + 3, data + size);
  reader->Decode(stream.data(), static_cast<uint32_t>(stream.size()), width, height, plane.data());
  return 0;
}

// Fuzz target: the quad-tree key-frame reader on any bytes. The first two bytes give the
// picture's size (1 to 256 pixels a side), the rest is the image. The picture is decoded into
// a buffer of exactly its size, so that any write past it is seen.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "stream/quadTreeReader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const uint32_t width = 1u + data[0], height = 1u + data[1];
  zycQuadTreeReader reader;
  if (!reader.Setup(width, height)) return 0;
  std::vector<uint8_t> pixels(size_t(width) * height * 4);
  const std::vector<uint8_t> image(data + 2, data + size);  // exactly the image's bytes
  reader.Decode(image.data(), uint32_t(image.size()), width, height, pixels.data(), width * 4);
  reader.Release();
  return 0;
}

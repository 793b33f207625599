// Fuzz target: the safe reader's whole road on any bytes: walk, unpack, check and decode every
// frame, then once more with the tree view. Picture sizes are capped to keep memory sane.
#include <cstddef>
#include <cstdint>

#include "stream/safeReader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zycSafeReaderLimits limits;
  limits.maxWidth = 512;
  limits.maxHeight = 512;
  limits.maxPixels = 320 * 256;  // the encoder movie of the corpus is 320 x 240
  limits.maxUnpackedBytes = 4u << 20;
  limits.maxTableBytes = 1u << 18;
  zycSafeReader reader;
  reader.SetLimits(limits);
  reader.OpenMemory(data, size, "fuzz.zyl");
  reader.CheckAll();
  reader.SetTreeView(true);
  reader.Rewind();
  while (reader.NextFrame() != zycSafeStatus::end) {
  }
  return 0;
}

// Fuzz target: the container walk of any bytes, through the memory walker, the file walker,
// the frame record splitter and the safe reader's walk with its unpacking (no decoding).
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "stream/container.h"
#include "stream/framePayload.h"
#include "stream/safeReader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  zycSectionWalker walker;
  if (walker.Open(data, size)) {
    zycSectionEntry entry;
    while (walker.Next(&entry)) {
      if (walker.header().magic != kMagicZyl1) continue;
      // Every record of the section, as far as they split.
      size_t pos = entry.offset + kSectionHeaderSizeZyl1;
      const size_t end = pos + entry.header.size;
      zycFrameRecord record;
      while (pos < end && zycSplitRecord(data + pos, end - pos, &record)) pos += record.recordBytes;
    }
  }

  if (size > 0) {
    FILE* file = fmemopen(const_cast<uint8_t*>(data), size, "rb");
    if (file) {
      zycFileSectionWalker fileWalker;
      zycSectionEntry entry;
      if (fileWalker.Open(file))
        while (fileWalker.Next(&entry)) {
        }
      std::fclose(file);
    }
  }

  zycSafeReaderLimits limits;
  limits.maxWidth = 1024;
  limits.maxHeight = 1024;
  limits.maxPixels = 256 * 256;
  limits.maxUnpackedBytes = 8u << 20;
  limits.maxTableBytes = 1u << 20;
  zycSafeReader reader;
  reader.SetLimits(limits);
  reader.OpenMemory(data, size, "fuzz.zyl");
  return 0;
}

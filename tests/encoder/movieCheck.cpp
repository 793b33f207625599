#include "tests/encoder/movieCheck.h"

#include <zlib.h>

#include <fstream>
#include <iterator>
#include <memory>

#include "base/byteIo.h"
#include "lzmaLib.h"
#include "stream/container.h"
#include "stream/framePayload.h"
#include "stream/zycDecoder.h"

std::vector<uint8_t> zycReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

namespace {

// A section's raw deflate stream, which a sync flush ends without a final block.
bool Inflate(const uint8_t* data, size_t size, std::vector<uint8_t>* out, std::string* error) {
  z_stream z{};
  inflateInit2(&z, -15);
  z.next_in = const_cast<Bytef*>(data);
  z.avail_in = uInt(size);
  uint8_t buffer[65536];
  int r = Z_OK;
  do {
    z.next_out = buffer;
    z.avail_out = sizeof buffer;
    r = inflate(&z, Z_NO_FLUSH);
    out->insert(out->end(), buffer, buffer + (sizeof buffer - z.avail_out));
  } while (r == Z_OK && (z.avail_in != 0 || z.avail_out == 0));
  inflateEnd(&z);
  if (r == Z_OK || r == Z_BUF_ERROR) return true;
  *error = r == Z_STREAM_END ? "a deflate section has a final block"
                             : "inflate failed: " + std::to_string(r);
  return false;
}

}  // namespace

bool zycCheckMovie(const std::vector<uint8_t>& bytes, zycMovieCheck* check) {
  auto fail = [check](const std::string& why) {
    check->error = why;
    return false;
  };
  zycSectionWalker walker;
  if (!walker.Open(bytes.data(), bytes.size())) return fail(walker.error());
  check->header = walker.header();
  const zycStreamHeader& h = check->header;
  if (h.magic != kMagicZyl0) return fail("not ZYL0");
  if (h.fileSize != bytes.size()) {
    return fail("fileSize " + std::to_string(h.fileSize) + " but the file holds " +
                std::to_string(bytes.size()));
  }
  const uint8_t packing = zycPacking(h);

  auto decoder = std::make_unique<zycFrameDecoder>();
  myDecoder io;
  decoder->Setup(h.width, h.height, 32, (h.flags & kHeaderFlagYuv) ? 1 : 0,
                 (h.flags & kHeaderFlagWideMotion) ? 0 : 1);
  decoder->io = &io;
  if (check->kernels >= 0) decoder->kernels = uint8_t(check->kernels);
  const size_t pictureBytes = size_t((h.width + 15) & ~15u) * ((h.height + 15) & ~15u) * 4;
  std::vector<uint8_t> previous(pictureBytes, 255), current(pictureBytes, 255);

  zycSectionEntry entry;
  while (walker.Next(&entry)) {
    const uint8_t* data = bytes.data() + entry.offset + kSectionHeaderSizeZyl0;
    const size_t size = entry.header.size;
    std::vector<uint8_t> section;
    if (packing == kPackingDeflate) {
      if (!Inflate(data, size, &section, &check->error)) return false;
    } else {
      if (size < 13) return fail("LZMA section shorter than its 13-byte head");
      const uint64_t unpackedSize = zycLoad64(data + 5);
      section.resize(size_t(unpackedSize));
      size_t destLen = section.size();
      size_t srcLen = size - 13;
      int r = LzmaUncompress(section.data(), &destLen, data + 13, &srcLen, data, 5);
      if (r != 0 || destLen != unpackedSize) {
        return fail("LZMA unpacking failed: " + std::to_string(r));
      }
    }
    check->sectionFrames.push_back(entry.header.frames);
    size_t at = 0;
    for (uint32_t f = 0; f < entry.header.frames; ++f) {
      zycFrameItems items;
      if (!zycSplitFrame(section.data() + at, section.size() - at, &items)) {
        return fail(std::string("frame split: ") + zycPayloadErrorText(items.error));
      }
      std::vector<uint8_t> frame(section.begin() + long(at),
                                 section.begin() + long(at + items.frameBytes));
      check->frames.push_back(frame);
      check->frameFlags.push_back(items.flags);
      std::vector<uint8_t> work = frame;
      work.resize(work.size() + 16, 0);
      zycSetFrameStreams(*decoder, items, work.data());
      uint32_t stop = 0, state = 0;
      decoder->stopWord = &stop;
      decoder->stateWord = &state;
      decoder->stopMask = 0;
      if (items.image.present) {
        decoder->DecodeImage(previous.data());
      } else {
        decoder->DecodeFrame(previous.data(), current.data());
        std::swap(previous, current);
      }
      if (items.fade.size) ++check->fadeFrames;
      if (check->keepPictures) check->pictures.push_back(previous);
      decoder->stopWord = &decoder->ownStopWord;
      decoder->stateWord = &decoder->ownStateWord;
      at += items.frameBytes;
    }
    if (at != section.size()) {
      return fail("section holds " + std::to_string(section.size() - at) + " bytes more");
    }
    check->unpacked.push_back(std::move(section));
  }
  decoder->Release();
  if (!walker.error().empty()) return fail(walker.error());
  if (check->frames.size() != h.frameCount) {
    return fail("frameCount " + std::to_string(h.frameCount) + " but " +
                std::to_string(check->frames.size()) + " frames found");
  }
  check->lastPicture = std::move(previous);
  return true;
}

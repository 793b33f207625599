// zyl repair: a movie that a killed job or a full disk left short is cut, in place, to its last
// whole frame, and its header brought up to date.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "base/byteIo.h"
#include "host/tool/commands.h"
#include "host/tool/toolCommon.h"
#include "stream/container.h"
#include "stream/safeReader.h"

namespace {

const char kUsage[] =
    "usage: zyl repair FILE\n"
    "\n"
    "Cuts a movie that a killed encode or a full disk left short to its last whole frame, in\n"
    "place, and brings its headers up to date: the longest start of the movie in which every\n"
    "frame checks out is kept, and the bytes behind it go. A section packed with LZMA is one\n"
    "stream and is kept whole or not at all. A movie that is whole is left as it is.\n";

// A place where the movie could end: behind a whole section, or inside the section the file
// cut short, behind its last whole frame (that section's header is then patched too).
struct Cut {
  uint64_t end;
  uint32_t frames;  // in the whole movie
  bool inside;      // the end lies inside the section at `sectionAt`
  uint64_t sectionAt;
  zycSectionHeader section;  // its header with the frames and bytes kept
};

// Every section boundary the bytes reach, from the first section on, as far as each section's
// header and data lie inside the file, and then every frame end inside the section that runs
// past the end. The header's counts are not trusted: a job can be stopped between writing a
// frame and patching them. Longest first.
std::vector<Cut> Cuts(const std::vector<uint8_t>& bytes, const zycStreamHeader& header) {
  const bool zyl1 = header.magic == kMagicZyl1;
  const uint64_t sectionBytes = zycSectionHeaderSize(header.magic);
  std::vector<Cut> cuts;
  uint64_t position = zycHeaderSize(header.magic);
  uint64_t frames = 0;
  while (position + sectionBytes <= bytes.size()) {
    const zycSectionHeader section =
        zyl1 ? zycLoadSectionZyl1(&bytes[position]) : zycLoadSectionZyl0(&bytes[position]);
    if (section.frames == 0 || frames + section.frames > 0xFFFFFFFFu) break;
    const uint64_t end = position + sectionBytes + section.size;
    if (end > bytes.size()) {
      const uint64_t data = position + sectionBytes;
      for (const zycSectionPrefix& prefix :
           zycWholeFramePrefixes(header, &bytes[data], bytes.size() - data, uint64_t(1) << 30)) {
        if (prefix.frames >= section.frames) break;
        Cut cut{data + prefix.bytes, uint32_t(frames + prefix.frames), true, position, section};
        cut.section.frames = prefix.frames;
        cut.section.size = prefix.bytes;
        cuts.push_back(cut);
      }
      break;
    }
    frames += section.frames;
    position = end;
    cuts.push_back({end, uint32_t(frames), false, 0, section});
  }
  std::sort(cuts.begin(), cuts.end(), [](const Cut& a, const Cut& b) { return a.end > b.end; });
  return cuts;
}

// The bytes a cut changes before its end: the header's size and frame count, and the header of
// a section cut inside.
struct Patch {
  uint64_t at;
  std::vector<uint8_t> bytes;
};
std::vector<Patch> Patches(const Cut& cut, bool zyl1) {
  std::vector<Patch> patches;
  uint8_t word[4];
  zycStore32(word, uint32_t(cut.end));
  const uint32_t fileSizeAt = zyl1 ? kFileSizeAtZyl1 : kFileSizeAtZyl0;
  patches.push_back({fileSizeAt, std::vector<uint8_t>(word, word + 4)});
  zycStore32(word, cut.frames);
  patches.push_back({kFrameCountAt, std::vector<uint8_t>(word, word + 4)});
  if (cut.inside) {
    uint8_t section[kSectionHeaderSizeZyl1];
    if (zyl1) {
      zycStoreSectionZyl1(cut.section, section);
    } else {
      zycStoreSectionZyl0(cut.section, section);
    }
    const uint32_t sectionBytes = zyl1 ? kSectionHeaderSizeZyl1 : kSectionHeaderSizeZyl0;
    patches.push_back({cut.sectionAt, std::vector<uint8_t>(section, section + sectionBytes)});
  }
  return patches;
}

// The movie cut at `cut`, patched to match.
std::vector<uint8_t> CutMovie(const std::vector<uint8_t>& bytes, bool zyl1, const Cut& cut) {
  std::vector<uint8_t> movie(bytes.begin(), bytes.begin() + long(cut.end));
  for (const Patch& patch : Patches(cut, zyl1))
    std::copy(patch.bytes.begin(), patch.bytes.end(), movie.begin() + long(patch.at));
  return movie;
}

bool Whole(const std::vector<uint8_t>& movie, const std::string& path) {
  zycSafeReader reader;
  return reader.OpenMemory(movie.data(), movie.size(), path) && reader.notes().empty() &&
         reader.CheckAll().empty();
}

bool WriteAt(int fd, const uint8_t* bytes, size_t count, off_t at) {
  return pwrite(fd, bytes, count, at) == ssize_t(count);
}

}  // namespace

int RunRepair(const CommandArgs& words) {
  Arguments args(words);
  if (args.Flag("--help") || args.Flag("-h")) {
    std::fputs(kUsage, ToolOut());
    return kExitOk;
  }
  if (!args.Unknown().empty()) {
    return Fail(kExitUsage, "unknown option %s (see zyl repair --help)", args.Unknown().c_str());
  }
  const std::vector<std::string> files = args.Plain();
  if (files.size() != 1) return Fail(kExitUsage, "repair takes one FILE (see zyl repair --help)");
  const std::string& path = files[0];

  std::vector<uint8_t> bytes;
  FILE* in = std::fopen(path.c_str(), "rb");
  if (!in) return Fail(kExitInput, "%s: can't open (%s)", path.c_str(), std::strerror(errno));
  uint8_t buffer[65536];
  for (size_t got; (got = std::fread(buffer, 1, sizeof buffer, in)) > 0;)
    bytes.insert(bytes.end(), buffer, buffer + got);
  const bool readFailed = std::ferror(in);
  const int readReason = errno;
  std::fclose(in);
  if (readFailed) {
    return Fail(kExitInput, "%s: can't read (%s)", path.c_str(), std::strerror(readReason));
  }

  zycStreamHeader header;
  std::string why;
  if (!zycParseHeader(bytes.data(), bytes.size(), &header, &why)) {
    return Fail(kExitInput, "%s: %s; nothing was changed", path.c_str(), why.c_str());
  }
  if (Whole(bytes, path)) {
    Note("%s is whole (%u frames); nothing was changed", path.c_str(), header.frameCount);
    return kExitOk;
  }

  // The longest cut at which every frame checks out.
  const bool zyl1 = header.magic == kMagicZyl1;
  const std::vector<Cut> cuts = Cuts(bytes, header);
  const Cut* chosen = nullptr;
  for (size_t i = 0; i < cuts.size() && !chosen; ++i) {
    if (Whole(CutMovie(bytes, zyl1, cuts[i]), path)) chosen = &cuts[i];
  }
  if (!chosen) {
    return Fail(kExitInput, "%s holds no whole frame to keep; nothing was changed", path.c_str());
  }

  // The headers first, then the cut: stopped in between, the file is a whole movie with bytes
  // behind its end, which a second repair removes.
  const int fd = open(path.c_str(), O_WRONLY);
  if (fd < 0)
    return Fail(kExitOutput, "%s: can't open for writing (%s)", path.c_str(), std::strerror(errno));
  bool ok = true;
  for (const Patch& patch : Patches(*chosen, zyl1))
    ok = ok && WriteAt(fd, patch.bytes.data(), patch.bytes.size(), off_t(patch.at));
  ok = ok && fsync(fd) == 0 && ftruncate(fd, off_t(chosen->end)) == 0;
  int reason = ok ? 0 : errno;
  if (close(fd) != 0 && reason == 0) reason = errno;
  if (reason != 0) {
    return Fail(kExitOutput, "%s: can't write (%s)", path.c_str(), std::strerror(reason));
  }
  Note("repaired %s: %u whole frame%s kept, %llu bytes cut (the header said %u frame%s)",
       path.c_str(), chosen->frames, chosen->frames == 1 ? "" : "s",
       (unsigned long long)(bytes.size() - chosen->end), header.frameCount,
       header.frameCount == 1 ? "" : "s");
  return kExitOk;
}

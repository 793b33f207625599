// zyl append and zyl replace: file surgery on finished movies through the codec, after both
// files passed the checked reader.
#include <cerrno>
#include <cstring>
#include <string>

#include "codec/zylCodec.h"
#include "host/tool/commands.h"
#include "host/tool/toolCommon.h"
#include "stream/container.h"
#include "stream/safeReader.h"

namespace {

const char kAppendUsage[] =
    "usage: zyl append A.zyl B.zyl [--verbose]\n"
    "\n"
    "Appends movie B behind movie A, in place. Both must be ZYL0 movies of the same picture\n"
    "size, frame rate, sound, packing and flags, and A's version must not be below B's.\n"
    "Both files are checked first; a damaged file is refused and nothing changes.\n"
    "\n"
    "A refusal names the first field that differs, as \"frame rate differs: 30 fps against\n"
    "25 fps\", with exit status 5. --verbose shows the codec's messages on stderr.\n";

const char kReplaceUsage[] =
    "usage: zyl replace FILE.zyl REPLACEMENT.zyl --start N [--count M] [--verbose]\n"
    "\n"
    "Replaces frames N to N+M-1 of FILE by the frames of REPLACEMENT, which must hold exactly\n"
    "M frames (M defaults to its frame count). Frame N must start a section of FILE (a key\n"
    "frame), and so must frame N+M unless it is the end. Both files are checked first; a\n"
    "damaged file is refused and nothing changes. FILE is rewritten through FILEtmp.zyl, which\n"
    "must not exist, and the finished file takes FILE's place in one rename.\n"
    "\n"
    "Movies that differ in a field they must share are refused with exit status 5, naming\n"
    "the field; a range that is not key-frame aligned or runs past the end, with 6.\n"
    "--verbose shows the codec's messages on stderr.\n";

// Opens and fully checks a movie. False after reporting why.
bool CheckMovie(zycSafeReader* reader, const std::string& path, bool decodeFrames) {
  std::string reason;
  if (!LooksLikeMovie(path, &reason)) {
    Fail(kExitInput, "%s; nothing was changed", reason.c_str());
    return false;
  }
  if (!reader->Open(path)) {
    Fail(kExitInput, "%s; nothing was changed", reader->error().c_str());
    return false;
  }
  // Surgery copies whole files by their headers: bytes an interrupted job left behind the end
  // would land inside the result.
  if (!reader->notes().empty()) {
    Fail(kExitInput,
         "%s; `zyl repair %s` cuts the movie to its last whole frame; nothing was changed",
         reader->notes().front().c_str(), path.c_str());
    return false;
  }
  if (decodeFrames) {
    const std::vector<std::string> problems = reader->CheckAll();
    if (!problems.empty()) {
      Fail(kExitInput, "%s is damaged: %s; nothing was changed", path.c_str(),
           problems.front().c_str());
      return false;
    }
  }
  return true;
}

std::string Fps(const zycStreamHeader& h) {
  if (h.frameDuration == 0) return "no frame rate";
  char text[32];
  std::snprintf(text, sizeof(text), "%.3f", double(h.timeScale) / h.frameDuration);
  std::string rate = text;
  while (rate.back() == '0') rate.pop_back();
  if (rate.back() == '.') rate.pop_back();
  return rate + " fps";
}

std::string Sound(const zycStreamHeader& h) {
  if (h.soundRate == 0 || h.soundChannels == 0) return "none";
  return Count(h.soundChannels, "channel", "channels") + " at " + std::to_string(h.soundRate) +
         " Hz";
}

// The first field in which movie `b` can't join movie `a`, as "frame rate differs: 30 fps
// against 25 fps"; empty when they fit. The fields are those the codec compares, and the
// picture size.
std::string FirstDifference(const zycStreamHeader& a, const zycStreamHeader& b, bool zyl1,
                            bool chunkLimit) {
  auto differs = [](const char* field, const std::string& x, const std::string& y) {
    return std::string(field) + " differs: " + x + " against " + y;
  };
  auto number = [](uint32_t value) { return std::to_string(value); };
  if (a.width != b.width || a.height != b.height) {
    return differs("picture size", number(a.width) + "x" + number(a.height),
                   number(b.width) + "x" + number(b.height));
  }
  if (a.frameDuration != b.frameDuration || a.timeScale != b.timeScale) {
    return differs("frame rate", Fps(a), Fps(b));
  }
  if (a.soundChannels != b.soundChannels || a.soundRate != b.soundRate) {
    return differs("sound", Sound(a), Sound(b));
  }
  if (a.version < b.version) {
    return "version differs: " + number(a.version) + " against " + number(b.version) +
           " (the first movie's may not be lower)";
  }
  if (!zyl1) {
    if (zycPacking(a) != zycPacking(b)) {
      return differs("packing", zycPacking(a) == kPackingLzma ? "lzma" : "deflate",
                     zycPacking(b) == kPackingLzma ? "lzma" : "deflate");
    }
    if (a.tail[0] != b.tail[0]) {
      return differs("header byte 56", number(a.tail[0]), number(b.tail[0]));
    }
    if (a.flags != b.flags) {
      char x[16], y[16];
      std::snprintf(x, sizeof(x), "0x%x", a.flags);
      std::snprintf(y, sizeof(y), "0x%x", b.flags);
      return differs("flags", x, y);
    }
    if (a.reserved52 != b.reserved52) {
      return differs("header word reserved52", number(a.reserved52), number(b.reserved52));
    }
  } else if (a.headerSize < b.headerSize) {
    return "header size differs: " + number(a.headerSize) + " against " + number(b.headerSize) +
           " (the first movie's may not be smaller)";
  }
  if (a.reserved36 != b.reserved36) {
    return differs("header word reserved36", number(a.reserved36), number(b.reserved36));
  }
  if ((chunkLimit || zyl1) && a.soundChunkLimit != b.soundChunkLimit) {
    return differs("sound chunk limit", number(a.soundChunkLimit), number(b.soundChunkLimit));
  }
  return "";
}

// `reason` is errno as the codec left it: the system's reason when a file could not be opened
// or written. `console`: what the codec printed, whose last line names a refused range.
int SurgeryStatus(int32_t status, int reason, const std::string& file1, const std::string& file2,
                  const std::string& console) {
  if (status == 3 && reason != 0) {
    return Fail(kExitOutput, "%s: can't write (%s); %s and %s were not changed", file1.c_str(),
                std::strerror(reason), file1.c_str(), file2.c_str());
  }
  if (status == 2 && reason == EEXIST) {
    return Fail(kExitOutput,
                "%stmp.zyl exists: replace writes through that name and leaves another file "
                "of it alone; nothing was changed",
                file1.substr(0, file1.size() - 4).c_str());
  }
  switch (status) {
    case 0:
      return kExitOk;
    case 2:
      return Fail(kExitInput, "%s or %s could not be opened, or %s has the wrong format",
                  file1.c_str(), file2.c_str(), file2.c_str());
    case 3:
      return Fail(kExitOutput, "%s could not be opened for writing, or is not a ZYL0 movie",
                  file1.c_str());
    case 4:
      return Fail(kExitRange, "the frame range was refused: %s",
                  LastConsoleLine(console).c_str());
    case 5:
      return Fail(kExitMismatch,
                  "%s and %s don't match (packing, version, flags, frame rate or sound)",
                  file1.c_str(), file2.c_str());
    case 7:
      return Fail(kExitInput, "%s has the wrong magic", file1.c_str());
    default:
      return Fail(kExitOutput, "the codec answered status %d", status);
  }
}

}  // namespace

int RunAppend(const CommandArgs& words) {
  Arguments args(words);
  if (args.Flag("--help") || args.Flag("-h")) {
    std::fputs(kAppendUsage, ToolOut());
    return kExitOk;
  }
  const bool verbose = args.Flag("--verbose");
  if (!args.Unknown().empty()) {
    return Fail(kExitUsage, "unknown option %s (see zyl append --help)", args.Unknown().c_str());
  }
  const std::vector<std::string> files = args.Plain();
  if (files.size() != 2) return Fail(kExitUsage, "append takes A and B (see zyl append --help)");
  const std::string& first = files[0];
  const std::string& second = files[1];

  zycSafeReader a, b;
  if (!CheckMovie(&a, first, true) || !CheckMovie(&b, second, true)) return kExitInput;
  if (a.isZyl1() || b.isZyl1()) {
    return Fail(kExitMismatch, "append joins ZYL0 movies only; %s is ZYL1; nothing was changed",
                a.isZyl1() ? first.c_str() : second.c_str());
  }
  const std::string difference = FirstDifference(a.header(), b.header(), false, false);
  if (!difference.empty()) {
    return Fail(kExitMismatch, "%s (%s against %s); nothing was changed", difference.c_str(),
                first.c_str(), second.c_str());
  }
  const uint32_t before = a.header().frameCount;

  zylCodec* codec = zylInitCodec(nullptr, 0);
  if (!codec) return Fail(kExitOutput, "out of memory making the codec");
  int32_t status;
  int reason;
  std::string console;
  {
    QuietConsole quiet(verbose);
    errno = 0;
    status = codec->Append(Utf16(first).c_str(), Utf16(second).c_str());
    reason = errno;
    console = quiet.Stop();
  }
  codec->Destroy();
  if (status != 0) return SurgeryStatus(status, reason, first, second, console);
  Note("appended %s (%s) to %s: now %s", second.c_str(),
       Count(b.header().frameCount, "frame", "frames").c_str(), first.c_str(),
       Count(before + b.header().frameCount, "frame", "frames").c_str());
  return kExitOk;
}

int RunReplace(const CommandArgs& words) {
  Arguments args(words);
  if (args.Flag("--help") || args.Flag("-h")) {
    std::fputs(kReplaceUsage, ToolOut());
    return kExitOk;
  }
  const bool verbose = args.Flag("--verbose");
  bool startGiven = false, countGiven = false;
  const std::string startText = args.Value("--start", &startGiven);
  const std::string countText = args.Value("--count", &countGiven);
  if (!args.missingValue().empty()) {
    return Fail(kExitUsage, "%s needs a value (see zyl replace --help)",
                args.missingValue().c_str());
  }
  if (!args.Unknown().empty()) {
    return Fail(kExitUsage, "unknown option %s (see zyl replace --help)",
                args.Unknown().c_str());
  }
  const std::vector<std::string> files = args.Plain();
  if (files.size() != 2) {
    return Fail(kExitUsage, "replace takes FILE and REPLACEMENT (see zyl replace --help)");
  }
  const std::string& target = files[0];
  const std::string& replacement = files[1];
  uint32_t start = 0, count = 0;
  if (!startGiven) return Fail(kExitUsage, "replace needs --start N");
  if (!ParseCount(startText, &start)) {
    return Fail(kExitUsage, "--start wants a frame number, not '%s'", startText.c_str());
  }
  if (countGiven && (!ParseCount(countText, &count) || count == 0)) {
    return Fail(kExitUsage, "--count wants a number of frames above 0, not '%s'",
                countText.c_str());
  }
  if (target.size() < 5 || target.compare(target.size() - 4, 4, ".zyl") != 0) {
    return Fail(kExitUsage, "%s: replace works on names ending in .zyl", target.c_str());
  }

  zycSafeReader a, b;
  if (!CheckMovie(&a, target, true) || !CheckMovie(&b, replacement, true)) return kExitInput;
  if (a.isZyl1() != b.isZyl1()) {
    return Fail(kExitMismatch, "format differs: %s against %s (%s against %s); nothing was changed",
                a.isZyl1() ? "ZYL1" : "ZYL0", b.isZyl1() ? "ZYL1" : "ZYL0", target.c_str(),
                replacement.c_str());
  }
  const std::string difference = FirstDifference(a.header(), b.header(), a.isZyl1(), true);
  if (!difference.empty()) {
    return Fail(kExitMismatch, "%s (%s against %s); nothing was changed", difference.c_str(),
                target.c_str(), replacement.c_str());
  }
  const uint32_t frames = a.header().frameCount;
  if (!countGiven) count = b.header().frameCount;
  if (count != b.header().frameCount) {
    return Fail(kExitRange, "--count %u but %s holds %s; nothing was changed", count,
                replacement.c_str(), Count(b.header().frameCount, "frame", "frames").c_str());
  }
  if (uint64_t(start) + count > frames) {
    return Fail(kExitRange, "frames %u to %u are beyond the end of %s (%s)", start,
                start + count - 1, target.c_str(), Count(frames, "frame", "frames").c_str());
  }
  auto startsSection = [&](uint32_t frame) {
    if (frame == frames) return true;
    for (const zycSafeSection& section : a.sections()) {
      if (section.firstFrame == frame) return true;
    }
    return false;
  };
  if (!startsSection(start)) {
    return Fail(kExitRange, "frame %u of %s is not a key frame; nothing was changed", start,
                target.c_str());
  }
  if (!startsSection(start + count)) {
    return Fail(kExitRange, "frame %u of %s (behind the range) is not a key frame; nothing was "
                "changed", start + count, target.c_str());
  }

  zylCodec* codec = zylInitCodec(nullptr, 0);
  if (!codec) return Fail(kExitOutput, "out of memory making the codec");
  codec->SetCodecMode(a.isZyl1() ? 1 : 0);
  int32_t status;
  int reason;
  std::string console;
  {
    QuietConsole quiet(verbose);
    errno = 0;
    status = codec->ReplaceSection(Utf16(target).c_str(), Utf16(replacement).c_str(), start,
                                   count);
    reason = errno;
    console = quiet.Stop();
  }
  codec->Destroy();
  if (status != 0) return SurgeryStatus(status, reason, target, replacement, console);
  Note("replaced frames %u to %u of %s by %s", start, start + count - 1, target.c_str(),
       replacement.c_str());
  return kExitOk;
}

// zyl append and zyl replace: file surgery on finished movies through the codec, after both
// files passed the checked reader.
#include <cerrno>
#include <cstring>
#include <string>

#include "codec/zylCodec.h"
#include "host/tool/commands.h"
#include "host/tool/toolCommon.h"
#include "stream/safeReader.h"

namespace {

const char kAppendUsage[] =
    "usage: zyl append A.zyl B.zyl [--verbose]\n"
    "\n"
    "Appends movie B behind movie A, in place. Both must be ZYL0 movies of the same picture\n"
    "size, frame rate, sound, packing and flags, and A's version must not be below B's.\n"
    "Both files are checked first; a damaged file is refused and nothing changes.\n";

const char kReplaceUsage[] =
    "usage: zyl replace FILE.zyl REPLACEMENT.zyl --start N [--count M] [--verbose]\n"
    "\n"
    "Replaces frames N to N+M-1 of FILE by the frames of REPLACEMENT, which must hold exactly\n"
    "M frames (M defaults to its frame count). Frame N must start a section of FILE (a key\n"
    "frame), and so must frame N+M unless it is the end. Both files are checked first; a\n"
    "damaged file is refused and nothing changes. FILE is rewritten through FILEtmp.zyl, which\n"
    "must not exist, and the finished file takes FILE's place in one rename.\n";

// Opens and fully checks a movie. False after reporting why.
bool CheckMovie(zycSafeReader* reader, const std::string& path, bool decodeFrames) {
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

// `reason` is errno as the codec left it: the system's reason when a file could not be opened
// or written.
int SurgeryStatus(int32_t status, int reason, const std::string& file1, const std::string& file2) {
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
      return Fail(kExitUsage, "the frame range was refused (--verbose shows the reason)");
    case 5:
      return Fail(kExitInput,
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
    return Fail(kExitUsage, "append joins ZYL0 movies only; %s is ZYL1; nothing was changed",
                a.isZyl1() ? first.c_str() : second.c_str());
  }
  if (a.header().width != b.header().width || a.header().height != b.header().height) {
    return Fail(kExitUsage,
                "%s is %ux%u and %s is %ux%u: append needs the same picture size; nothing was "
                "changed",
                first.c_str(), a.header().width, a.header().height, second.c_str(),
                b.header().width, b.header().height);
  }
  const uint32_t before = a.header().frameCount;

  zylCodec* codec = zylInitCodec(nullptr, 0);
  if (!codec) return Fail(kExitOutput, "out of memory making the codec");
  int32_t status;
  int reason;
  {
    QuietConsole quiet(verbose);
    status = codec->Append(Utf16(first).c_str(), Utf16(second).c_str());
    reason = errno;
  }
  codec->Destroy();
  if (status != 0) return SurgeryStatus(status, reason, first, second);
  Note("appended %s (%u frames) to %s: now %u frames", second.c_str(), b.header().frameCount,
       first.c_str(), before + b.header().frameCount);
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
    return Fail(kExitUsage, "%s is %s and %s is %s; nothing was changed", target.c_str(),
                a.isZyl1() ? "ZYL1" : "ZYL0", replacement.c_str(), b.isZyl1() ? "ZYL1" : "ZYL0");
  }
  const uint32_t frames = a.header().frameCount;
  if (!countGiven) count = b.header().frameCount;
  if (count != b.header().frameCount) {
    return Fail(kExitUsage, "--count %u but %s holds %u frames; nothing was changed", count,
                replacement.c_str(), b.header().frameCount);
  }
  if (uint64_t(start) + count > frames) {
    return Fail(kExitUsage, "frames %u to %u are beyond the end of %s (%u frames)", start,
                start + count - 1, target.c_str(), frames);
  }
  auto startsSection = [&](uint32_t frame) {
    if (frame == frames) return true;
    for (const zycSafeSection& section : a.sections()) {
      if (section.firstFrame == frame) return true;
    }
    return false;
  };
  if (!startsSection(start)) {
    return Fail(kExitUsage, "frame %u of %s is not a key frame; nothing was changed", start,
                target.c_str());
  }
  if (!startsSection(start + count)) {
    return Fail(kExitUsage, "frame %u of %s (behind the range) is not a key frame; nothing was "
                "changed", start + count, target.c_str());
  }

  zylCodec* codec = zylInitCodec(nullptr, 0);
  if (!codec) return Fail(kExitOutput, "out of memory making the codec");
  codec->SetCodecMode(a.isZyl1() ? 1 : 0);
  int32_t status;
  int reason;
  {
    QuietConsole quiet(verbose);
    status = codec->ReplaceSection(Utf16(target).c_str(), Utf16(replacement).c_str(), start,
                                   count);
    reason = errno;
  }
  codec->Destroy();
  if (status != 0) return SurgeryStatus(status, reason, target, replacement);
  Note("replaced frames %u to %u of %s by %s", start, start + count - 1, target.c_str(),
       replacement.c_str());
  return kExitOk;
}

// zyl encode: a media file in, a movie out, through the codec's interface alone.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "codec/zylCodec.h"
#include "host/source/ffmpegSource.h"
#include "host/tool/commands.h"
#include "host/tool/outputFiles.h"
#include "host/tool/progressBar.h"
#include "host/tool/toolCommon.h"

namespace {

const char kUsage[] =
    "usage: zyl encode INPUT OUTPUT.zyl [options]\n"
    "\n"
    "Encodes the picture (and the sound) of any file FFmpeg reads into a movie.\n"
    "\n"
    "options:\n"
    "  --format zyl0|zyl1     stream format (default zyl0)\n"
    "  --param TAG=VALUE      set a codec parameter; repeatable; `zyl params` lists them\n"
    "                         (\"SND\\0\" and \"YUV\\0\" are written SND and YUV)\n"
    "  --ratio N              target compression ratio, the same as --param RATI=N\n"
    "  --lzma                 pack sections with LZMA, the same as --param nFMT=1\n"
    "  --no-sound             leave the sound out, the same as --param SND=0\n"
    "  --threads N            threads that share each frame's work, the same as\n"
    "                         --param THRD=N (default 0: one per core); the movie is the\n"
    "                         same for any N\n"
    "  --key-frames LIST      comma-separated source frame numbers that get key frames\n"
    "  --first N              first source frame to encode (default 0)\n"
    "  --count N              frames to encode (default 0: to the end)\n"
    "  --verbose              show the library's own console messages\n"
    "  --no-progress          no progress line on stderr\n"
    "  -y, --overwrite        replace OUTPUT if it exists (without -y a terminal is asked,\n"
    "                         anything else refused)\n"
    "  -n                     never replace OUTPUT; refuse at once if it exists\n"
    "\n"
    "The movie is written as OUTPUT.partXXXXXX beside OUTPUT and renamed into place when the\n"
    "job ends, so a refused or failed job leaves an existing OUTPUT as it was. A full disk ends\n"
    "the job with status 3; a new OUTPUT then holds the whole frames that fitted.\n"
    "Ctrl-C stops between two frames; the movie then holds the frames done so far and the\n"
    "exit status is 4. A killed job leaves OUTPUT.partXXXXXX: `zyl repair` makes it whole.\n";

std::atomic<bool> gInterrupted{false};
ProgressBar* gBar = nullptr;

void OnInterrupt(int) {
  gInterrupted = true;
  std::signal(SIGINT, SIG_DFL);  // a second Ctrl-C ends the process at once
}

int32_t OnProgress(zylProgress* progress, uint32_t) {
  if (gBar) gBar->Update(*progress);
  return gInterrupted ? 0 : 1;
}

// Splits "a,b,c" into numbers.
bool ParseFrameList(const std::string& text, std::vector<uint32_t>* frames) {
  size_t start = 0;
  while (start <= text.size()) {
    const size_t comma = std::min(text.find(',', start), text.size());
    uint32_t frame = 0;
    if (!ParseCount(text.substr(start, comma - start), &frame)) return false;
    frames->push_back(frame);
    start = comma + 1;
  }
  return !frames->empty();
}

struct Setting {
  const ToolParam* param;
  int32_t value;
};

}  // namespace

int RunEncode(const CommandArgs& words) {
  Arguments args(words);
  if (args.Flag("--help") || args.Flag("-h")) {
    std::fputs(kUsage, ToolOut());
    return kExitOk;
  }
  bool formatGiven = false;
  const std::string format = args.Value("--format", &formatGiven);
  const std::vector<std::string> params = args.Values("--param");
  bool ratioGiven = false, firstGiven = false, countGiven = false, keysGiven = false;
  bool threadsGiven = false;
  const std::string ratio = args.Value("--ratio", &ratioGiven);
  const std::string threadsText = args.Value("--threads", &threadsGiven);
  const std::string keyList = args.Value("--key-frames", &keysGiven);
  const std::string firstText = args.Value("--first", &firstGiven);
  const std::string countText = args.Value("--count", &countGiven);
  const bool lzma = args.Flag("--lzma");
  const bool noSound = args.Flag("--no-sound");
  const bool verbose = args.Flag("--verbose");
  const bool noProgress = args.Flag("--no-progress");
  OverwritePolicy overwrite;
  if (!TakeOverwritePolicy(&args, &overwrite)) return kExitUsage;
  if (!args.missingValue().empty()) {
    return Fail(kExitUsage, "%s needs a value (see zyl encode --help)",
                args.missingValue().c_str());
  }
  if (!args.Unknown().empty()) {
    return Fail(kExitUsage, "unknown option %s (see zyl encode --help)", args.Unknown().c_str());
  }
  const std::vector<std::string> files = args.Plain();
  if (files.size() != 2) {
    return Fail(kExitUsage, "encode takes INPUT and OUTPUT (see zyl encode --help)");
  }
  const std::string& input = files[0];
  const std::string& output = files[1];

  uint32_t mode = 0;
  if (formatGiven) {
    if (format == "zyl0" || format == "ZYL0") {
      mode = 0;
    } else if (format == "zyl1" || format == "ZYL1") {
      mode = 1;
    } else {
      return Fail(kExitUsage, "unknown format '%s': use zyl0 or zyl1", format.c_str());
    }
  }

  // The settings in the order given: the aliases first, then every --param.
  std::vector<Setting> settings;
  auto add = [&](const char* name, int32_t value) {
    settings.push_back({FindToolParam(name), value});
  };
  if (ratioGiven) {
    uint32_t value = 0;
    if (!ParseCount(ratio, &value) || value < 1 || value > 0x7FFFFFFF) {
      return Fail(kExitUsage, "--ratio wants a whole number of at least 1, not '%s'",
                  ratio.c_str());
    }
    add("RATI", int32_t(value));
  }
  if (threadsGiven) {
    uint32_t value = 0;
    if (!ParseCount(threadsText, &value) || value > 256) {
      return Fail(kExitUsage, "--threads wants a number of threads from 0 to 256, not '%s'",
                  threadsText.c_str());
    }
    add("THRD", int32_t(value));
  }
  if (lzma) add("nFMT", 1);
  if (noSound) add("SND", 0);
  for (const std::string& text : params) {
    const size_t equals = text.find('=');
    if (equals == std::string::npos) {
      return Fail(kExitUsage, "--param wants TAG=VALUE, not '%s'", text.c_str());
    }
    const std::string name = text.substr(0, equals);
    const std::string valueText = text.substr(equals + 1);
    const ToolParam* param = FindToolParam(name);
    if (!param) {
      return Fail(kExitUsage, "unknown parameter tag '%s' (zyl params lists them)", name.c_str());
    }
    int32_t value = 0;
    if (!ParseInt(valueText, &value)) {
      return Fail(kExitUsage, "parameter %s wants a whole number, not '%s'", param->name,
                  valueText.c_str());
    }
    if (value < param->low || value > param->high) {
      return Fail(kExitUsage, "parameter %s=%d is out of range (%d..%d)", param->name, value,
                  param->low, param->high);
    }
    settings.push_back({param, value});
  }
  for (const Setting& setting : settings) {
    if (mode == 1 && setting.param->tag == zylTag('p', 'F', 'M', 'T') &&
        !(setting.value & 32) && (setting.value & 15)) {
      return Fail(kExitUsage, "pFMT=%d asks for extra sound outputs, which only zyl0 writes",
                  setting.value);
    }
  }

  uint32_t firstFrame = 0, frameCount = 0;
  if (firstGiven && !ParseCount(firstText, &firstFrame)) {
    return Fail(kExitUsage, "--first wants a frame number, not '%s'", firstText.c_str());
  }
  if (countGiven && !ParseCount(countText, &frameCount)) {
    return Fail(kExitUsage, "--count wants a number of frames, not '%s'", countText.c_str());
  }
  std::vector<uint32_t> keyFrames;
  if (keysGiven && !ParseFrameList(keyList, &keyFrames)) {
    return Fail(kExitUsage, "--key-frames wants frame numbers like 0,30,90, not '%s'",
                keyList.c_str());
  }

  if (SameFile(input, output)) {
    return Fail(kExitUsage, "%s is both the input and the output", input.c_str());
  }
  if (!MayWrite(output, overwrite)) return kExitOutput;

  bool soundWanted = !noSound;
  for (const Setting& setting : settings) {
    if (setting.param->tag == zylTag('S', 'N', 'D', 0)) soundWanted = setting.value != 0;
  }
  zycFfmpegSource media;
  if (!media.Open(input, soundWanted)) return Fail(kExitInput, "%s", media.error().c_str());
  if (!media.note().empty()) Note("%s (the movie will have no sound)", media.note().c_str());
  zylSource* source = media.source();
  if (firstFrame >= source->frameCount) {
    return Fail(kExitUsage, "--first %u is behind the last frame of %s (%u frames)", firstFrame,
                input.c_str(), source->frameCount);
  }
  uint32_t jobFrames = source->frameCount - firstFrame;
  if (frameCount > 0) jobFrames = std::min(jobFrames, frameCount);

  // The movie is written beside its final name; the library opens that file by its name.
  StagedFile staged;
  if (!staged.Create(output, false)) {
    return Fail(kExitOutput, "%s: can't create the movie (%s)", output.c_str(),
                std::strerror(errno));
  }

  zylCodec* codec = zylInitCodec(OnProgress, 0);
  if (!codec) return Fail(kExitOutput, "out of memory making the codec");
  codec->SetCodecMode(mode);
  // Still images need a block table; the ZYL1 encoder has no key frame format of its own.
  codec->SetParam(zylTag('u', 'F', 'M', 'T'), 230400);
  if (mode == 1) codec->SetParam(zylTag('i', 'F', 'M', 'T'), 1);
  // Sound goes into the frames only with "EXTC" set.
  if (source->audioSampleRate > 0) codec->SetParam(zylTag('E', 'X', 'T', 'C'), 1);
  for (const Setting& setting : settings) codec->SetParam(setting.param->tag, setting.value);

  zylKeyframeRange plan = {};
  if (!keyFrames.empty()) {
    plan.frames = keyFrames.data();
    plan.frameCount = uint32_t(keyFrames.size());
  }

  const int32_t ratioValue = std::max(codec->GetParam(zylTag('R', 'A', 'T', 'I')), 1);
  const uint32_t align = mode == 1 ? 8 : 16;
  const double paddedWidth = double((uint32_t(source->width) + align - 1) / align * align);
  const double paddedHeight = double((uint32_t(source->height) + align - 1) / align * align);
  const double frameBudget = paddedWidth * paddedHeight * 3 / ratioValue;

  Note("encoding %s (%s) to %s as %s, frames %u to %u", input.c_str(),
       media.description().c_str(), output.c_str(), mode == 1 ? "ZYL1" : "ZYL0", firstFrame,
       firstFrame + jobFrames - 1);
  ProgressBar bar(stderr, !noProgress && isatty(STDERR_FILENO), jobFrames, frameBudget);
  gBar = &bar;
  gInterrupted = false;
  std::signal(SIGINT, OnInterrupt);
  const double frameRate = source->frameRate;
  const std::u16string name = Utf16(staged.path());
  int32_t status;
  int reason;  // the system's reason of a failed open or write; 0 after a refusal
  {
    QuietConsole quiet(verbose);
    status = codec->Encode(source, 0, name.c_str(), firstFrame, frameCount,
                           keyFrames.empty() ? nullptr : &plan, nullptr);
    reason = errno;
  }
  std::signal(SIGINT, SIG_DFL);
  bar.Finish();
  gBar = nullptr;
  codec->Destroy();
  media.Close();

  if (status == 2) return Fail(kExitInput, "%s: the codec got no source", input.c_str());
  if (status == 3 && reason != 0) {
    // A write failed: the library cut the movie back to its last whole frame. It takes the
    // final name only where no older file stands.
    struct stat cut = {}, old = {};
    const bool kept = stat(staged.path().c_str(), &cut) == 0 && cut.st_size > 0 &&
                      lstat(output.c_str(), &old) != 0 && staged.Commit();
    const uint32_t framesKept = kept ? bar.frames() : 0;
    Fail(kExitOutput, "%s: can't write the movie (%s)", output.c_str(), std::strerror(reason));
    if (kept) {
      Note("%s holds the %u whole frame%s that fitted", output.c_str(), framesKept,
           framesKept == 1 ? "" : "s");
    } else {
      Note("%s was not changed", output.c_str());
    }
    return kExitOutput;
  }
  if (status == 3) {
    return Fail(kExitOutput,
                "%s: the encoder refused the job (--verbose shows the encoder's messages); "
                "nothing was written",
                output.c_str());
  }
  if (status != 0 && status != 1) {
    return Fail(kExitOutput, "%s: the codec answered status %d", output.c_str(), status);
  }
  if (!staged.Commit()) {
    staged.Keep();
    return Fail(kExitOutput, "%s; the movie stays there", staged.error().c_str());
  }
  struct stat written = {};
  const double fileBytes = stat(output.c_str(), &written) == 0 ? double(written.st_size) : 0;
  const double seconds = bar.frames() / frameRate;
  const double elapsed = bar.seconds();
  Note("wrote %s: %u frames, %s, %.2f s, %.0f kbit/s, in %.1f s (%.1f fps)", output.c_str(),
       bar.frames(), HumanBytes(fileBytes).c_str(), seconds,
       seconds > 0 ? fileBytes * 8 / seconds / 1000 : 0.0, elapsed,
       elapsed > 0 ? bar.frames() / elapsed : 0.0);
  if (status == 1) {
    Note("stopped by Ctrl-C after %u frames; %s is a valid movie of those frames", bar.frames(),
         output.c_str());
    return kExitStopped;
  }
  if (bar.frames() < jobFrames) {
    Note("%s gave %u of the %u frames expected; the movie ends there", input.c_str(),
         bar.frames(), jobFrames);
  }
  return kExitOk;
}

// zyl encode: a media file in, a movie out, through the codec's interface alone.
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "codec/zylCodec.h"
#include "host/source/ffmpegSource.h"
#include "host/tool/commands.h"
#include "host/tool/encodeOptions.h"
#include "host/tool/outputFiles.h"
#include "host/tool/progressBar.h"
#include "host/tool/toolCommon.h"

namespace {

const char kUsage[] =
    "usage: zyl encode INPUT OUTPUT.zyl [options]\n"
    "       zyl encode INPUT -o OUTPUT.zyl [options]\n"
    "\n"
    "Encodes the picture (and the sound) of any file FFmpeg reads into a movie. INPUT \"-\"\n"
    "reads standard input (Y4M, Matroska, NUT and other formats that stream), kept in a\n"
    "temporary file while the job runs. The movie itself is a file: its header is written\n"
    "last, so it can't go to standard output.\n"
    "\n"
    "rate (the last of these given counts):\n"
    "  --ratio N              target compression ratio, the same as --param RATI=N (100),\n"
    "                         measured against the frame's 24-bit RGB picture, its width and\n"
    "                         height rounded up to 16, and its share of 16-bit sound: a\n"
    "                         frame's budget, its sound included, is that size divided by N\n"
    "  --bitrate RATE         aim at a data rate, such as 800k or 1.5M (bits a second)\n"
    "  --size BYTES           aim at a file size, such as 5M or 300k (k = 1000, M = 10^6)\n"
    "                         (both choose RATI from the picture size, frame rate and count)\n"
    "\n"
    "pictures and time:\n"
    "  --scale WxH            scale the pictures to W by H\n"
    "  --vf FILTERS           FFmpeg picture filters, such as crop=320:240:0:0 (one picture\n"
    "                         in, one out: timing is --fps's); the file's rotation comes first\n"
    "  --fps N                take N pictures a second (repeating or dropping pictures)\n"
    "  --first N              first source frame to encode (default 0)\n"
    "  --start TIME           the same, as a time: 12.5, 1:30 or 0:01:30\n"
    "  --count N              frames to encode (default 0: to the end)\n"
    "  --duration TIME        the same, as a time\n"
    "  --key-frames LIST      comma-separated source frame numbers that get key frames\n"
    "  --key-interval N       a key frame every N frames, or every N seconds with Ns (2s)\n"
    "\n"
    "codec:\n"
    "  --format zyl0|zyl1     stream format (default zyl0)\n"
    "  --key-format still|quadtree\n"
    "                         zyl1 key frames: still images (VQ and surfaces; the default) or\n"
    "                         DXT1 quad trees (faster to make); the same as --param iFMT=1|0\n"
    "  --param TAG=VALUE      set a codec parameter; repeatable; `zyl params` lists them\n"
    "                         (\"SND\\0\" and \"YUV\\0\" are written SND and YUV); the tool\n"
    "                         sets DXTC=6 unless given\n"
    "  --lzma                 pack sections with LZMA, the same as --param nFMT=1\n"
    "  --no-sound             leave the sound out, the same as --param SND=0\n"
    "  --threads N            threads that share each frame's work, the same as\n"
    "                         --param THRD=N (default 0: one per core); the movie is the\n"
    "                         same for any N\n"
    "\n"
    "console:\n"
    "  --verbose              show the library's own console messages (on stderr)\n"
    "  -q, --quiet            only warnings and errors: no progress line, no summary\n"
    "  --no-progress          no progress line on stderr\n"
    "  --                     ends the options: what follows are file names\n"
    "\n"
    "output:\n"
    "  -o OUTPUT              the movie's name, instead of the second file name\n"
    "  -y, --overwrite        replace OUTPUT if it exists (without -y a terminal is asked,\n"
    "                         anything else refused)\n"
    "  -n                     never replace OUTPUT; refuse at once if it exists\n"
    "\n"
    "The progress line shows the frames done of those wanted, the encoding speed in frames a\n"
    "second, the bytes written against the budget of the frames done so far, the key frames\n"
    "so far and the time left. Sound of more than two channels is downmixed to stereo.\n"
    "The movie is written as OUTPUT.partXXXXXX beside OUTPUT and renamed into place when the\n"
    "job ends, so a refused or failed job leaves an existing OUTPUT as it was. A full disk ends\n"
    "the job with status 3; a new OUTPUT then holds the whole frames that fitted.\n"
    "Ctrl-C stops between two frames; the movie then holds the frames done so far and the\n"
    "exit status is 4. A killed job leaves OUTPUT.partXXXXXX: `zyl repair` makes it whole.\n";

std::atomic<bool> gInterrupted{false};
ProgressBar* gBar = nullptr;
std::string gStartLine;  // printed when the first frame is coded: the job was taken

void OnInterrupt(int) {
  gInterrupted = true;
  std::signal(SIGINT, SIG_DFL);  // a second Ctrl-C ends the process at once
}

int32_t OnProgress(zylProgress* progress, uint32_t) {
  if (!gStartLine.empty()) {
    Note("%s", gStartLine.c_str());
    gStartLine.clear();
  }
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
  size_t at;  // place on the command line
};

// Standard input copied into a file of its own, since the source opens its input more than
// once; the file goes when this does.
class SpooledInput {
 public:
  ~SpooledInput() {
    if (!path_.empty()) unlink(path_.c_str());
  }
  // False with `error` set.
  bool Take(std::string* error) {
    const char* dir = std::getenv("TMPDIR");
    std::string pattern = std::string(dir && *dir ? dir : "/tmp") + "/zyl-stdin-XXXXXX";
    const int fd = mkstemp(pattern.data());
    if (fd < 0) {
      *error = pattern + ": can't hold standard input (" + std::strerror(errno) + ")";
      return false;
    }
    path_ = pattern;
    char buffer[1 << 16];
    for (;;) {
      const ssize_t got = read(STDIN_FILENO, buffer, sizeof(buffer));
      if (got < 0 && errno == EINTR) continue;
      if (got < 0) {
        *error = std::string("standard input: ") + std::strerror(errno);
        close(fd);
        return false;
      }
      if (got == 0) break;
      for (ssize_t done = 0; done < got;) {
        const ssize_t put = write(fd, buffer + done, size_t(got - done));
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) {
          *error = path_ + ": can't hold standard input (" + std::strerror(errno) + ")";
          close(fd);
          return false;
        }
        done += put;
      }
    }
    if (close(fd) != 0) {
      *error = path_ + ": can't hold standard input (" + std::strerror(errno) + ")";
      return false;
    }
    return true;
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

constexpr uint32_t kTagRati = zylTag('R', 'A', 'T', 'I');
constexpr uint32_t kTagDxtc = zylTag('D', 'X', 'T', 'C');
constexpr uint32_t kTagPfmt = zylTag('p', 'F', 'M', 'T');
constexpr uint32_t kTagSnd = zylTag('S', 'N', 'D', 0);
// The DXT1 back end the tool chooses: better pictures than the library's fallback at the same
// bytes and speed.
constexpr int32_t kToolDxtc = 6;
// The smallest frame budget the tool lets a job have, in bytes. Below it the frames of tiny
// pictures don't fit and decode scrambled: 17x9 pictures of a real clip come out at 23 dB with
// 64 bytes a frame, 29 dB with 77, 43 dB with 96 and whole with 128.
constexpr double kBudgetFloor = 128;

// What the command line asks of an encode, every value checked; nothing is opened yet.
struct EncodeRequest {
  std::string input, output;
  uint32_t mode = 0;           // 0: ZYL0, 1: ZYL1
  int32_t keyFormat = 1;       // ZYL1 key frames: 1 still images, 0 quad trees
  std::vector<Setting> settings;  // in the order given; a tag set twice keeps its last value
  int rate = -1;               // which of --ratio, --bitrate, --size counts
  double bitrate = 0, sizeBytes = 0;
  int start = -1, length = -1;  // --first or --start; --count or --duration
  uint32_t firstFrame = 0, frameCount = 0;
  double startSeconds = 0, durationSeconds = 0;
  std::vector<uint32_t> keyFrames;
  bool intervalGiven = false;
  KeyInterval interval;
  zycSourceOptions sourceOptions;
  OverwritePolicy overwrite = OverwritePolicy::ask;
  bool verbose = false, quiet = false, noProgress = false;

  void Add(const char* name, int32_t value, size_t at) {
    settings.push_back({FindToolParam(name), value, at});
  }
  // The value a tag ends with: the last setting of it, or `otherwise`.
  int32_t FinalValue(uint32_t tag, int32_t otherwise) const {
    int32_t value = otherwise;
    for (const Setting& setting : settings) {
      if (setting.param->tag == tag) value = setting.value;
    }
    return value;
  }
};

int ParseFormats(const std::string& format, bool formatGiven, const std::string& keyFormat,
                 bool keyFormatGiven, EncodeRequest* r) {
  if (formatGiven) {
    if (format == "zyl0" || format == "ZYL0") {
      r->mode = 0;
    } else if (format == "zyl1" || format == "ZYL1") {
      r->mode = 1;
    } else {
      return Fail(kExitUsage, "unknown format '%s': use zyl0 or zyl1", format.c_str());
    }
  }
  if (keyFormatGiven) {
    if (keyFormat == "still") {
      r->keyFormat = 1;
    } else if (keyFormat == "quadtree") {
      r->keyFormat = 0;
    } else {
      return Fail(kExitUsage, "unknown key frame format '%s': use still or quadtree",
                  keyFormat.c_str());
    }
    if (r->mode != 1) return Fail(kExitUsage, "--key-format is for --format zyl1");
  }
  return kExitOk;
}

// The --param settings, each checked against the tool's parameter table.
int ParseParams(const std::vector<std::pair<size_t, std::string>>& params, EncodeRequest* r) {
  for (const auto& [at, text] : params) {
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
    if (param->tag == kTagRati && r->rate > 0) {
      Warn("--param RATI=%d is overridden by %s", value, r->rate == 1 ? "--bitrate" : "--size");
      continue;
    }
    r->Add(param->name, value, at);
  }
  return kExitOk;
}

// Puts the settings in command-line order and warns where a tag gets two values.
void OrderSettings(EncodeRequest* r) {
  auto& settings = r->settings;
  std::stable_sort(settings.begin(), settings.end(),
                   [](const Setting& a, const Setting& b) { return a.at < b.at; });
  for (size_t i = 0; i < settings.size(); ++i) {
    for (size_t j = i + 1; j < settings.size(); ++j) {
      if (settings[j].param == settings[i].param && settings[j].value != settings[i].value) {
        Warn("%s is set to %d and then to %d; the last counts", settings[i].param->name,
             settings[i].value, settings[j].value);
        break;
      }
    }
  }
}

// --first/--start, --count/--duration, --key-frames and --key-interval.
int ParseRange(const std::string& firstText, const std::string& startText,
               const std::string& countText, const std::string& durationText, bool keysGiven,
               const std::string& keyList, const std::string& intervalText, EncodeRequest* r) {
  if (r->start == 0 && !ParseCount(firstText, &r->firstFrame)) {
    return Fail(kExitUsage, "--first wants a frame number, not '%s'", firstText.c_str());
  }
  if (r->start == 1 && !ParseTime(startText, &r->startSeconds)) {
    return Fail(kExitUsage, "--start wants a time such as 12.5, 1:30 or 0:01:30, not '%s'",
                startText.c_str());
  }
  if (r->length == 0 && !ParseCount(countText, &r->frameCount)) {
    return Fail(kExitUsage, "--count wants a number of frames, not '%s'", countText.c_str());
  }
  if (r->length == 1 && (!ParseTime(durationText, &r->durationSeconds) ||
                         r->durationSeconds <= 0)) {
    return Fail(kExitUsage, "--duration wants a time above 0 such as 12.5 or 1:30, not '%s'",
                durationText.c_str());
  }
  if (keysGiven && !ParseFrameList(keyList, &r->keyFrames)) {
    return Fail(kExitUsage, "--key-frames wants frame numbers like 0,30,90, not '%s'",
                keyList.c_str());
  }
  if (r->intervalGiven && !ParseKeyInterval(intervalText, &r->interval)) {
    return Fail(kExitUsage, "--key-interval wants frames (30) or seconds (2s), not '%s'",
                intervalText.c_str());
  }
  return kExitOk;
}

// --fps, --vf and --scale, in the order the source applies them.
int ParsePictureOptions(const std::string& fpsText, bool fpsGiven,
                        const std::string& filterText, bool vfGiven,
                        const std::string& scaleText, bool scaleGiven,
                        zycSourceOptions* options) {
  if (fpsGiven) {
    double fps = 0;
    if (!ParseAmount(fpsText, "", &fps) || fps >= 1000 || fps != fps) {
      return Fail(kExitUsage, "--fps wants pictures a second above 0 and below 1000, not '%s'",
                  fpsText.c_str());
    }
    options->frameRate = fps;
  }
  if (vfGiven) {
    if (filterText.empty()) return Fail(kExitUsage, "--vf wants filters, such as crop=320:240");
    options->filters = filterText;
  }
  if (scaleGiven) {
    uint32_t width = 0, height = 0;
    if (!ParseSize(scaleText, &width, &height)) {
      return Fail(kExitUsage, "--scale wants WxH such as 640x360, not '%s'", scaleText.c_str());
    }
    options->filters += (options->filters.empty() ? "" : ",") + std::string("scale=") +
                        std::to_string(width) + ":" + std::to_string(height);
  }
  return kExitOk;
}

// Reads every option of an encode; kExitOk with `r` filled, or the exit status of a refusal
// that has been printed.
int ParseEncodeRequest(Arguments& args, EncodeRequest* r) {
  bool formatGiven = false;
  const std::string format = args.Value("--format", &formatGiven);
  bool keyFormatGiven = false;
  const std::string keyFormat = args.Value("--key-format", &keyFormatGiven);
  const auto params = args.Occurrences("--param");
  size_t ratioAt, bitrateAt, sizeAt, firstAt, startAt, countAt, durationAt, lzmaAt, noSoundAt;
  size_t verboseAt, quietAt, quietLongAt, outputAt, threadsAt;
  const std::string ratio = args.Value("--ratio", nullptr, &ratioAt);
  const std::string bitrateText = args.Value("--bitrate", nullptr, &bitrateAt);
  const std::string sizeText = args.Value("--size", nullptr, &sizeAt);
  const std::string threadsText = args.Value("--threads", nullptr, &threadsAt);
  bool keysGiven = false;
  const std::string keyList = args.Value("--key-frames", &keysGiven);
  const std::string intervalText = args.Value("--key-interval", &r->intervalGiven);
  const std::string firstText = args.Value("--first", nullptr, &firstAt);
  const std::string startText = args.Value("--start", nullptr, &startAt);
  const std::string countText = args.Value("--count", nullptr, &countAt);
  const std::string durationText = args.Value("--duration", nullptr, &durationAt);
  bool scaleGiven = false, vfGiven = false, fpsGiven = false;
  const std::string scaleText = args.Value("--scale", &scaleGiven);
  const std::string filterText = args.Value("--vf", &vfGiven);
  const std::string fpsText = args.Value("--fps", &fpsGiven);
  const std::string outputOption = args.Value("-o", nullptr, &outputAt);
  const bool lzma = args.Flag("--lzma", &lzmaAt);
  const bool noSound = args.Flag("--no-sound", &noSoundAt);
  args.Flag("--verbose", &verboseAt);
  args.Flag("-q", &quietAt);
  args.Flag("--quiet", &quietLongAt);
  r->noProgress = args.Flag("--no-progress");
  if (!TakeOverwritePolicy(&args, &r->overwrite)) return kExitUsage;
  if (!args.missingValue().empty()) {
    return Fail(kExitUsage, "%s needs a value (see zyl encode --help)",
                args.missingValue().c_str());
  }
  if (!args.Unknown().empty()) {
    return Fail(kExitUsage, "unknown option %s (see zyl encode --help)", args.Unknown().c_str());
  }
  std::vector<std::string> files = args.Plain();
  if (outputAt != std::string::npos) files.push_back(outputOption);
  if (files.size() != 2) {
    return Fail(kExitUsage, "encode takes INPUT and OUTPUT (see zyl encode --help)");
  }
  r->input = files[0];
  r->output = files[1];
  if (r->output == "-") {
    return Fail(kExitUsage, "the movie can't go to standard output (its header is written "
                "last); give a file name");
  }
  const size_t quietPlace = quietAt == std::string::npos ? quietLongAt
                            : quietLongAt == std::string::npos ? quietAt
                                                                : std::max(quietAt, quietLongAt);
  const int talk = LastGiven({{"--verbose", verboseAt}, {"--quiet", quietPlace}});
  r->verbose = talk == 0;
  r->quiet = talk == 1;
  if (const int status = ParseFormats(format, formatGiven, keyFormat, keyFormatGiven, r)) {
    return status;
  }

  r->rate = LastGiven({{"--ratio", ratioAt}, {"--bitrate", bitrateAt}, {"--size", sizeAt}});
  if (r->rate == 0) {
    uint32_t value = 0;
    if (!ParseCount(ratio, &value) || value < 1 || value > 0x7FFFFFFF) {
      return Fail(kExitUsage, "--ratio wants a whole number of at least 1, not '%s'",
                  ratio.c_str());
    }
    r->Add("RATI", int32_t(value), ratioAt);
  } else if (r->rate == 1 && !ParseAmount(bitrateText, "", &r->bitrate)) {
    return Fail(kExitUsage, "--bitrate wants bits a second such as 800k or 1.5M, not '%s'",
                bitrateText.c_str());
  } else if (r->rate == 2 && !ParseAmount(sizeText, "B", &r->sizeBytes)) {
    return Fail(kExitUsage, "--size wants bytes such as 5M or 300k, not '%s'", sizeText.c_str());
  }
  if (threadsAt != std::string::npos) {
    uint32_t value = 0;
    if (!ParseCount(threadsText, &value) || value > 256) {
      return Fail(kExitUsage, "--threads wants a number of threads from 0 to 256, not '%s'",
                  threadsText.c_str());
    }
    r->Add("THRD", int32_t(value), threadsAt);
  }
  if (lzma) r->Add("nFMT", 1, lzmaAt);
  if (noSound) r->Add("SND", 0, noSoundAt);
  if (const int status = ParseParams(params, r)) return status;
  OrderSettings(r);
  const int32_t soundFlags = r->FinalValue(kTagPfmt, 32);
  if (r->mode == 1 && !(soundFlags & 32) && (soundFlags & 15)) {
    return Fail(kExitUsage, "pFMT=%d asks for extra sound outputs, which only zyl0 writes",
                soundFlags);
  }

  r->start = LastGiven({{"--first", firstAt}, {"--start", startAt}});
  r->length = LastGiven({{"--count", countAt}, {"--duration", durationAt}});
  if (const int status = ParseRange(firstText, startText, countText, durationText, keysGiven,
                                    keyList, intervalText, r)) {
    return status;
  }
  return ParsePictureOptions(fpsText, fpsGiven, filterText, vfGiven, scaleText, scaleGiven,
                             &r->sourceOptions);
}

// The frames the job takes from `source`: resolves times to frame numbers, adds the key
// frames of --key-interval and warns of key frames outside the range. False after a refusal.
bool ResolveRange(const zylSource& source, const std::string& inputName, EncodeRequest* r,
                  uint32_t* jobFrames) {
  const double frameRate = source.frameRate;
  if (r->start == 1) {
    r->firstFrame =
        uint32_t(std::min<long long>(std::llround(r->startSeconds * frameRate), 0xFFFFFFFFll));
  }
  if (r->length == 1) {
    r->frameCount = uint32_t(
        std::clamp<long long>(std::llround(r->durationSeconds * frameRate), 1, 0xFFFFFFFFll));
  }
  if (r->firstFrame >= source.frameCount) {
    Fail(kExitUsage, "--first %u is behind the last frame of %s (%s)", r->firstFrame,
         inputName.c_str(), Count(source.frameCount, "frame", "frames").c_str());
    return false;
  }
  *jobFrames = source.frameCount - r->firstFrame;
  if (r->frameCount > 0) *jobFrames = std::min(*jobFrames, r->frameCount);
  const uint32_t lastFrame = r->firstFrame + *jobFrames - 1;

  for (uint32_t frame : r->keyFrames) {
    if (frame < r->firstFrame || frame > lastFrame) {
      Warn("key frame %u is outside the frames encoded (%u to %u) and has no effect", frame,
           r->firstFrame, lastFrame);
    }
  }
  if (r->intervalGiven) {
    const double step = r->interval.frames > 0
                            ? r->interval.frames
                            : std::max(1.0, std::round(r->interval.seconds * frameRate));
    for (double frame = r->firstFrame; frame <= lastFrame; frame += step) {
      r->keyFrames.push_back(uint32_t(frame));
    }
    std::sort(r->keyFrames.begin(), r->keyFrames.end());
    r->keyFrames.erase(std::unique(r->keyFrames.begin(), r->keyFrames.end()),
                       r->keyFrames.end());
  }
  return true;
}

// Turns --bitrate or --size into a RATI setting; the words for the start line, or "".
std::string ChooseRatio(const RateInputs& rateInputs, uint32_t jobFrames, EncodeRequest* r) {
  if (r->rate != 1 && r->rate != 2) return "";
  const double bytes =
      r->rate == 2 ? r->sizeBytes : r->bitrate / 8 * jobFrames / rateInputs.frameRate;
  const int32_t chosen = RatioForBytes(rateInputs, bytes);
  r->Add("RATI", chosen, std::string::npos);
  char text[96];
  if (r->rate == 1) {
    std::snprintf(text, sizeof(text), "ratio %d for %.0f kbit/s", chosen, r->bitrate / 1000);
  } else {
    std::snprintf(text, sizeof(text), "ratio %d for %s", chosen, HumanBytes(r->sizeBytes).c_str());
  }
  return text;
}

// A codec set up as the request says; the frame budget it will aim at in `frameBudget`.
zylCodec* MakeCodec(const EncodeRequest& r, const zylSource& source, bool soundInMovie,
                    const RateInputs& rateInputs, double* frameBudget) {
  zylCodec* codec = zylInitCodec(OnProgress, 0);
  if (!codec) return nullptr;
  codec->SetCodecMode(r.mode);
  // Still images need a block table; the ZYL1 encoder has no key frame format of its own.
  codec->SetParam(zylTag('u', 'F', 'M', 'T'), 230400);
  // ZYL1 key frames: still images unless --key-format or --param iFMT say otherwise.
  if (r.mode == 1) codec->SetParam(zylTag('i', 'F', 'M', 'T'), r.keyFormat);
  codec->SetParam(kTagDxtc, kToolDxtc);
  // Sound goes into the frames only with "EXTC" set.
  if (soundInMovie) codec->SetParam(zylTag('E', 'X', 'T', 'C'), 1);
  for (const Setting& setting : r.settings) codec->SetParam(setting.param->tag, setting.value);

  // A picture so small that its budget can't hold a frame decodes scrambled: raise the budget.
  int32_t ratioValue = std::max(codec->GetParam(kTagRati), 1);
  if (PictureBudget(rateInputs, ratioValue) < kBudgetFloor) {
    const int32_t floorRatio = RatioForPictureBudget(rateInputs, kBudgetFloor);
    Warn("%ux%u pictures get %.0f bytes a frame at ratio %d%s, too few to decode whole; ratio %d "
         "gives them %.0f bytes, the tool's floor",
         source.width, source.height, std::max(0.0, PictureBudget(rateInputs, ratioValue)),
         ratioValue, rateInputs.soundRate ? " beside the sound" : "", floorRatio,
         PictureBudget(rateInputs, floorRatio));
    ratioValue = floorRatio;
    codec->SetParam(kTagRati, ratioValue);
  }
  *frameBudget = FrameBudget(rateInputs, ratioValue);
  return codec;
}

// Tells how the job ended and puts the movie in place; the exit status.
int ReportEncode(const EncodeRequest& r, const std::string& inputName, int32_t status,
                 int reason, const std::string& console, StagedFile& staged,
                 const ProgressBar& bar, uint32_t jobFrames, double frameRate) {
  const std::string& output = r.output;
  if (status == 2) return Fail(kExitInput, "%s: the codec got no source", inputName.c_str());
  if (status == 3 && reason != 0) {
    // A write failed: the library cut the movie back to its last whole frame. It takes the
    // final name only where no older file stands.
    struct stat cut = {}, old = {};
    const bool kept = stat(staged.path().c_str(), &cut) == 0 && cut.st_size > 0 &&
                      lstat(output.c_str(), &old) != 0 && staged.Commit();
    const uint32_t framesKept = kept ? bar.frames() : 0;
    Fail(kExitOutput, "%s: can't write the movie (%s)", output.c_str(), std::strerror(reason));
    if (kept) {
      Note("%s holds the %s that fitted", output.c_str(),
           Count(framesKept, "whole frame", "whole frames").c_str());
    } else {
      Note("%s was not changed", output.c_str());
    }
    return kExitOutput;
  }
  if (status == 3) {
    const std::string why = LastConsoleLine(console);
    if (!why.empty()) {
      return Fail(kExitOutput, "%s: the encoder refused the job: %s; nothing was written",
                  output.c_str(), why.c_str());
    }
    return Fail(kExitOutput, "%s: the encoder refused the job; nothing was written",
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
  if (!r.quiet) {
    Note("wrote %s: %s, %s, %.2f s, %.0f kbit/s, in %.1f s (%.1f frames a second)",
         output.c_str(), Count(bar.frames(), "frame", "frames").c_str(),
         HumanBytes(fileBytes).c_str(), seconds,
         seconds > 0 ? fileBytes * 8 / seconds / 1000 : 0.0, elapsed,
         elapsed > 0 ? bar.frames() / elapsed : 0.0);
  }
  if (status == 1) {
    Note("stopped by Ctrl-C after %s; %s is a valid movie of those frames",
         Count(bar.frames(), "frame", "frames").c_str(), output.c_str());
    return kExitStopped;
  }
  if (bar.frames() < jobFrames) {
    Warn("%s gave %u of the %s expected; the movie ends there", inputName.c_str(), bar.frames(),
         Count(jobFrames, "frame", "frames").c_str());
  }
  return kExitOk;
}

// Runs a checked request: opens the source, sets up the codec, encodes with the progress line
// and puts the movie in place.
int RunEncodeRequest(EncodeRequest& r) {
  const std::string& input = r.input;
  const std::string& output = r.output;
  if (input != "-" && SameFile(input, output)) {
    return Fail(kExitUsage, "%s is both the input and the output", input.c_str());
  }
  if (!MayWrite(output, r.overwrite)) return kExitOutput;

  SpooledInput spooled;
  std::string sourcePath = input;
  if (input == "-") {
    if (isatty(STDIN_FILENO)) {
      return Fail(kExitUsage, "INPUT - reads standard input, which is a terminal here");
    }
    std::string error;
    if (!spooled.Take(&error)) return Fail(kExitInput, "%s", error.c_str());
    sourcePath = spooled.path();
  }
  const std::string inputName = input == "-" ? "standard input" : input;

  r.sourceOptions.wantSound = r.FinalValue(kTagSnd, 1) != 0;
  zycFfmpegSource media;
  if (!media.Open(sourcePath, r.sourceOptions)) {
    std::string error = media.error();
    if (input == "-" && error.rfind(sourcePath, 0) == 0) {
      error = inputName + error.substr(sourcePath.size());
    }
    return Fail(kExitInput, "%s", error.c_str());
  }
  if (!media.note().empty() && !r.quiet) {
    Note("%s (the movie will have no sound)", media.note().c_str());
  }
  for (const std::string& warning : media.warnings()) Warn("%s", warning.c_str());
  zylSource* source = media.source();
  const double frameRate = source->frameRate;
  uint32_t jobFrames = 0;
  if (!ResolveRange(*source, inputName, &r, &jobFrames)) return kExitUsage;
  const uint32_t lastFrame = r.firstFrame + jobFrames - 1;

  // The phone sound formats of pFMT's low bits need a sound library this build does not have:
  // the job would end the process half way.
  const int32_t soundFlags = r.FinalValue(kTagPfmt, 32);
  const bool soundInMovie = source->audioSampleRate > 0;
  if (soundInMovie && (soundFlags & 15)) {
    return Fail(kExitUsage,
                "pFMT=%d asks for phone sound outputs (bits 1, 2, 4, 8), whose sound library is "
                "not part of this build; use pFMT=32 (or --no-sound)",
                soundFlags);
  }

  const uint32_t align = r.mode == 1 ? 8 : 16;
  RateInputs rateInputs;
  rateInputs.paddedWidth = (uint32_t(source->width) + align - 1) / align * align;
  rateInputs.paddedHeight = (uint32_t(source->height) + align - 1) / align * align;
  rateInputs.frameRate = frameRate;
  rateInputs.frames = jobFrames;
  if (soundInMovie && (soundFlags & 32)) {
    rateInputs.soundRate = uint32_t(source->audioSampleRate);
    rateInputs.soundChannels = uint32_t(source->audioChannels);
  }
  const std::string rateText = ChooseRatio(rateInputs, jobFrames, &r);

  double frameBudget = 0;
  zylCodec* codec = MakeCodec(r, *source, soundInMovie, rateInputs, &frameBudget);
  if (!codec) return Fail(kExitOutput, "out of memory making the codec");

  // The movie is written beside its final name; the library opens that file by its name.
  StagedFile staged;
  if (!staged.Create(output, false)) {
    codec->Destroy();
    return Fail(kExitOutput, "%s: can't create the movie (%s)", output.c_str(),
                std::strerror(errno));
  }

  zylKeyframeRange plan = {};
  if (!r.keyFrames.empty()) {
    plan.frames = r.keyFrames.data();
    plan.frameCount = uint32_t(r.keyFrames.size());
  }

  const char* keyText = "";
  if (r.mode == 1) {
    keyText = codec->GetParam(zylTag('i', 'F', 'M', 'T')) == 1 ? " with still-image key frames"
                                                               : " with quad-tree key frames";
  }
  std::string startLine = "encoding " + inputName + " (" + media.description() + ") to " +
                          output + " as " + (r.mode == 1 ? "ZYL1" : "ZYL0") + keyText +
                          ", frames " + std::to_string(r.firstFrame) + " to " +
                          std::to_string(lastFrame);
  if (!rateText.empty()) startLine += ", " + rateText;
  for (const std::string& change : media.changes()) startLine += "; " + change;
  gStartLine = r.quiet ? std::string() : startLine;
  const bool drawProgress = !r.noProgress && !r.quiet && isatty(STDERR_FILENO);
  struct winsize window = {};
  const size_t columns =
      drawProgress && ioctl(STDERR_FILENO, TIOCGWINSZ, &window) == 0 && window.ws_col > 0
          ? window.ws_col
          : 80;
  ProgressBar bar(stderr, drawProgress, jobFrames, frameBudget, std::min<size_t>(columns, 80));
  bar.ShowFrameModes(r.mode == 1);
  gBar = &bar;
  gInterrupted = false;
  std::signal(SIGINT, OnInterrupt);
  const std::u16string name = Utf16(staged.path());
  int32_t status;
  int reason;  // the system's reason of a failed open or write; 0 after a refusal
  std::string console;
  {
    QuietConsole quietConsole(r.verbose);
    errno = 0;  // what the job leaves here tells a failed write from a refusal
    status = codec->Encode(source, 0, name.c_str(), r.firstFrame, r.frameCount,
                           r.keyFrames.empty() ? nullptr : &plan, nullptr);
    reason = errno;
    console = quietConsole.Stop();
  }
  std::signal(SIGINT, SIG_DFL);
  bar.Finish();
  gBar = nullptr;
  gStartLine.clear();
  codec->Destroy();
  media.Close();
  return ReportEncode(r, inputName, status, reason, console, staged, bar, jobFrames, frameRate);
}

}  // namespace

int RunEncode(const CommandArgs& words) {
  Arguments args(words);
  if (args.Flag("--help") || args.Flag("-h")) {
    std::fputs(kUsage, ToolOut());
    return kExitOk;
  }
  EncodeRequest request;
  if (const int status = ParseEncodeRequest(args, &request)) return status;
  return RunEncodeRequest(request);
}

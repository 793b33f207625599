#include "host/tool/toolCommon.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "base/fileIo.h"

FILE* ToolOut() {
  static FILE* out = [] {
    const int copy = dup(STDOUT_FILENO);
    FILE* file = copy >= 0 ? fdopen(copy, "w") : nullptr;
    return file ? file : stdout;
  }();
  return out;
}

int Fail(int code, const char* format, ...) {
  std::fflush(ToolOut());
  std::fputs("zyl: error: ", stderr);
  va_list args;
  va_start(args, format);
  std::vfprintf(stderr, format, args);
  va_end(args);
  std::fputc('\n', stderr);
  return code;
}

void Note(const char* format, ...) {
  std::fflush(ToolOut());
  std::fputs("zyl: ", stderr);
  va_list args;
  va_start(args, format);
  std::vfprintf(stderr, format, args);
  va_end(args);
  std::fputc('\n', stderr);
}

QuietConsole::QuietConsole(bool verbose) {
  ToolOut();  // the copy of the real output exists before the descriptor is moved
  if (verbose) return;
  std::fflush(stdout);
  const int null = open("/dev/null", O_WRONLY);
  if (null < 0) return;
  saved_ = dup(STDOUT_FILENO);
  if (saved_ >= 0) dup2(null, STDOUT_FILENO);
  close(null);
}

QuietConsole::~QuietConsole() {
  if (saved_ < 0) return;
  std::fflush(stdout);
  dup2(saved_, STDOUT_FILENO);
  close(saved_);
}

Arguments::Arguments(const std::vector<std::string>& args) : args_(args) {
  taken_.assign(args_.size(), false);
}

bool Arguments::Flag(const char* name) {
  bool found = false;
  for (size_t i = 0; i < args_.size(); ++i) {
    if (args_[i] == "--") break;
    if (!taken_[i] && args_[i] == name) {
      taken_[i] = true;
      found = true;
    }
  }
  return found;
}

std::vector<std::string> Arguments::Values(const char* name) {
  std::vector<std::string> values;
  const std::string withEquals = std::string(name) + "=";
  for (size_t i = 0; i < args_.size(); ++i) {
    if (args_[i] == "--") break;
    if (taken_[i]) continue;
    if (args_[i] == name) {
      taken_[i] = true;
      if (i + 1 < args_.size()) {
        taken_[i + 1] = true;
        values.push_back(args_[++i]);
      } else {
        missingValue_ = name;
      }
    } else if (args_[i].rfind(withEquals, 0) == 0) {
      taken_[i] = true;
      values.push_back(args_[i].substr(withEquals.size()));
    }
  }
  return values;
}

std::string Arguments::Value(const char* name, bool* given) {
  const std::vector<std::string> values = Values(name);
  if (given) *given = !values.empty();
  return values.empty() ? std::string() : values.back();
}

std::vector<std::string> Arguments::Plain() const {
  std::vector<std::string> plain;
  bool afterDashes = false;
  for (size_t i = 0; i < args_.size(); ++i) {
    if (!afterDashes && args_[i] == "--") {
      afterDashes = true;
      continue;
    }
    if (taken_[i]) continue;
    if (!afterDashes && args_[i].size() > 1 && args_[i][0] == '-') continue;
    plain.push_back(args_[i]);
  }
  return plain;
}

std::string Arguments::Unknown() const {
  for (size_t i = 0; i < args_.size(); ++i) {
    if (args_[i] == "--") break;
    if (!taken_[i] && args_[i].size() > 1 && args_[i][0] == '-') return args_[i];
  }
  return "";
}

bool ParseCount(const std::string& text, uint32_t* value) {
  if (text.empty() || text.size() > 10) return false;
  uint64_t result = 0;
  for (char c : text) {
    if (c < '0' || c > '9') return false;
    result = result * 10 + uint64_t(c - '0');
  }
  if (result > 0xFFFFFFFFull) return false;
  *value = uint32_t(result);
  return true;
}

bool ParseInt(const std::string& text, int32_t* value) {
  if (text.empty()) return false;
  const bool negative = text[0] == '-';
  uint32_t magnitude = 0;
  if (!ParseCount(negative || text[0] == '+' ? text.substr(1) : text, &magnitude)) return false;
  if (magnitude > (negative ? 2147483648u : 2147483647u)) return false;
  *value = negative ? int32_t(-int64_t(magnitude)) : int32_t(magnitude);
  return true;
}

namespace {

constexpr uint32_t Tag(const char* name) {
  return uint32_t(uint8_t(name[0])) | uint32_t(uint8_t(name[1])) << 8 |
         uint32_t(uint8_t(name[2])) << 16 | uint32_t(uint8_t(name[3])) << 24;
}

constexpr int32_t kMax = 2147483647;
constexpr int32_t kMin() { return -kMax - 1; }

}  // namespace

const std::vector<ToolParam>& ToolParams() {
  static const std::vector<ToolParam> params = {
      {"DXTC", Tag("DXTC"), 0, 6, false, 0,
       "DXT1 back end, 0..6 (see the ladder below); 0 asks for a graphics device, which does "
       "not exist here, so 3 runs"},
      {"RATI", Tag("RATI"), 1, kMax, false, 0,
       "target compression ratio: the frame budget is padded width x padded height x 3 / RATI"},
      {"SND", Tag("SND\0"), 0, 1, false, 0, "sound wanted at all (0: the movie has no sound)"},
      {"YUV", Tag("YUV\0"), 0, 1, false, 0, "code the frames in a YUV form (ZYL0)"},
      {"MOTI", Tag("MOTI"), 0, 8, false, 0, "motion candidates: 256 >> MOTI (ZYL0)"},
      {"FACT", Tag("FACT"), 0, 1, false, 0, "build and search fade references (ZYL0)"},
      {"THRD", Tag("THRD"), 0, 256, false, 0,
       "threads that share each frame's work, 0 one per core; the movie is the same for any "
       "count (ZYL0)"},
      {"cMIN", Tag("cMIN"), 0, kMax, false, 0, "lowest error threshold a frame may end on"},
      {"cMAX", Tag("cMAX"), 0, kMax, false, 0,
       "error at which the search stops trying to get smaller"},
      {"iRAT", Tag("iRAT"), 0, 1000, false, 0,
       "share of the frame budget kept as slack and as key frame extra, in percent"},
      {"iDMP", Tag("iDMP"), 0, kMax, false, 0, "extra budget of a key frame, in ms of slack"},
      {"iRNG", Tag("iRNG"), 0, kMax, false, 0,
       "shortest distance between two key frames the encoder chooses, in ms"},
      {"iFMT", Tag("iFMT"), 0, 1, false, 0,
       "key frame format: ZYL0 0 block tree, 1 still image; ZYL1 1 still image, 0 quad tree"},
      {"jFMT", Tag("jFMT"), 0, 1, false, 0, "P-frame format: 0 DXT1 blocks, 1 table blocks"},
      {"kFMT", Tag("kFMT"), 0, kMax, false, 0, "smallest size ratio of table blocks"},
      {"lFMT", Tag("lFMT"), 0, kMax, false, 0, "largest size ratio of table blocks, key frames"},
      {"mFMT", Tag("mFMT"), 0, kMax, false, 0, "largest size ratio of table blocks, P-frames"},
      {"nFMT", Tag("nFMT"), 0, 1, false, 0, "section packer: 0 deflate, 1 LZMA"},
      {"oFMT", Tag("oFMT"), 0, kMax, false, 0, "sound lead base"},
      {"pFMT", Tag("pFMT"), 0, 63, false, 0,
       "sound flags: 32 puts the sound into the frames; 1, 2, 4, 8 ask for extra outputs"},
      {"qFMT", Tag("qFMT"), 0, 1, false, 0, "key frame on a sound block (ZYL1)"},
      {"rFMT", Tag("rFMT"), 0, 1, false, 0, "make the last frame of the job a key frame"},
      {"sFMT", Tag("sFMT"), 0, 0xFFFFFF, false, 0, "header value S (24 bits in ZYL0)"},
      {"tFMT", Tag("tFMT"), 0, kMax, false, 0, "header value T"},
      {"uFMT", Tag("uFMT"), 0, kMax, false, 0,
       "block table bytes of still images (rounded down to a multiple of 48)"},
      {"vFMT", Tag("vFMT"), 4096, 1 << 27, false, 0, "LZMA dictionary size in bytes"},
      {"wFMT", Tag("wFMT"), 0, 1, false, 0,
       "the encoders' console messages (shown with --verbose)"},
      {"xFMT", Tag("xFMT"), 0, 100, false, 0,
       "share of the mean frame budget set aside for I-frames, percent (ZYL1)"},
      {"yFMT", Tag("yFMT"), 0, kMax, false, 0, "I-frame credit maximum, ms (ZYL1)"},
      {"zFMT", Tag("zFMT"), 0, kMax, false, 0, "I-frame credit minimum, ms (ZYL1)"},
      {"{FMT", Tag("{FMT"), 0, kMax, false, 0, "I-frame credit cap, ms (ZYL1)"},
      {"HXTC", Tag("HXTC"), 0, kMax, true, 0,
       "stream header version word; 1, 2, 3 put IXTC and JXTC in the ZYL0 header"},
      {"IXTC", Tag("IXTC"), kMin(), kMax, true, 0, "third-from-last header word (versions 1-3)"},
      {"JXTC", Tag("JXTC"), kMin(), kMax, true, 0, "last header word (versions 1-3)"},
      {"EXTC", Tag("EXTC"), 0, 1, true, 0,
       "let sound go into the extra numbered outputs of pFMT (ZYL0)"},
      {"FXTC", Tag("FXTC"), kMin(), kMax, true, 0, "stored, unused"},
      {"GXTC", Tag("GXTC"), kMin(), kMax, true, 1, "stored, unused"},
  };
  return params;
}

const ToolParam* FindToolParam(const std::string& name) {
  for (const ToolParam& param : ToolParams()) {
    if (name == param.name) return &param;
  }
  // "SND\0" may be typed with its zero as "SND\\0" or "SND0".
  if (name == "SND\\0" || name == "SND0") return FindToolParam("SND");
  if (name == "YUV\\0" || name == "YUV0") return FindToolParam("YUV");
  return nullptr;
}

std::string TagText(uint32_t tag) {
  std::string text;
  for (int i = 0; i < 4; ++i) {
    const char c = char((tag >> (8 * i)) & 0xFF);
    if (c) text += c;
  }
  return text;
}

std::u16string Utf16(const std::string& text) { return zycUtf16(text); }

std::string HumanBytes(double bytes) {
  char text[32];
  if (bytes >= 1e6) {
    std::snprintf(text, sizeof(text), "%.2f MB", bytes / 1e6);
  } else if (bytes >= 1e4) {
    std::snprintf(text, sizeof(text), "%.0f kB", bytes / 1e3);
  } else if (bytes >= 1e3) {
    std::snprintf(text, sizeof(text), "%.1f kB", bytes / 1e3);
  } else {
    std::snprintf(text, sizeof(text), "%.0f B", bytes);
  }
  return text;
}

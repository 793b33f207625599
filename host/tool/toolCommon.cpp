#include "host/tool/toolCommon.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "base/fileIo.h"
#include "stream/zylFormat.h"

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

void Warn(const char* format, ...) {
  std::fflush(ToolOut());
  std::fputs("zyl: warning: ", stderr);
  va_list args;
  va_start(args, format);
  std::vfprintf(stderr, format, args);
  va_end(args);
  std::fputc('\n', stderr);
}

int LastGiven(const std::vector<std::pair<const char*, size_t>>& places) {
  int last = -1;
  for (size_t i = 0; i < places.size(); ++i) {
    if (places[i].second == std::string::npos) continue;
    if (last < 0 || places[i].second > places[size_t(last)].second) last = int(i);
  }
  for (size_t i = 0; i < places.size(); ++i) {
    if (int(i) == last || places[i].second == std::string::npos) continue;
    Warn("%s and %s set the same thing; the last given, %s, counts", places[i].first,
         places[size_t(last)].first, places[size_t(last)].first);
  }
  return last;
}

QuietConsole::QuietConsole(bool verbose) : verbose_(verbose) {
  ToolOut();  // the copy of the real output exists before the descriptor is moved
  std::fflush(stdout);
  int ends[2];
  if (pipe(ends) != 0) return;
  saved_ = dup(STDOUT_FILENO);
  if (saved_ < 0 || dup2(ends[1], STDOUT_FILENO) < 0) {
    if (saved_ >= 0) close(saved_);
    saved_ = -1;
    close(ends[0]);
    close(ends[1]);
    return;
  }
  close(ends[1]);
  reader_ = std::thread([this, readEnd = ends[0]] { Drain(readEnd); });
}

void QuietConsole::Drain(int readEnd) {
  constexpr size_t kKept = 16384;
  char buffer[4096];
  for (;;) {
    const ssize_t got = read(readEnd, buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    if (verbose_) {
      std::fwrite(buffer, 1, size_t(got), stderr);
      std::fflush(stderr);
    }
    caught_.append(buffer, size_t(got));
    if (caught_.size() > 2 * kKept) caught_.erase(0, caught_.size() - kKept);
  }
  close(readEnd);
}

std::string QuietConsole::Stop() {
  if (saved_ >= 0) {
    std::fflush(stdout);
    dup2(saved_, STDOUT_FILENO);  // the pipe's last writer goes: the reader meets its end
    close(saved_);
    saved_ = -1;
  }
  if (reader_.joinable()) reader_.join();
  return caught_;
}

QuietConsole::~QuietConsole() { Stop(); }

std::string LastConsoleLine(const std::string& text) {
  std::string clean;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\x1b') {  // a colour code: ESC [ ... m
      const size_t end = text.find('m', i);
      if (end == std::string::npos) break;
      i = end;
      continue;
    }
    clean += text[i];
  }
  size_t end = clean.size();
  while (end > 0) {
    while (end > 0 && (clean[end - 1] == '\n' || clean[end - 1] == ' ')) --end;
    const size_t start = clean.rfind('\n', end == 0 ? 0 : end - 1);
    const size_t from = start == std::string::npos ? 0 : start + 1;
    if (end > from) return clean.substr(from, end - from);
    if (start == std::string::npos) break;
    end = start;
  }
  return "";
}

Arguments::Arguments(const std::vector<std::string>& args) : args_(args) {
  taken_.assign(args_.size(), false);
}

bool Arguments::Flag(const char* name, size_t* at) {
  bool found = false;
  for (size_t i = 0; i < args_.size(); ++i) {
    if (args_[i] == "--") break;
    if (!taken_[i] && args_[i] == name) {
      taken_[i] = true;
      found = true;
      if (at) *at = i;
    }
  }
  if (!found && at) *at = std::string::npos;
  return found;
}

std::vector<std::pair<size_t, std::string>> Arguments::Occurrences(const char* name) {
  std::vector<std::pair<size_t, std::string>> values;
  const std::string withEquals = std::string(name) + "=";
  for (size_t i = 0; i < args_.size(); ++i) {
    if (args_[i] == "--") break;
    if (taken_[i]) continue;
    if (args_[i] == name) {
      taken_[i] = true;
      if (i + 1 < args_.size()) {
        taken_[i + 1] = true;
        values.emplace_back(i, args_[i + 1]);
        ++i;
      } else {
        missingValue_ = name;
      }
    } else if (args_[i].rfind(withEquals, 0) == 0) {
      taken_[i] = true;
      values.emplace_back(i, args_[i].substr(withEquals.size()));
    }
  }
  return values;
}

std::vector<std::string> Arguments::Values(const char* name) {
  std::vector<std::string> values;
  for (auto& [at, value] : Occurrences(name)) values.push_back(std::move(value));
  return values;
}

std::string Arguments::Value(const char* name, bool* given, size_t* at) {
  const auto values = Occurrences(name);
  if (given) *given = !values.empty();
  if (at) *at = values.empty() ? std::string::npos : values.back().first;
  if (values.empty()) return std::string();
  for (const auto& value : values) {
    if (value.second != values.back().second) {
      Warn("%s is given %zu times; the last, '%s', counts", name, values.size(),
           values.back().second.c_str());
      break;
    }
  }
  return values.back().second;
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
       "DXT1 back end, 0..6 (see the ladder below); zyl encode uses 6 unless given; 0 asks for "
       "a graphics device, which does not exist here, so 3 runs"},
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

bool Readable(const std::string& path, std::string* reason) {
  const int fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) {
    *reason = path + ": " + std::strerror(errno);
    return false;
  }
  char byte;
  const ssize_t got = read(fd, &byte, 1);
  const int error = errno;
  close(fd);
  if (got < 0) {
    *reason = path + ": " + std::strerror(error);
    return false;
  }
  return true;
}

bool LooksLikeMovie(const std::string& path, std::string* reason) {
  if (!Readable(path, reason)) return false;
  uint8_t magic[4] = {};
  FILE* file = std::fopen(path.c_str(), "rb");
  const size_t got = file ? std::fread(magic, 1, 4, file) : 0;
  if (file) std::fclose(file);
  const uint32_t word = uint32_t(magic[0]) | uint32_t(magic[1]) << 8 | uint32_t(magic[2]) << 16 |
                        uint32_t(magic[3]) << 24;
  // Files too short for a magic are left to the reader, which tells their size.
  if (got == 4 && word != kMagicZyl0 && word != kMagicZyl1) {
    *reason = path + ": not a movie (no ZYL0 or ZYL1 magic)";
    return false;
  }
  return true;
}

std::u16string Utf16(const std::string& text) { return zycUtf16(text); }

std::string Count(uint64_t count, const char* singular, const char* plural) {
  return std::to_string(count) + " " + (count == 1 ? singular : plural);
}

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

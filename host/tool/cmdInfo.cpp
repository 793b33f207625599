// zyl info: what a movie file holds, checked by the safe reader.
#include <cmath>
#include <string>

#include "host/tool/commands.h"
#include "host/tool/toolCommon.h"
#include "stream/container.h"
#include "stream/safeReader.h"

namespace {

const char kUsage[] =
    "usage: zyl info FILE [--json] [--quick] [--frames]\n"
    "\n"
    "Shows the header, the sections, the frame count, the duration and the data rate of a\n"
    "movie, and every problem the checked reader finds. Exit status 2 when there are any.\n"
    "\n"
    "options:\n"
    "  --json     one JSON object on stdout, for scripts\n"
    "  --quick    check the container only, without decoding the frames\n"
    "  --frames   list every frame: its kind, its bytes and its sound bytes\n";

// What a frame is, in words: ZYL1 frame kinds, ZYL0 key and inter frames.
const char* KindName(const zycSafeFrame& frame, bool zyl1) {
  if (!zyl1) return frame.key ? "key" : "inter";
  switch (frame.kind) {
    case kFrameKindStill: return "still";
    case kFrameKindQuadTree: return "quadtree";
    case kFrameKindPlanes: return "planes";
    default: return "repeat";
  }
}

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += char(c);
    } else if (c < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof(escaped), "\\u%04x", c);
      out += escaped;
    } else {
      out += char(c);
    }
  }
  return out + "\"";
}

std::string FlagNames(uint32_t flags) {
  std::string names;
  auto add = [&](uint32_t bit, const char* name) {
    if (!(flags & bit)) return;
    if (!names.empty()) names += ", ";
    names += name;
  };
  add(kHeaderFlagAlways, "always");
  add(kHeaderFlagSound, "sound");
  add(kHeaderFlagYuv, "yuv");
  add(kHeaderFlagWideMotion, "wide motion");
  add(32, "sound in frames");
  return names;
}

struct Summary {
  double duration = 0;
  double fps = 0;
  double kbits = 0;
  uint32_t keyFrames = 0;
  uint64_t soundBytes = 0;
  uint32_t kinds[4] = {};  // ZYL1: frames of each kind
};

// What `info` shows of one movie beside its header: the reader's findings and a summary.
struct Report {
  const zycSafeReader& reader;
  const std::string& path;
  const std::vector<std::string>& problems;
  bool zyl1;
  bool quick;
  bool listFrames;
  Summary s;
  const char* packing;
};

Summary Summarise(const zycSafeReader& reader) {
  const zycStreamHeader& h = reader.header();
  Summary s;
  if (h.frameDuration > 0 && h.timeScale > 0) {
    s.fps = double(h.timeScale) / h.frameDuration;
    s.duration = double(h.frameCount) * h.frameDuration / h.timeScale;
  }
  if (s.duration > 0) s.kbits = double(h.fileSize) * 8 / s.duration / 1000;
  for (const zycSafeFrame& frame : reader.frames()) {
    if (frame.key) ++s.keyFrames;
    s.soundBytes += frame.soundBytes;
    if (reader.isZyl1() && frame.kind < 4) ++s.kinds[frame.kind];
  }
  return s;
}

void PrintJson(const Report& report, FILE* out) {
  const zycSafeReader& reader = report.reader;
  const zycStreamHeader& h = reader.header();
  const std::string& path = report.path;
  const std::vector<std::string>& problems = report.problems;
  const bool zyl1 = report.zyl1, listFrames = report.listFrames;
  const Summary& s = report.s;
  const char* packing = report.packing;
  std::fprintf(out, "{\n  \"file\": %s,\n  \"format\": \"%s\",\n", JsonString(path).c_str(),
               zyl1 ? "ZYL1" : "ZYL0");
  std::fprintf(out,
               "  \"version\": %u,\n  \"fileSize\": %u,\n  \"flags\": %u,\n"
               "  \"frameCount\": %u,\n  \"frameDuration\": %u,\n  \"timeScale\": %u,\n"
               "  \"width\": %u,\n  \"height\": %u,\n  \"soundRate\": %u,\n"
               "  \"soundChannels\": %u,\n  \"soundChunkLimit\": %u,\n  \"packing\": \"%s\",\n",
               h.version, h.fileSize, h.flags, h.frameCount, h.frameDuration, h.timeScale,
               h.width, h.height, h.soundRate, h.soundChannels, h.soundChunkLimit, packing);
  std::fprintf(out, "  \"reserved36\": %u,\n  \"reserved52\": %u,\n", h.reserved36,
               h.reserved52);
  if (zyl1) {
    std::fprintf(out, "  \"headerSize\": %u,\n  \"paramS\": %u,\n  \"paramT\": %u,\n",
                 h.headerSize, h.paramS, h.paramT);
  } else if (zycTailHoldsWords(h.version)) {
    std::fprintf(out, "  \"tailWordI\": %u,\n  \"tailWordJ\": %u,\n", zycTailA(h),
                 zycTailB(h));
  } else {
    std::fprintf(out, "  \"paramS\": %u,\n  \"paramT\": %u,\n", zycTailParamS(h),
                 zycTailB(h));
  }
  std::fprintf(out,
               "  \"frameRate\": %.6f,\n  \"duration\": %.6f,\n  \"kbitPerSecond\": %.3f,\n"
               "  \"keyFrames\": %u,\n  \"soundBytes\": %llu,\n",
               s.fps, s.duration, s.kbits, s.keyFrames, (unsigned long long)s.soundBytes);
  if (zyl1) {
    std::fprintf(out,
                 "  \"frameKinds\": {\"still\": %u, \"quadtree\": %u, \"planes\": %u, "
                 "\"repeat\": %u},\n",
                 s.kinds[0], s.kinds[1], s.kinds[2], s.kinds[3]);
  }
  if (listFrames) {
    std::fprintf(out, "  \"frames\": [");
    const auto& frames = reader.frames();
    for (size_t i = 0; i < frames.size(); ++i) {
      std::fprintf(out, "%s\n    {\"kind\": \"%s\", \"bytes\": %u, \"soundBytes\": %u}",
                   i ? "," : "", KindName(frames[i], zyl1), frames[i].bytes,
                   frames[i].soundBytes);
    }
    std::fprintf(out, "%s],\n", frames.empty() ? "" : "\n  ");
  }
  std::fprintf(out, "  \"sections\": [");
  const auto& sections = reader.sections();
  for (size_t i = 0; i < sections.size(); ++i) {
    const zycSafeSection& section = sections[i];
    std::fprintf(out,
                 "%s\n    {\"offset\": %llu, \"firstFrame\": %u, \"frames\": %u, "
                 "\"bytes\": %u, \"unpackedBytes\": %llu, \"keyType\": %u}",
                 i ? "," : "", (unsigned long long)section.offset, section.firstFrame,
                 section.frames, section.packedBytes,
                 (unsigned long long)section.unpackedBytes, section.keyType);
  }
  std::fprintf(out, "%s],\n  \"undecodableFrames\": %u,\n  \"notes\": [",
               sections.empty() ? "" : "\n  ", reader.undecodableFrames());
  for (size_t i = 0; i < reader.notes().size(); ++i) {
    std::fprintf(out, "%s%s", i ? ", " : "", JsonString(reader.notes()[i]).c_str());
  }
  std::fprintf(out, "],\n  \"problems\": [");
  for (size_t i = 0; i < problems.size(); ++i) {
    std::fprintf(out, "%s\n    %s", i ? "," : "", JsonString(problems[i]).c_str());
  }
  std::fprintf(out, "%s]\n}\n", problems.empty() ? "" : "\n  ");
}

void PrintText(const Report& report, FILE* out) {
  const zycSafeReader& reader = report.reader;
  const zycStreamHeader& h = reader.header();
  const std::string& path = report.path;
  const std::vector<std::string>& problems = report.problems;
  const bool zyl1 = report.zyl1, listFrames = report.listFrames, quick = report.quick;
  const Summary& s = report.s;
  const char* packing = report.packing;
  std::fprintf(out, "%s\n", path.c_str());
  std::fprintf(out, "  format         %s, version %u, header %u bytes\n",
               zyl1 ? "ZYL1" : "ZYL0", h.version, zyl1 ? h.headerSize : kHeaderSizeZyl0);
  std::fprintf(out, "  file size      %u bytes\n", h.fileSize);
  std::fprintf(out, "  picture        %u x %u\n", h.width, h.height);
  std::fprintf(out, "  frames         %u (%u key frame%s, %zu section%s)\n", h.frameCount,
               s.keyFrames, s.keyFrames == 1 ? "" : "s", reader.sections().size(),
               reader.sections().size() == 1 ? "" : "s");
  if (zyl1) {
    std::fprintf(out, "  frame kinds    %u still, %u quadtree, %u planes, %u repeat\n",
                 s.kinds[0], s.kinds[1], s.kinds[2], s.kinds[3]);
  }
  std::fprintf(out, "  frame rate     %.3f fps (frame duration %u / %u s)\n", s.fps,
               h.frameDuration, h.timeScale);
  std::fprintf(out, "  duration       %.3f s\n", s.duration);
  std::fprintf(out, "  data rate      %.1f kbit/s\n", s.kbits);
  if (h.soundRate > 0 && h.soundChannels > 0) {
    std::fprintf(out, "  sound          %u channel%s, %u Hz, %llu bytes of ADPCM\n",
                 h.soundChannels, h.soundChannels == 1 ? "" : "s", h.soundRate,
                 (unsigned long long)s.soundBytes);
  } else {
    std::fprintf(out, "  sound          none\n");
  }
  if (!zyl1) {
    std::fprintf(out, "  flags          0x%x (%s)\n", h.flags, FlagNames(h.flags).c_str());
    std::fprintf(out, "  packing        %s\n", packing);
  }
  std::fprintf(out, "  header words   reserved36 %u, sound chunk limit %u, reserved52 %u",
               h.reserved36, h.soundChunkLimit, h.reserved52);
  if (zyl1) {
    std::fprintf(out, ", S %u, T %u\n", h.paramS, h.paramT);
  } else if (zycTailHoldsWords(h.version)) {
    std::fprintf(out, ", IXTC %u, JXTC %u\n", zycTailA(h), zycTailB(h));
  } else {
    std::fprintf(out, ", S %u, T %u\n", zycTailParamS(h), zycTailB(h));
  }
  std::fprintf(out, "  sections\n    %4s %12s %8s %8s %10s %12s%s\n", "#", "offset", "first",
               "frames", "bytes", "unpacked", zyl1 ? "  key" : "");
  const auto& sections = reader.sections();
  for (size_t i = 0; i < sections.size(); ++i) {
    const zycSafeSection& section = sections[i];
    std::fprintf(out, "    %4zu %12llu %8u %8u %10u %12llu%s\n", i,
                 (unsigned long long)section.offset, section.firstFrame, section.frames,
                 section.packedBytes, (unsigned long long)section.unpackedBytes,
                 zyl1 ? (section.keyType ? "  quadtree" : "  still") : "");
  }
  if (listFrames) {
    std::fprintf(out, "  frames\n    %6s %8s %10s %8s\n", "#", "kind", "bytes", "sound");
    const auto& frames = reader.frames();
    for (size_t i = 0; i < frames.size(); ++i) {
      std::fprintf(out, "    %6zu %8s %10u %8u\n", i, KindName(frames[i], zyl1),
                   frames[i].bytes, frames[i].soundBytes);
    }
  }
  if (reader.undecodableFrames() > 0) {
    std::fprintf(out, "  note           %s build on a damaged frame and were not decoded\n",
                 Count(reader.undecodableFrames(), "frame", "frames").c_str());
  }
  if (problems.empty()) {
    std::fprintf(out, "  problems       none%s\n", quick ? " in the container" : "");
  } else {
    std::fprintf(out, "  problems       %zu\n", problems.size());
    for (const std::string& problem : problems) std::fprintf(out, "    %s\n", problem.c_str());
    std::fprintf(out, "  (zyl repair cuts a movie left short to its last whole frame)\n");
  }
}

// Prints `text` as the one problem of a file that is not a movie; the exit status.
int NotAMovie(const std::string& path, const std::string& text, bool json) {
  if (json) {
    std::fprintf(ToolOut(), "{\"file\": %s, \"problems\": [%s]}\n", JsonString(path).c_str(),
                 JsonString(text).c_str());
  }
  return Fail(kExitInput, "%s", text.c_str());
}

}  // namespace

int RunInfo(const CommandArgs& words) {
  Arguments args(words);
  if (args.Flag("--help") || args.Flag("-h")) {
    std::fputs(kUsage, ToolOut());
    return kExitOk;
  }
  const bool json = args.Flag("--json");
  const bool quick = args.Flag("--quick");
  const bool listFrames = args.Flag("--frames");
  if (!args.Unknown().empty()) {
    return Fail(kExitUsage, "unknown option %s (see zyl info --help)", args.Unknown().c_str());
  }
  const std::vector<std::string> files = args.Plain();
  if (files.size() != 1) return Fail(kExitUsage, "info takes one FILE (see zyl info --help)");
  const std::string& path = files[0];

  std::string reason;
  if (!LooksLikeMovie(path, &reason)) return NotAMovie(path, reason, json);
  zycSafeReader reader;
  const bool opened = reader.Open(path);
  std::vector<std::string> problems = reader.problems();
  if (!opened && reader.header().magic != kMagicZyl0 && reader.header().magic != kMagicZyl1) {
    return NotAMovie(path, reader.error().empty() ? path + ": not a movie" : reader.error(), json);
  }
  if (!opened && problems.empty() && !reader.error().empty()) problems.push_back(reader.error());
  if (opened && !quick) problems = reader.CheckAll();
  // Bytes behind the movie's end are a problem here as they are to append and replace, which
  // would carry them into the middle of a movie.
  for (const std::string& note : reader.notes()) {
    problems.push_back(note + "; `zyl repair` cuts them");
  }

  const bool zyl1 = reader.isZyl1();
  const Report report{reader, path, problems, zyl1, quick, listFrames, Summarise(reader),
                      zyl1 ? "none" : zycPacking(reader.header()) == kPackingLzma ? "lzma"
                                                                                  : "deflate"};
  FILE* out = ToolOut();
  if (json) {
    PrintJson(report, out);
  } else {
    PrintText(report, out);
  }
  std::fflush(out);
  return problems.empty() ? kExitOk : kExitInput;
}

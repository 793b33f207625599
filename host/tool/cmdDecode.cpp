// zyl decode: a movie's pictures as Y4M, raw RGB or PNG files, through the checked reader.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <string>

#include "host/tool/commands.h"
#include "host/tool/frameWriters.h"
#include "host/tool/outputFiles.h"
#include "host/tool/toolCommon.h"
#include "stream/adpcmDecoder.h"
#include "stream/safeReader.h"

namespace {

const char kUsage[] =
    "usage: zyl decode FILE OUT [options]\n"
    "       zyl decode FILE -o OUT [options]\n"
    "       zyl decode FILE --audio OUT.wav\n"
    "\n"
    "Decodes the frames of a movie, cropped to the movie's size. OUT \"-\" is standard output\n"
    "(never a terminal). The kind of picture file follows OUT's extension: .y4m Y4M 4:2:0,\n"
    ".png numbered PNG files, .rgb or .raw raw RGB; other names and \"-\" get Y4M 4:2:0.\n"
    "\n"
    "options:\n"
    "  --444        Y4M, 4:4:4, BT.601 limited range (4:2:0 takes the mean of each 2x2 square)\n"
    "  --rgb        raw 24-bit frames: bytes R, G, B, top row first, frame after frame\n"
    "  --png        PNG files; OUT is a pattern such as frame%04d.png (a plain name for a\n"
    "               movie or a --count of one frame)\n"
    "  --first N    first frame to write (default 0)\n"
    "  --count N    frames to write (default: to the end)\n"
    "  --tree-view  paint the block tree of each ZYL0 frame instead of its picture\n"
    "  --audio W    write the movie's sound (of the same frames) to the WAV file W, \"-\" for\n"
    "               standard output (16-bit PCM)\n"
    "  -q, --quiet  no summary; only warnings and errors\n"
    "  -y, --overwrite  replace outputs that exist (without -y a terminal is asked, anything\n"
    "               else refused)\n"
    "  -n           never replace an output; refuse at once if one exists\n"
    "  --           ends the options: what follows are file names\n"
    "\n"
    "Each output is written beside its name and renamed into place once it is complete; an\n"
    "output that is the movie itself is refused.\n"
    "A frame the checked reader finds damaged is reported and the picture before it repeats;\n"
    "the exit status is then 2. A movie cut short gives its whole frames, with a warning.\n";

enum class Kind { y4m420, y4m444, rgb, png };

bool EndsWith(const std::string& text, const char* tail) {
  const size_t n = std::strlen(tail);
  if (text.size() < n) return false;
  for (size_t i = 0; i < n; ++i) {
    if (std::tolower(static_cast<unsigned char>(text[text.size() - n + i])) != tail[i]) return false;
  }
  return true;
}

}  // namespace

int RunDecode(const CommandArgs& words) {
  Arguments args(words);
  if (args.Flag("--help") || args.Flag("-h")) {
    std::fputs(kUsage, ToolOut());
    return kExitOk;
  }
  size_t rgbAt, pngAt, fullAt, outputAt;
  args.Flag("--rgb", &rgbAt);
  args.Flag("--png", &pngAt);
  args.Flag("--444", &fullAt);
  const bool treeView = args.Flag("--tree-view");
  const bool quiet = args.Flag("-q") | args.Flag("--quiet");
  bool audioGiven = false, firstGiven = false, countGiven = false;
  const std::string audioName = args.Value("--audio", &audioGiven);
  const std::string firstText = args.Value("--first", &firstGiven);
  const std::string countText = args.Value("--count", &countGiven);
  const std::string outputOption = args.Value("-o", nullptr, &outputAt);
  OverwritePolicy overwrite;
  if (!TakeOverwritePolicy(&args, &overwrite)) return kExitUsage;
  if (!args.missingValue().empty()) {
    return Fail(kExitUsage, "%s needs a value (see zyl decode --help)",
                args.missingValue().c_str());
  }
  if (!args.Unknown().empty()) {
    return Fail(kExitUsage, "unknown option %s (see zyl decode --help)", args.Unknown().c_str());
  }
  std::vector<std::string> files = args.Plain();
  if (outputAt != std::string::npos) files.push_back(outputOption);
  if (files.size() != 2 && !(files.size() == 1 && audioGiven)) {
    return Fail(kExitUsage, "decode takes FILE and OUT (see zyl decode --help)");
  }
  const std::string& path = files[0];
  const bool pictures = files.size() == 2;
  const std::string outName = pictures ? files[1] : std::string();
  uint32_t first = 0, count = 0;
  if (firstGiven && !ParseCount(firstText, &first)) {
    return Fail(kExitUsage, "--first wants a frame number, not '%s'", firstText.c_str());
  }
  if (countGiven && (!ParseCount(countText, &count) || count == 0)) {
    return Fail(kExitUsage, "--count wants a number of frames above 0, not '%s'",
                countText.c_str());
  }

  Kind kind = Kind::y4m420;
  const int chosen = LastGiven({{"--rgb", rgbAt}, {"--png", pngAt}, {"--444", fullAt}});
  if (chosen == 0) {
    kind = Kind::rgb;
  } else if (chosen == 1) {
    kind = Kind::png;
  } else if (chosen == 2) {
    kind = Kind::y4m444;
  } else if (EndsWith(outName, ".png")) {
    kind = Kind::png;
  } else if (EndsWith(outName, ".rgb") || EndsWith(outName, ".raw")) {
    kind = Kind::rgb;
  }
  const bool pipeOut = (pictures && outName == "-") || (audioGiven && audioName == "-");
  if (pictures && audioGiven && outName == "-" && audioName == "-") {
    return Fail(kExitUsage, "the pictures and the sound can't both go to standard output");
  }
  if (pipeOut && isatty(fileno(ToolOut()))) {
    return Fail(kExitUsage, "standard output is a terminal; give a file name or a pipe for \"-\"");
  }
  if (pictures && kind == Kind::png && outName == "-") {
    return Fail(kExitUsage, "PNG pictures are files of their own; give a pattern, not \"-\"");
  }

  // No output may be the movie, or the other output, even through a link.
  for (const std::string* out : {&outName, &audioName}) {
    if (out->empty() || *out == "-") continue;
    if (SameFile(*out, path)) {
      return Fail(kExitUsage, "%s is the movie being decoded; choose another output", out->c_str());
    }
  }
  if (pictures && audioGiven && outName != "-" &&
      (outName == audioName || SameFile(outName, audioName))) {
    return Fail(kExitUsage, "the pictures and the sound can't both go to %s", outName.c_str());
  }

  std::string reason;
  if (!LooksLikeMovie(path, &reason)) return Fail(kExitInput, "%s", reason.c_str());
  zycSafeReader reader;
  const bool whole = reader.Open(path);
  if (!whole) {
    // A movie cut short still gives the frames that are whole.
    if (reader.frames().empty()) return Fail(kExitInput, "%s", reader.error().c_str());
    Warn("%s; decoding the %s that are whole", reader.error().c_str(),
         Count(reader.frames().size(), "frame", "frames").c_str());
  }
  reader.SetTreeView(treeView);
  const zycStreamHeader& h = reader.header();
  if (h.width == 0 || h.height == 0) {
    return Fail(kExitInput, "%s: the movie has no picture size", path.c_str());
  }
  const uint32_t available = uint32_t(reader.frames().size());
  if (first >= available) {
    return Fail(kExitUsage, "--first %u is behind the last frame of %s (%s)", first,
                path.c_str(), Count(available, "frame", "frames").c_str());
  }
  const uint32_t end = count > 0 ? uint32_t(std::min<uint64_t>(uint64_t(first) + count, available))
                                 : available;
  const bool singlePicture = end - first == 1;
  if (pictures && kind == Kind::png && !singlePicture && !IsFramePattern(outName)) {
    return Fail(kExitUsage,
                "%s frames as PNG want OUT with one frame number, like frame%%04d.png, not '%s'",
                std::to_string(end - first).c_str(), outName.c_str());
  }

  // Outputs that exist are replaced only when the user allows it.
  const bool pngPattern = kind == Kind::png && !(singlePicture && !IsFramePattern(outName));
  if (audioGiven && audioName != "-" && !MayWrite(audioName, overwrite)) return kExitOutput;
  if (pictures && pngPattern) {
    for (uint32_t frame = first; frame < end; ++frame) {
      char name[4096];
      std::snprintf(name, sizeof name, outName.c_str(), int(frame - first));
      if (SameFile(name, path)) {
        return Fail(kExitUsage, "%s is the movie being decoded; choose another output", name);
      }
      struct stat st = {};
      if (lstat(name, &st) == 0) {
        if (!MayWrite(name, overwrite)) return kExitOutput;
        break;  // one answer covers the whole pattern
      }
    }
  } else if (pictures && outName != "-" && !MayWrite(outName, overwrite)) {
    return kExitOutput;
  }

  std::string error;
  std::unique_ptr<FrameWriter> writer;
  const char* kindText = "nothing";
  WavWriter wav;
  const uint32_t channels = h.soundChannels;
  if (audioGiven) {
    if (h.soundRate == 0 || (channels != 1 && channels != 2)) {
      return Fail(kExitInput, "%s has no sound to write to %s", path.c_str(), audioName.c_str());
    }
    uint64_t expected = 0;
    for (uint32_t i = first; i < end; ++i) {
      expected += uint64_t(zycAdpcmSamples(reader.frames()[i].soundBytes, channels)) * channels * 2;
    }
    if (!wav.Open(audioName, channels, h.soundRate, expected)) {
      return Fail(kExitOutput, "%s", wav.error().c_str());
    }
  }
  if (!pictures) {
  } else if (kind == Kind::rgb) {
    writer = MakeRgbWriter(outName, &error);
    kindText = "raw RGB";
  } else if (kind == Kind::png) {
    writer = MakePngWriter(outName, &error, !pngPattern);
    kindText = "PNG";
  } else {
    const bool full = kind == Kind::y4m444;
    writer = MakeY4mWriter(outName, full ? Y4mChroma::k444 : Y4mChroma::k420, h.width, h.height,
                           h.timeScale ? h.timeScale : 1, h.frameDuration ? h.frameDuration : 1,
                           &error);
    kindText = full ? "Y4M 4:4:4 (BT.601, limited range)" : "Y4M 4:2:0 (BT.601, limited range)";
  }
  if (pictures && !writer) return Fail(kExitOutput, "%s", error.c_str());

  uint32_t written = 0, damaged = 0, undecodable = 0;
  uint64_t soundSamples = 0;
  std::vector<int16_t> pcm;
  bool havePicture = false;
  std::vector<uint8_t> last;
  // Every frame is decoded, since each builds on the one before; those in range are written.
  for (uint32_t index = 0; index < end; ++index) {
    const zycSafeStatus status = reader.NextFrame();
    if (status == zycSafeStatus::end) break;
    if (status == zycSafeStatus::decoded) {
      last = reader.picture();
      havePicture = true;
    } else if (status == zycSafeStatus::damaged) {
      ++damaged;
      Note("%s", reader.frameError().c_str());
    } else {
      ++undecodable;
    }
    if (index < first) continue;
    if (audioGiven && reader.soundBytes() > 0 && status != zycSafeStatus::damaged) {
      pcm.resize(size_t(zycAdpcmSamples(reader.soundBytes(), channels)) * channels);
      const uint32_t samples =
          zycAdpcmDecode(reader.sound(), reader.soundBytes(), channels, pcm.data());
      if (!wav.Write(pcm.data(), size_t(samples) * channels)) {
        return Fail(kExitOutput, "%s", wav.error().c_str());
      }
      soundSamples += samples;
    }
    if (!pictures) {
      ++written;
      continue;
    }
    if (!havePicture) {
      // Nothing decoded yet: a black picture stands in.
      last.assign(size_t(reader.pictureWidth()) * reader.pictureHeight() * 4, 0);
      havePicture = true;
    }
    const uint32_t stride = reader.pictureWidth() * 4;
    if (last.size() < size_t(stride) * h.height || reader.pictureWidth() < h.width) {
      return Fail(kExitInput, "%s: the decoded picture is smaller than the movie", path.c_str());
    }
    if (!writer->Write({last.data(), stride, h.width, h.height})) {
      return Fail(kExitOutput, "%s", writer->error().c_str());
    }
    ++written;
  }
  if (writer && !writer->Finish()) return Fail(kExitOutput, "%s", writer->error().c_str());
  if (pictures && !quiet) {
    Note("decoded %s of %s, %ux%u, as %s%s", Count(written, "frame", "frames").c_str(),
         path.c_str(), h.width, h.height, kindText,
         treeView ? " with the block tree painted" : "");
  }
  if (audioGiven) {
    if (!wav.Finish()) return Fail(kExitOutput, "%s", wav.error().c_str());
    if (!quiet) Note("wrote %s: %.3f s of sound, %s at %u Hz",
         audioName == "-" ? "standard output" : audioName.c_str(),
         double(soundSamples) / h.soundRate, Count(channels, "channel", "channels").c_str(),
         h.soundRate);
  }
  if (undecodable > 0) {
    Note("%s use codings this build can't decode; the picture before each repeats",
         Count(undecodable, "frame", "frames").c_str());
  }
  if (damaged > 0) {
    return Fail(kExitInput, "%s damaged in %s", Count(damaged, "frame", "frames").c_str(),
                path.c_str());
  }
  if (!whole) {
    return Fail(kExitInput, "%s is damaged or cut short: %s of the %u its header gives could be "
                "decoded", path.c_str(), Count(available, "frame", "frames").c_str(),
                h.frameCount);
  }
  return kExitOk;
}

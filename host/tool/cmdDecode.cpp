// zyl decode: a movie's pictures as Y4M, raw RGB or PNG files, through the checked reader.
#include <sys/stat.h>

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
    "       zyl decode FILE --audio OUT.wav\n"
    "\n"
    "Decodes every frame of a movie, cropped to the movie's size. OUT \"-\" is stdout.\n"
    "\n"
    "options:\n"
    "  (none)       Y4M, 4:2:0 (chroma as the mean of each 2x2 square), BT.601 limited range\n"
    "  --444        Y4M, 4:4:4, BT.601 limited range\n"
    "  --rgb        raw 24-bit frames: bytes R, G, B, top row first, frame after frame\n"
    "  --png        numbered PNG files; OUT is a pattern such as frame%04d.png\n"
    "  --tree-view  paint the block tree of each ZYL0 frame instead of its picture\n"
    "  --audio W    write the movie's sound to the WAV file W (16-bit PCM)\n"
    "  -y, --overwrite  replace outputs that exist (without -y a terminal is asked, anything\n"
    "               else refused)\n"
    "  -n           never replace an output; refuse at once if one exists\n"
    "\n"
    "Each output is written beside its name and renamed into place once it is complete; an\n"
    "output that is the movie itself is refused.\n"
    "A frame the checked reader finds damaged is reported and the picture before it repeats;\n"
    "the exit status is then 2.\n";

}  // namespace

int RunDecode(const CommandArgs& words) {
  Arguments args(words);
  if (args.Flag("--help") || args.Flag("-h")) {
    std::fputs(kUsage, ToolOut());
    return kExitOk;
  }
  const bool rgb = args.Flag("--rgb");
  const bool png = args.Flag("--png");
  const bool full = args.Flag("--444");
  const bool treeView = args.Flag("--tree-view");
  bool audioGiven = false;
  const std::string audioName = args.Value("--audio", &audioGiven);
  OverwritePolicy overwrite;
  if (!TakeOverwritePolicy(&args, &overwrite)) return kExitUsage;
  if (!args.missingValue().empty()) {
    return Fail(kExitUsage, "%s needs a value (see zyl decode --help)",
                args.missingValue().c_str());
  }
  if (!args.Unknown().empty()) {
    return Fail(kExitUsage, "unknown option %s (see zyl decode --help)", args.Unknown().c_str());
  }
  if (int(rgb) + int(png) + int(full) > 1) {
    return Fail(kExitUsage, "choose one of --rgb, --png and --444");
  }
  const std::vector<std::string> files = args.Plain();
  if (files.size() != 2 && !(files.size() == 1 && audioGiven)) {
    return Fail(kExitUsage, "decode takes FILE and OUT (see zyl decode --help)");
  }
  const std::string& path = files[0];
  const bool pictures = files.size() == 2;
  const std::string outName = pictures ? files[1] : std::string();
  if (pictures && png && !IsFramePattern(outName)) {
    return Fail(kExitUsage, "--png wants OUT with one frame number, like frame%%04d.png, not '%s'",
                outName.c_str());
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

  zycSafeReader reader;
  if (!reader.Open(path)) return Fail(kExitInput, "%s", reader.error().c_str());
  reader.SetTreeView(treeView);
  const zycStreamHeader& h = reader.header();
  if (h.width == 0 || h.height == 0) {
    return Fail(kExitInput, "%s: the movie has no picture size", path.c_str());
  }

  // Outputs that exist are replaced only when the user allows it.
  if (audioGiven && !MayWrite(audioName, overwrite)) return kExitOutput;
  if (pictures && png) {
    for (uint32_t frame = 0; frame < h.frameCount; ++frame) {
      char name[4096];
      std::snprintf(name, sizeof name, outName.c_str(), int(frame));
      if (SameFile(name, path)) {
        return Fail(kExitUsage, "%s is the movie being decoded; choose another output", name);
      }
      struct stat st = {};
      if (lstat(name, &st) == 0) {
        if (!MayWrite(name, overwrite)) return kExitOutput;
        break;  // one answer covers the whole pattern
      }
    }
  } else if (pictures && !MayWrite(outName, overwrite)) {
    return kExitOutput;
  }

  std::string error;
  std::unique_ptr<FrameWriter> writer;
  const char* kind = "nothing";
  WavWriter wav;
  const uint32_t channels = h.soundChannels;
  if (audioGiven) {
    if (h.soundRate == 0 || (channels != 1 && channels != 2)) {
      return Fail(kExitInput, "%s has no sound to write to %s", path.c_str(), audioName.c_str());
    }
    if (!wav.Open(audioName, channels, h.soundRate)) {
      return Fail(kExitOutput, "%s", wav.error().c_str());
    }
  }
  if (!pictures) {
  } else if (rgb) {
    writer = MakeRgbWriter(outName, &error);
    kind = "raw RGB";
  } else if (png) {
    writer = MakePngWriter(outName, &error);
    kind = "PNG";
  } else {
    writer = MakeY4mWriter(outName, full ? Y4mChroma::k444 : Y4mChroma::k420, h.width, h.height,
                           h.timeScale ? h.timeScale : 1, h.frameDuration ? h.frameDuration : 1,
                           &error);
    kind = full ? "Y4M 4:4:4 (BT.601, limited range)" : "Y4M 4:2:0 (BT.601, limited range)";
  }
  if (pictures && !writer) return Fail(kExitOutput, "%s", error.c_str());

  uint32_t written = 0, damaged = 0, undecodable = 0;
  uint64_t soundSamples = 0;
  std::vector<int16_t> pcm;
  bool havePicture = false;
  std::vector<uint8_t> last;
  for (;;) {
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
  if (pictures) {
    Note("decoded %u frames of %s, %ux%u, as %s%s", written, path.c_str(), h.width, h.height,
         kind, treeView ? " with the block tree painted" : "");
  }
  if (audioGiven) {
    if (!wav.Finish()) return Fail(kExitOutput, "%s", wav.error().c_str());
    Note("wrote %s: %.3f s of sound, %u channel%s at %u Hz", audioName.c_str(),
         double(soundSamples) / h.soundRate, channels, channels == 1 ? "" : "s", h.soundRate);
  }
  if (undecodable > 0) {
    Note("%u frames build on a damaged frame and were not decoded; the picture before each repeats",
         undecodable);
  }
  if (damaged > 0) {
    return Fail(kExitInput, "%u damaged frames in %s", damaged, path.c_str());
  }
  return kExitOk;
}

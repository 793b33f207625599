// zyl params: the codec's parameter tags, their defaults as a fresh codec reads them, and what
// they mean.
#include <string>

#include "codec/zylCodec.h"
#include "host/tool/commands.h"
#include "host/tool/toolCommon.h"

namespace {

const char kUsage[] =
    "usage: zyl params\n"
    "\n"
    "Lists the parameter tags that zyl encode --param TAG=VALUE sets, with the defaults a\n"
    "fresh codec answers for each format.\n";

// The "DXTC" back ends, slowest and best first.
const char kDxtLadder[] =
    "DXTC back ends (slowest and best first):\n"
    "  0  a graphics device's texture compressor; there is none here, so 3 runs and DXTC\n"
    "     then reads 3\n"
    "  1  squish, iterative cluster fit, perceptual weights    slowest   best\n"
    "  2  squish, cluster fit, uniform weights                  slow      near 1\n"
    "  3  squish, range fit, uniform weights                    fast      fair\n"
    "  4  squish, cluster fit, perceptual weights               slow      near 1\n"
    "  5  min/max with inset, nearest entry by absolute sums    fastest   lowest\n"
    "  6  base-colour search with least-squares refinement      fast      good\n";

std::string DefaultText(zylCodec* codec, const ToolParam& param, uint32_t mode) {
  if (param.setOnly) return mode == 0 ? "(" + std::to_string(param.documentedDefault) + ")" : "";
  codec->SetCodecMode(mode);
  const int32_t value = codec->GetParam(param.tag);
  return value == -1 ? "-" : std::to_string(value);
}

}  // namespace

int RunParams(const CommandArgs& words) {
  Arguments args(words);
  if (args.Flag("--help") || args.Flag("-h")) {
    std::fputs(kUsage, ToolOut());
    return kExitOk;
  }
  if (!args.Unknown().empty() || !args.Plain().empty()) {
    return Fail(kExitUsage, "params takes no arguments");
  }
  zylCodec* codec = zylInitCodec(nullptr, 0);
  if (!codec) return Fail(kExitOutput, "out of memory making the codec");
  FILE* out = ToolOut();
  std::fprintf(out, "%-5s %9s %9s  %-11s  %s\n", "TAG", "zyl0", "zyl1", "accepts", "meaning");
  for (const ToolParam& param : ToolParams()) {
    const std::string zyl0 = DefaultText(codec, param, 0);
    const std::string zyl1 = DefaultText(codec, param, 1);
    std::string range;
    if (param.low == -2147483647 - 1) {
      range = "any";
    } else if (param.high == 2147483647) {
      range = std::to_string(param.low) + "..";
    } else {
      range = std::to_string(param.low) + ".." + std::to_string(param.high);
    }
    std::fprintf(out, "%-5s %9s %9s  %-11s  %s\n", param.name, zyl0.c_str(), zyl1.c_str(),
                 range.c_str(), param.meaning);
  }
  codec->Destroy();
  std::fprintf(out,
               "\n\"-\": not used by that format. (n): set only, the codec can't read it back.\n"
               "zyl encode sets DXTC=6 (the library's own default is 0), uFMT=230400, and iFMT=1\n"
               "for zyl1, unless given.\n\n%s",
               kDxtLadder);
  return kExitOk;
}

// zyl: the command-line tool over the movie codec.
#include <cstring>
#include <string>

#include "host/tool/commands.h"
#include "host/tool/toolCommon.h"

namespace {

const char kUsage[] =
    "usage: zyl COMMAND [arguments]   (zyl COMMAND --help for more)\n"
    "       zyl --version\n"
    "\n"
    "commands:\n"
    "  encode INPUT OUTPUT.zyl     encode any video file into a movie\n"
    "  info FILE                   header, sections, duration, data rate and problems\n"
    "  decode FILE OUT             decoded pictures as Y4M, raw RGB or PNG files, sound as WAV\n"
    "  append A.zyl B.zyl          append movie B to movie A\n"
    "  replace FILE REPLACEMENT --start N [--count M]\n"
    "                              replace a stretch of key-frame-aligned frames\n"
    "  repair FILE                 cut a movie left short (killed job, full disk) to its last\n"
    "                              whole frame\n"
    "  params                      the parameter tags, their defaults and meanings\n"
    "\n"
    "encode and decode: -o OUT names the output, -y replaces an output that exists and -n\n"
    "refuses at once, -q keeps quiet but for warnings and errors, \"-\" is standard input or\n"
    "output. Every command: -- ends the options; of two options that set the same thing,\n"
    "the last counts, with a warning.\n"
    "\n"
    "exit status:\n"
    "  0  success\n"
    "  1  usage error (unknown command or option, bad value, bad parameter tag)\n"
    "  2  input error (missing, unreadable, not a video, or a damaged movie)\n"
    "  3  output error (can't write, or the encoder refused the job)\n"
    "  4  stopped by Ctrl-C; the movie holds the frames done so far\n"
    "  5  append, replace: the two movies differ in a field they must share\n"
    "  6  replace: the frame range does not fit the movie's key frames or length\n";

}  // namespace

int main(int argc, char** argv) {
  ToolOut();  // keep a copy of the real standard output before anything silences it
  if (argc < 2) {
    std::fputs(kUsage, stderr);
    return kExitUsage;
  }
  const std::string command = argv[1];
  const CommandArgs args(argv + 2, argv + argc);
  if (command == "--help" || command == "-h" || command == "help") {
    std::fputs(kUsage, ToolOut());
    return kExitOk;
  }
  if (command == "--version" || command == "-V") {
    std::fprintf(ToolOut(), "zyl %s (ZYL0 and ZYL1 movies; ZYL0 encoding)\n", ZYL_VERSION);
    return kExitOk;
  }
  if (command == "encode") return RunEncode(args);
  if (command == "info") return RunInfo(args);
  if (command == "decode") return RunDecode(args);
  if (command == "append") return RunAppend(args);
  if (command == "replace") return RunReplace(args);
  if (command == "params") return RunParams(args);
  if (command == "repair") return RunRepair(args);
  return Fail(kExitUsage, "unknown command '%s' (zyl --help lists the commands)",
              command.c_str());
}

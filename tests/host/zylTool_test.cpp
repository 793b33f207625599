// The zyl tool end to end: the built binary run on real clips as a user would, with its exit
// codes, messages and the files it writes.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "base/byteIo.h"
#include "codec/framePump.h"
#include "host/source/ffmpegSource.h"
#include "tests/host/syntheticClip.h"
#include "tests/host/toolRun.h"
#include "tests/support/fileSizeLimit.h"
#include "tests/support/testMedia.h"

namespace {

using Result = ToolResult;

std::string ExampleClip() { return std::string(ZYL_SOURCE_DIR) + "/media/coin_pen_284x160_3s.mp4"; }
std::string Speech() { return zylMediaPath("walkers_speech_384x288_10fps_16k.mkv"); }

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

uint32_t Le32(const std::string& bytes, size_t at) { return zycLoad32(bytes.data() + at); }

// A number of `info --json`; -1 when the key is missing.
long Json(const std::string& movie, const std::string& key) {
  const std::string json = RunTool({"info", "--json", movie}).out;
  const size_t at = json.find("\"" + key + "\": ");
  return at == std::string::npos ? -1 : std::stol(json.substr(at + key.size() + 4));
}

// The names in a folder that begin with `prefix`.
std::vector<std::string> Named(const std::string& dir, const std::string& prefix) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      if (std::string(e->d_name).rfind(prefix, 0) == 0) names.push_back(dir + e->d_name);
    }
    closedir(d);
  }
  return names;
}

// Squared error of 24-bit pictures (`rgb` R, G, B against `bgr` B, G, R with `step` bytes a pixel).
double SquaredError(const uint8_t* rgb, const uint8_t* bgr, size_t pixels, int step) {
  double squared = 0;
  for (size_t p = 0; p < pixels; ++p) {
    for (int c = 0; c < 3; ++c) {
      const double d = double(rgb[p * 3 + c]) - bgr[p * step + 2 - c];
      squared += d * d;
    }
  }
  return squared;
}

struct CommandLine {
  std::vector<std::string> args;  // "OUT" stands for a fresh output name, "CLIP" the example clip
  int exit;
  std::vector<std::string> err = {};  // parts of standard error; none: it must be empty
  std::vector<std::string> out = {};  // parts of standard output; none: it must be empty
  bool outputKept = false;       // a movie is there afterwards
};

// Usage, help, option refusals and warnings: one command line a row.
TEST(ZylToolCommandLine, ExitCodesMessagesAndOutputs) {
  SyntheticClip soundOnly, late, six;
  soundOnly.video = false;
  late.frames = 10;  // 1 s of pictures; the sound starts 2 s later
  late.soundDelay = 2;
  six.width = 32;
  six.height = 16;
  six.frames = 10;
  six.channels = 6;
  ASSERT_EQ(WriteSyntheticClip(soundOnly, Dir() + "speech.wav"), "");
  ASSERT_EQ(WriteSyntheticClip(late, Dir() + "late.nut"), "");
  ASSERT_EQ(WriteSyntheticClip(six, Dir() + "six.nut"), "");
  const std::string clip = "CLIP";
  const std::vector<CommandLine> cases = {
      {{"--help"}, 0, {}, {"encode", "info", "decode", "append", "replace", "repair", "params",
                           "4  stopped by Ctrl-C"}},
      {{"encode", "--help"}, 0, {},
       {"--bitrate", "--size", "--scale", "--vf", "--fps", "--start", "--duration",
        "--key-interval", "-q, --quiet", "measured", "DXTC=6"}},
      {{"decode", "--help"}, 0, {}, {"--first", "--count", ".png", "standard output", "--tree-view"}},
      {{"params"}, 0, {},
       {"RATI        100       100", "SND           1", "DXTC back ends",
        "zyl encode uses 6 unless given"}},
      {{"--version"}, 0, {}, {"zyl 0."}},
      {{}, 1, {"usage"}, {}},
      {{"transcode", "a", "b"}, 1, {"unknown command 'transcode'"}},
      {{"info", "x.zyl", "--colour"}, 1, {"unknown option --colour"}},
      {{"encode", clip, "OUT", "--param", "QQQQ=1"}, 1, {"unknown parameter tag 'QQQQ'"}},
      {{"encode", clip, "OUT", "--param", "RATI=fast"}, 1,
       {"parameter RATI wants a whole number, not 'fast'"}},
      {{"encode", clip, "OUT", "--param", "DXTC=9"}, 1, {"DXTC=9 is out of range (0..6)"}},
      {{"encode", clip, "OUT", "--param", "SND"}, 1, {"SND"}},
      {{"encode", clip, "OUT", "--count", "1", "--ratio", "3", "--ratio", "40"}, 0,
       {"--ratio is given 2 times; the last, '40', counts"}, {}, true},
      {{"encode", clip, "OUT", "--count", "1", "--ratio", "40", "--bitrate", "300k"}, 0,
       {"--ratio and --bitrate set the same thing; the last given, --bitrate, counts"}, {}, true},
      {{"encode", clip, "OUT", "--count", "1", "--param", "MOTI=1", "--param", "MOTI=2"}, 0,
       {"MOTI is set to 1 and then to 2; the last counts"}, {}, true},
      {{"encode", clip, "OUT", "--count", "2", "--key-frames", "500"}, 0,
       {"key frame 500 is outside the frames encoded (0 to 1)"}, {}, true},
      {{"encode", clip, "OUT", "--count", "1", "--scale", "2x2"}, 0, {"the tool's floor"}, {},
       true},
      {{"encode", clip, "-o", "OUT", "--count", "1", "-q"}, 0, {}, {}, true},
      // The library's diagnostics go to standard error, after the tool's encode line.
      {{"encode", clip, "OUT", "--count", "1", "--verbose"}, 0,
       {"CompressionSize:", "wrote ", ": 1 frame, "}, {}, true},
      {{"encode", Dir() + "late.nut", "OUT", "-q"}, 0,
       {"do not overlap in time: the movie will be silent"}, {}, true},
      {{"encode", clip, "OUT", "--bitrate", "fast"}, 1, {"--bitrate wants bits a second"}},
      {{"encode", clip, "OUT", "--size", "5X"}, 1, {"--size wants bytes"}},
      {{"encode", clip, "OUT", "--start", "1:75"}, 1, {"--start wants a time"}},
      {{"encode", clip, "OUT", "--duration", "0"}, 1, {"--duration wants a time above 0"}},
      {{"encode", clip, "OUT", "--scale", "0x10"}, 1, {"--scale wants WxH"}},
      {{"encode", clip, "OUT", "--fps", "0"}, 1, {"--fps wants pictures a second"}},
      {{"encode", clip, "OUT", "--key-interval", "2x"}, 1, {"--key-interval wants frames"}},
      {{"encode", clip, "-"}, 1, {"the movie can't go to standard output"}},
      {{"encode", clip, "OUT", "--param", "pFMT=33"}, 1,
       {"pFMT=33 asks for phone sound outputs (bits 1, 2, 4, 8), whose sound library is not "
        "part of this build"}},
      {{"encode", clip, "OUT", "--vf", "nosuchfilter"}, 2,
       {"the picture filters 'nosuchfilter' were refused"}},
      {{"encode", "--", "-no-such-clip.mp4", "OUT"}, 2, {"-no-such-clip.mp4: No input!"}},
      {{"encode", Dir() + "speech.wav", "OUT"}, 2, {"speech.wav: No video stream found!"}},
      {{"info", Dir() + "no-such-movie.zyl"}, 2, {"no-such-movie.zyl: No such file or directory"}},
      {{"info", Dir()}, 2, {": Is a directory"}},
      {{"info", clip}, 2, {"not a movie (no ZYL0 or ZYL1 magic)"}},
      // LZMA sections need the packing byte that header versions 1 to 3 do not have.
      {{"encode", clip, "OUT", "--count", "1", "--lzma", "--param", "HXTC=1"}, 3,
       {"the encoder refused the job: Lzma packing needs a header version other than 1, 2 or 3"}},
      {{"encode", clip, Dir() + "no/such/dir/x.zyl", "--count", "2"}, 3,
       {"can't create the movie"}},
  };
  int n = 0;
  for (const CommandLine& c : cases) {
    const std::string output = Dir() + "option" + std::to_string(n++) + ".zyl";
    std::vector<std::string> args = c.args;
    std::string line;
    for (std::string& arg : args) {
      if (arg == "OUT") arg = output;
      if (arg == "CLIP") arg = ExampleClip();
      line += arg + " ";
    }
    SCOPED_TRACE(line);
    const Result result = RunTool(args);
    EXPECT_EQ(result.exit, c.exit) << result.err;
    for (const auto& [text, parts] : {std::pair{&result.err, &c.err}, {&result.out, &c.out}}) {
      if (parts->empty()) {
        EXPECT_EQ(*text, "");  // -q: nothing but warnings and errors
      }
      for (const std::string& part : *parts) EXPECT_TRUE(Has(*text, part)) << part << "\n" << *text;
    }
    // A refusal says why before anything claims that encoding began.
    if (c.exit != 0) {
      EXPECT_FALSE(Has(result.err, "zyl: encoding ")) << result.err;
    }
    EXPECT_EQ(Exists(output), c.outputKept);
  }

  // Six channels are downmixed to a stereo sound that is not silence.
  const std::string movie = Dir() + "six.zyl";
  const Result result = RunTool({"encode", Dir() + "six.nut", movie});
  ASSERT_EQ(result.exit, 0) << result.err;
  EXPECT_TRUE(Has(result.err, "sound downmixed from 6 to 2 channels")) << result.err;
  EXPECT_EQ(Json(movie, "soundChannels"), 2);
  EXPECT_GT(Json(movie, "soundBytes"), 1000);
  const Result wav = RunTool({"decode", movie, "--audio", "-", "-q"});
  ASSERT_EQ(wav.exit, 0) << wav.err;
  ASSERT_GT(wav.out.size(), 1044u);
  int loud = 0;
  for (size_t at = 44; at + 1 < wav.out.size(); at += 2) {
    const int16_t sample = int16_t(uint8_t(wav.out[at]) | uint8_t(wav.out[at + 1]) << 8);
    if (sample > 2000 || sample < -2000) ++loud;
  }
  EXPECT_GT(loud, int(wav.out.size() / 8));
}

// One short movie of the example clip, made once for the whole suite.
class ZylTool : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    movie_ = Dir() + "five.zyl";
    encode_ = RunTool({"encode", ExampleClip(), movie_, "--count", "5", "--ratio", "40"});
  }
  void SetUp() override { ASSERT_EQ(encode_.exit, 0) << encode_.err; }
  static std::string movie_;
  static Result encode_;
};
std::string ZylTool::movie_;
Result ZylTool::encode_;

TEST_F(ZylTool, InfoDescribesTheMovieAndDecodedPicturesLookLikeTheSource) {
  EXPECT_TRUE(Has(encode_.err, "wrote ")) << encode_.err;
  EXPECT_EQ(encode_.out, "");  // the library's console stays quiet
  const Result info = RunTool({"info", movie_});
  EXPECT_EQ(info.exit, 0) << info.out << info.err;
  for (const char* line : {"picture        284 x 160", "frame rate     30.000 fps", "problems       none",
                           "sound          1 channel, 44100 Hz"}) {
    EXPECT_TRUE(Has(info.out, line)) << info.out;
  }

  const std::string raw = Dir() + "five.rgb";
  const Result result = RunTool({"decode", movie_, raw, "--rgb"});
  ASSERT_EQ(result.exit, 0) << result.err;
  const std::string bytes = ReadFile(raw);
  ASSERT_GT(bytes.size(), 0u);
  ASSERT_EQ(bytes.size() % (284 * 160 * 3), 0u);
  // The first movie frame against the source's first frames: close in every channel (a
  // swapped channel or an upside-down picture is far off).
  zycFfmpegSource media;
  ASSERT_TRUE(media.Open(ExampleClip(), false));
  zylFrameImage image;
  ASSERT_TRUE(SeekToFrame(media.source(), 0));
  double best = 0;
  for (int frame = 0; frame < 3; ++frame) {
    ASSERT_TRUE(GrabFrame(media.source(), image));
    const double squared = SquaredError(reinterpret_cast<const uint8_t*>(bytes.data()),
                                        image.pixels, 284 * 160, 4);
    best = std::max(best, 10 * std::log10(255.0 * 255.0 / (squared / (284 * 160 * 3) + 1e-9)));
  }
  EXPECT_GT(best, 25.0);
}

TEST_F(ZylTool, AppendJoinsTwoMoviesAndReplaceSwapsAKeyFrameAlignedStretch) {
  const std::string joined = Dir() + "twice.zyl";
  WriteFile(joined, ReadFile(movie_));
  Result result = RunTool({"append", joined, movie_});
  ASSERT_EQ(result.exit, 0) << result.err;
  const long frames = Json(movie_, "frameCount");
  EXPECT_EQ(Json(joined, "frameCount"), 2 * frames);
  EXPECT_TRUE(Has(RunTool({"info", "--json", joined}).out, "\"problems\": []"));
  const std::string before = ReadFile(joined);
  // The second half is one section; replace it by the movie itself, byte for byte the same.
  result = RunTool({"replace", joined, movie_, "--start", std::to_string(frames)});
  ASSERT_EQ(result.exit, 0) << result.err;
  EXPECT_EQ(ReadFile(joined), before);
  // A start inside a section is refused and changes nothing.
  result = RunTool({"replace", joined, movie_, "--start", "1"});
  EXPECT_EQ(result.exit, 6);
  EXPECT_TRUE(Has(result.err, "frame 1 of")) << result.err;
  EXPECT_TRUE(Has(result.err, "is not a key frame")) << result.err;
  EXPECT_EQ(ReadFile(joined), before);
  EXPECT_FALSE(Exists(Dir() + "twicetmp.zyl"));
}

TEST_F(ZylTool, DamagedMovieIsReportedAndRefused) {
  std::string bytes = ReadFile(movie_);
  ASSERT_GT(bytes.size(), 200u);
  const std::string damaged = Dir() + "damaged.zyl";
  WriteFile(damaged, bytes.substr(0, bytes.size() - 100));  // the last frame is cut short
  Result result = RunTool({"info", damaged});
  EXPECT_EQ(result.exit, 2);
  EXPECT_FALSE(Has(result.out, "problems       none")) << result.out;
  const std::string target = Dir() + "target.zyl";
  WriteFile(target, bytes);
  result = RunTool({"append", target, damaged});
  EXPECT_EQ(result.exit, 2);
  EXPECT_TRUE(Has(result.err, "nothing was changed")) << result.err;
  EXPECT_EQ(ReadFile(target), bytes);
  // Decoding gives the frames that are whole, and still says the movie is damaged.
  result = RunTool({"decode", damaged, Dir() + "damaged.y4m"});
  EXPECT_EQ(result.exit, 2);
  EXPECT_TRUE(Has(result.err, "that are whole")) << result.err;
  const std::string y4m = ReadFile(Dir() + "damaged.y4m");
  const size_t frame = 6 + 284 * 160 + 2 * 142 * 80;
  const size_t header = y4m.find('\n') + 1;
  EXPECT_EQ((y4m.size() - header) % frame, 0u);
  EXPECT_GE((y4m.size() - header) / frame, 2u);
}

TEST_F(ZylTool, CtrlCStopsBetweenFramesAndLeavesAValidMovie) {
  const std::string movie = Dir() + "stopped.zyl";
  const std::string out = Dir() + "stop_out.txt", err = Dir() + "stop_err.txt";
  const pid_t pid = StartTool({"encode", ExampleClip(), movie, "--count", "100"}, out, err);
  ASSERT_GT(pid, 0);
  // Wait until the first frame is on disk (beside the final name): the tool is then inside the
  // job.
  auto started = [&] {
    struct stat st = {};
    for (const std::string& part : Named(Dir(), "stopped.zyl.part"))
      if (stat(part.c_str(), &st) == 0 && st.st_size > 64) return true;
    return false;
  };
  for (int i = 0; i < 6000 && !started(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  kill(pid, SIGINT);
  const Result result = FinishTool(pid, out, err);
  EXPECT_EQ(result.exit, 4) << result.err;
  EXPECT_TRUE(Has(result.err, "stopped by Ctrl-C")) << result.err;
  EXPECT_EQ(RunTool({"info", movie}).exit, 0);  // under its final name
  EXPECT_TRUE(Named(Dir(), "stopped.zyl.part").empty());
}

// A killed job can't rename its movie: it stays beside the final name as OUTPUT.partXXXXXX,
// holding the frames done, possibly with a frame half written behind them. `zyl repair` makes
// it whole; `info` and `append` agree on whether it is.
TEST_F(ZylTool, AKilledEncodeLeavesAStagedMovieThatRepairMakesWhole) {
  for (const std::string format : {"zyl0", "zyl1"}) {
    SCOPED_TRACE(format);
    const std::string movie = Dir() + "killed_" + format + ".zyl";
    const std::string out = Dir() + "kill_out.txt", err = Dir() + "kill_err.txt";
    const pid_t pid = StartTool(
        {"encode", ExampleClip(), movie, "--format", format, "--count", "100"}, out, err);
    ASSERT_GT(pid, 0);
    // Let a few frames reach the disk (the header counts them), then end the process with no
    // chance to tidy up: most likely in the middle of a frame.
    std::string part;
    auto framesOnDisk = [&] {
      const std::vector<std::string> parts = Named(Dir(), "killed_" + format + ".zyl.part");
      if (parts.empty()) return 0u;
      part = parts[0];
      const std::string bytes = ReadFile(part);
      return bytes.size() < 20 ? 0u : Le32(bytes, 16);
    };
    for (int i = 0; i < 12000 && framesOnDisk() < 3; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_FALSE(Exists(movie));
    ASSERT_FALSE(part.empty());

    const Result info = RunTool({"info", part});
    const std::string target = Dir() + "killedTarget.zyl";
    WriteFile(target, ReadFile(movie_));
    if (format == "zyl0") {
      const Result append = RunTool({"append", target, part});
      EXPECT_EQ(info.exit == 0, append.exit == 0) << info.out << append.err;
    }
    const Result repair = RunTool({"repair", part});
    EXPECT_EQ(repair.exit, 0) << repair.err;
    const Result again = RunTool({"info", part});
    EXPECT_EQ(again.exit, 0) << again.out;
    EXPECT_TRUE(Has(again.out, "problems       none")) << again.out;
    EXPECT_TRUE(Has(RunTool({"repair", part}).err, "is whole"));
    EXPECT_EQ(RunTool({"decode", part, Dir() + "killed_" + format + ".y4m"}).exit, 0);
    std::remove(part.c_str());
  }
}

// Movies left short three ways: the header patched ahead of its section, a frame's bytes
// behind the end, and the last frame cut inside its section. Repair gives back exactly the
// movie of the whole frames an encode of that many frames writes.
TEST_F(ZylTool, RepairCutsToTheLastWholeFrame) {
  const std::string whole = ReadFile(movie_);
  const std::string fourPath = Dir() + "four.zyl";
  ASSERT_EQ(RunTool({"encode", ExampleClip(), fourPath, "--count", "4", "--ratio", "40"}).exit, 0);
  const std::string four = ReadFile(fourPath);
  std::string patchedAhead = whole;
  zycStore32(&patchedAhead[16], zycLoad32(whole.data() + 16) + 1);
  zycStore32(&patchedAhead[8], uint32_t(whole.size() + 500));
  const struct {
    std::string bytes;
    const std::string* repaired;
  } cases[] = {{patchedAhead, &whole},
               {whole + std::string(100, '\x55'), &whole},
               {whole.substr(0, whole.size() - 10), &four}};
  for (const auto& c : cases) {
    const std::string path = Dir() + "repairMe.zyl";
    WriteFile(path, c.bytes);
    EXPECT_EQ(RunTool({"info", path}).exit, 2);
    const Result repair = RunTool({"repair", path});
    EXPECT_EQ(repair.exit, 0) << repair.err;
    EXPECT_TRUE(ReadFile(path) == *c.repaired) << repair.err;
  }
}

// A full disk, made two ways: a real 200 kB tmpfs where this process may mount one (filled up
// to a given room), and a file size limit that every run has. Each command fails with exit 3
// and the system's reason, every input stays byte for byte as it was, and nothing is left that
// claims to be whole: no staged or temporary file, and an encode's movie only with the whole
// frames that fitted.
TEST_F(ZylTool, AFullDiskFailsEachCommandAndKeepsEveryInput) {
  const struct {
    const char* command;
    uint64_t room;  // bytes the command may still write
  } commands[] = {{"encode", 24000}, {"append", 4000}, {"replace", 4000},
                  {"decode", 4000},  {"png", 4000},    {"wav", 4000}};
  for (const bool tmpfs : {true, false}) {
    const std::string dir = Dir() + (tmpfs ? "tmpfs/" : "limited/");
    mkdir(dir.c_str(), 0755);
    if (tmpfs && mount("tmpfs", dir.c_str(), "tmpfs", 0, "size=200k") != 0) {
      std::printf("no tmpfs here (%s): the file size limit stands in\n", std::strerror(errno));
      continue;
    }
    for (const auto& c : commands) {
      SCOPED_TRACE(std::string(c.command) + (tmpfs ? " on a full tmpfs" : " at a size limit"));
      const std::string command = c.command;
      const std::string file1 = dir + "one.zyl";
      std::vector<std::string> args;
      if (command == "encode") {
        args = {"encode", ExampleClip(), dir + "e.zyl", "--count", "8", "--ratio", "10"};
      } else if (command == "append" || command == "replace") {
        WriteFile(file1, ReadFile(movie_));
        args = {command, file1, movie_};
        if (command == "replace") args.insert(args.end(), {"--start", "0"});
      } else if (command == "decode") {
        args = {"decode", movie_, dir + "d.y4m"};
      } else if (command == "png") {
        args = {"decode", movie_, dir + "f%02d.png", "--png"};
      } else {
        args = {"decode", movie_, "--audio", dir + "s.wav"};
      }
      std::vector<std::string> inputs = {args[1]};
      if (command == "append" || command == "replace") inputs.push_back(args[2]);
      std::vector<std::string> before;
      for (const std::string& input : inputs) before.push_back(ReadFile(input));
      const uint64_t grows = command == "append" ? ReadFile(file1).size() : 0;

      const std::string filler = dir + "filler";
      if (tmpfs) {
        struct statvfs fs = {};
        ASSERT_EQ(statvfs(dir.c_str(), &fs), 0);
        const uint64_t space = uint64_t(fs.f_bavail) * fs.f_frsize;
        WriteFile(filler, std::string(space > c.room ? space - c.room : 0, 'f'));
      }
      const std::string outPath = Dir() + "full_out.txt", errPath = Dir() + "full_err.txt";
      pid_t pid;
      {
        // The limit is inherited by the tool; the test itself writes nothing meanwhile.
        zycFileSizeLimit limit(tmpfs ? RLIM_INFINITY : grows + c.room);
        ASSERT_TRUE(limit.ok());
        pid = StartTool(args, outPath, errPath);
      }
      const Result result = FinishTool(pid, outPath, errPath);
      std::remove(filler.c_str());

      EXPECT_EQ(result.exit, 3) << result.err;
      EXPECT_TRUE(Has(result.err, tmpfs ? "(No space left on device)" : "(File too large)"))
          << result.err;
      for (size_t i = 0; i < inputs.size(); ++i) {
        EXPECT_TRUE(ReadFile(inputs[i]) == before[i]) << inputs[i];
      }
      // The room holds the first frame of the encode, not all of them.
      if (command == "encode") {
        EXPECT_TRUE(Exists(dir + "e.zyl")) << result.err;
      }
      for (const std::string& name : Named(dir, "")) {
        const std::string base = name.substr(dir.size());
        if (base == "." || base == ".." || base == "one.zyl") continue;
        // An encode keeps the whole frames that fitted; nothing else stays.
        EXPECT_EQ(base, "e.zyl");
        EXPECT_EQ(RunTool({"info", name}).exit, 0);
        EXPECT_TRUE(Has(result.err, "holds the")) << result.err;
        std::remove(name.c_str());
      }
      std::remove(file1.c_str());
    }
    if (tmpfs) umount2(dir.c_str(), MNT_DETACH);
  }
}

// Existing outputs: never replaced without -y, never by a job that fails or is refused, and
// never when the output is an input.
TEST_F(ZylTool, ExistingOutputsAreKeptUnlessReplacingWasAskedFor) {
  const std::string old = Dir() + "old.zyl", link = Dir() + "oldLink.zyl";
  const std::string clash = Dir() + "oldtmp.zyl";
  const std::string keep = "an older file that must survive";
  symlink(old.c_str(), link.c_str());
  const struct {
    std::vector<std::string> args;
    std::string oldBytes;  // what old.zyl holds before (empty: the example movie)
    int exit;
    const char* message;
    bool replaced;
  } cases[] = {
      {{"encode", ExampleClip(), old, "--count", "2"}, keep, 3, "exists; -y (--overwrite)", false},
      {{"encode", ExampleClip(), old, "--count", "2", "-n"}, keep, 3, "exists; -y", false},
      {{"encode", ExampleClip(), old, "--count", "2", "--lzma", "--param", "HXTC=1", "-y"},
       keep, 3, "the encoder refused the job", false},
      {{"encode", ExampleClip(), old, "--count", "2", "-y"}, keep, 0, "wrote ", true},
      {{"decode", old, old}, "", 1, "is the movie being decoded", false},
      {{"decode", old, "--audio", link}, "", 1, "is the movie being decoded", false},
      {{"replace", old, movie_, "--start", "0"}, "", 3, "oldtmp.zyl exists", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[0] + " " + c.args.back());
    const std::string bytes = c.oldBytes.empty() ? ReadFile(movie_) : c.oldBytes;
    WriteFile(old, bytes);
    WriteFile(clash, keep);
    const Result result = RunTool(c.args);
    EXPECT_EQ(result.exit, c.exit) << result.err;
    EXPECT_TRUE(Has(result.err, c.message)) << result.err;
    if (c.replaced) {
      EXPECT_EQ(RunTool({"info", old}).exit, 0);
    } else {
      EXPECT_TRUE(ReadFile(old) == bytes);
    }
    EXPECT_EQ(ReadFile(clash), keep);
    EXPECT_TRUE(Named(Dir(), "old.zyl.part").empty());
  }
  std::remove(clash.c_str());
}

// Pictures that change a lot from frame to frame: each movie frame must be closest to the
// source frame at its own position, counted from --first.
TEST(ZylToolEncode, MovieFramesAreTheSourceFramesFromFirstOn) {
  SyntheticClip clip;
  clip.width = 64;
  clip.height = 48;
  clip.frames = 10;
  clip.channels = 0;
  const std::string input = Dir() + "steps.nut", movie = Dir() + "steps.zyl";
  ASSERT_EQ(WriteSyntheticClip(clip, input), "");
  const Result encode =
      RunTool({"encode", input, movie, "--first", "3", "--count", "4", "--ratio", "4"});
  ASSERT_EQ(encode.exit, 0) << encode.err;
  const std::string raw = Dir() + "steps.rgb";
  ASSERT_EQ(RunTool({"decode", movie, raw, "--rgb"}).exit, 0);
  const std::string bytes = ReadFile(raw);
  const size_t frameBytes = 64 * 48 * 3;
  ASSERT_GE(bytes.size() / frameBytes, 3u);
  for (size_t k = 0; k < bytes.size() / frameBytes; ++k) {
    int closest = -1;
    double closestError = 1e30;
    for (int source = 0; source < clip.frames; ++source) {
      const double error =
          SquaredError(reinterpret_cast<const uint8_t*>(bytes.data()) + k * frameBytes,
                       SyntheticPicture(clip, source).data(), 64 * 48, 3);
      if (error < closestError) {
        closestError = error;
        closest = source;
      }
    }
    EXPECT_EQ(closest, int(3 + k)) << "movie frame " << k;
  }
}

// A file whose player turns the pictures gives the movie upright pictures.
TEST(ZylToolEncode, RotationOfTheFileIsApplied) {
  SyntheticClip clip;
  clip.width = 32;
  clip.height = 16;
  clip.frames = 2;
  clip.channels = 0;
  clip.rotation = 90;
  const std::string input = Dir() + "turned.mov", movie = Dir() + "turned.zyl";
  ASSERT_EQ(WriteSyntheticClip(clip, input), "");
  const Result result = RunTool({"encode", input, movie, "--ratio", "1", "--count", "1"});
  ASSERT_EQ(result.exit, 0) << result.err;
  EXPECT_TRUE(Has(result.err, "pictures turned 90 degrees clockwise")) << result.err;
  const std::string rgb = Dir() + "turned.rgb";
  ASSERT_EQ(RunTool({"decode", movie, rgb, "-q"}).exit, 0);
  const std::string bytes = ReadFile(rgb);
  ASSERT_EQ(bytes.size(), 16u * 32 * 3);  // 16 wide, 32 high
  // Turned clockwise, the picture's bottom-left pixel is the upright picture's top-left.
  const std::vector<uint8_t> source = SyntheticPicture(clip, 0);  // B, G, R
  double clockwise = 0, anticlockwise = 0;
  for (int y = 0; y < 32; ++y) {
    for (int x = 0; x < 16; ++x) {
      const uint8_t* got = reinterpret_cast<const uint8_t*>(&bytes[(size_t(y) * 16 + x) * 3]);
      clockwise += SquaredError(got, &source[(size_t(15 - x) * 32 + y) * 3], 1, 3);
      anticlockwise += SquaredError(got, &source[(size_t(x) * 32 + (31 - y)) * 3], 1, 3);
    }
  }
  EXPECT_LT(clockwise * 3, anticlockwise);
}

// Pictures, times, key frames, packing and parameters asked for on the command line are what
// `info` reads back; the block tree view paints something else than the pictures.
TEST(ZylToolEncode, OptionsReachTheMovie) {
  const std::string shaped = Dir() + "shaped.zyl";
  // 0.3 s from 0.1 s at 20 fps: frames 2 to 7; a key frame every 0.1 s (2 frames).
  Result result =
      RunTool({"encode", Speech(), shaped, "--scale", "64x48", "--fps", "20", "--start", "0.1",
               "--duration", "0.3", "--key-interval", "0.1s", "--no-sound"});
  ASSERT_EQ(result.exit, 0) << result.err;
  EXPECT_TRUE(Has(result.err, "frames 2 to 7")) << result.err;
  EXPECT_EQ(Json(shaped, "width"), 64);
  EXPECT_EQ(Json(shaped, "height"), 48);
  EXPECT_EQ(Json(shaped, "frameCount"), 6);
  EXPECT_EQ(Json(shaped, "frameDuration") * 20, Json(shaped, "timeScale"));
  EXPECT_EQ(Json(shaped, "keyFrames"), 3);

  const std::string planned = Dir() + "planned.zyl";
  result = RunTool({"encode", ExampleClip(), planned, "--count", "6", "--key-frames", "3",
                    "--lzma", "--no-sound", "--param", "sFMT=70000", "--param=tFMT=9"});
  ASSERT_EQ(result.exit, 0) << result.err;
  const Result info = RunTool({"info", "--json", planned});
  ASSERT_EQ(info.exit, 0) << info.out;
  for (const char* part : {"\"packing\": \"lzma\"", "\"firstFrame\": 3, ", "\"soundRate\": 0,",
                           "\"paramS\": 70000,", "\"paramT\": 9,"}) {
    EXPECT_TRUE(Has(info.out, part)) << part << "\n" << info.out;
  }
  const std::string plain = Dir() + "planned.rgb", tree = Dir() + "planned_tree.rgb";
  ASSERT_EQ(RunTool({"decode", planned, plain, "--rgb"}).exit, 0);
  ASSERT_EQ(RunTool({"decode", planned, tree, "--rgb", "--tree-view"}).exit, 0);
  const std::string a = ReadFile(plain), b = ReadFile(tree);
  EXPECT_EQ(a.size(), b.size());
  EXPECT_NE(a, b);
}

// Real clips aimed at a data rate and at a file size land within 3% of it.
TEST(ZylToolEncode, BitrateAndSizeLandNearTheirTarget) {
  const struct {
    std::string clip;
    std::vector<std::string> args;
    double bytes;  // wanted
  } cases[] = {
      // 60 frames at 10 fps with 16 kHz sound: 6 s at 200 kbit/s.
      {Speech(), {"--count", "60", "--scale", "160x120", "--bitrate", "200k"}, 6 * 200e3 / 8},
      {zylMediaPath("tree_320x240_15fps_cinepak.avi"),
       {"--count", "30", "--scale", "160x120", "--size", "40k"}, 40e3},
  };
  int n = 0;
  for (const auto& c : cases) {
    const std::string movie = Dir() + "rate" + std::to_string(n++) + ".zyl";
    std::vector<std::string> args = {"encode", c.clip, movie};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const Result result = RunTool(args);
    ASSERT_EQ(result.exit, 0) << result.err;
    EXPECT_TRUE(Has(result.err, ", ratio ")) << result.err;  // the encode line tells the ratio
    const double bytes = double(ReadFile(movie).size());
    EXPECT_NEAR(bytes / c.bytes, 1.0, 0.03) << c.clip << ": " << bytes << " bytes";
  }
}

// A Y4M stream made by the tool's own decode, and a real Matroska file, both through
// standard input; the movie's pictures and sound come back through standard output.
TEST(ZylToolEncode, StandardInputAndOutputCarryMovies) {
  const std::string source = Dir() + "pipe_source.zyl", y4m = Dir() + "pipe.y4m";
  ASSERT_EQ(RunTool({"encode", Speech(), source, "--count", "6", "--scale", "96x72", "-q"}).exit,
            0);
  Result result = RunTool({"decode", source, "-", "-q"});
  ASSERT_EQ(result.exit, 0) << result.err;
  WriteFile(y4m, result.out);
  ASSERT_EQ(result.out.rfind("YUV4MPEG2 W96 H72 F1000000:100000", 0), 0u);

  const struct {
    std::string input;
    std::vector<std::string> extra;
    long soundRate;
  } cases[] = {{y4m, {}, 0}, {Speech(), {"--count", "4", "--scale", "96x72"}, 16000}};
  std::string movie;
  for (const auto& c : cases) {
    movie = Dir() + "piped" + std::to_string(c.soundRate) + ".zyl";
    std::vector<std::string> args = {"encode", "-", movie};
    args.insert(args.end(), c.extra.begin(), c.extra.end());
    result = RunTool(args, c.input);
    ASSERT_EQ(result.exit, 0) << c.input << "\n" << result.err;
    EXPECT_TRUE(Has(result.err, "encoding standard input")) << result.err;
    EXPECT_EQ(Json(movie, "width"), 96);
    EXPECT_EQ(Json(movie, "frameCount"), c.soundRate ? 4 : 6);
    EXPECT_EQ(Json(movie, "soundRate"), c.soundRate);
  }
  // The sound of the Matroska movie as WAV on standard output, with its sizes right.
  result = RunTool({"decode", movie, "--audio", "-", "-q"});
  ASSERT_EQ(result.exit, 0) << result.err;
  ASSERT_GT(result.out.size(), 44u);
  EXPECT_EQ(Le32(result.out, 4), result.out.size() - 8);
  EXPECT_EQ(Le32(result.out, 40), result.out.size() - 44);
  EXPECT_TRUE(Has(RunTool({"decode", source, "-", "--png"}).err, "give a pattern"));
  // Pictures to a terminal are refused.
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
  ASSERT_GE(terminal, 0);
  ASSERT_EQ(grantpt(terminal), 0);
  ASSERT_EQ(unlockpt(terminal), 0);
  const std::string err = Dir() + "terminal_err.txt";
  const pid_t pid = StartTool({"decode", source, "-"}, ptsname(terminal), err);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  close(terminal);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
  EXPECT_TRUE(Has(ReadFile(err), "standard output is a terminal")) << ReadFile(err);
}

TEST(ZylToolDecode, ChoosesByNameAndRange) {
  const std::string movie = Dir() + "range.zyl";
  ASSERT_EQ(RunTool({"encode", ExampleClip(), movie, "--count", "4", "--scale", "32x16", "-q"}).exit,
            0);
  const size_t rgbFrame = 32 * 16 * 3;
  const struct {
    std::vector<std::string> args;
    const char* file;
    int exit;
    size_t bytes;  // 0: only that it is there; with exit 1, that it is not
  } cases[] = {
      {{"--first", "1", "--count", "2"}, "range.rgb", 0, 2 * rgbFrame},
      {{"--count", "9"}, "all.raw", 0, 4 * rgbFrame},
      {{"--first", "3"}, "last.png", 0, 0},
      {{"--rgb"}, "forced.png", 0, 4 * rgbFrame},
      {{}, "many.png", 1, 0},
      {{"--first", "4"}, "behind.rgb", 1, 0},
      {{"--png"}, "f%03d.png", 0, 0},  // f000.png to f003.png
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = {"decode", movie, Dir() + c.file, "-q"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const Result result = RunTool(args);
    EXPECT_EQ(result.exit, c.exit) << c.file << "\n" << result.err;
    const std::string bytes = ReadFile(Dir() + c.file);
    if (std::string(c.file).find('%') != std::string::npos) {
      EXPECT_EQ(ReadFile(Dir() + "f000.png").substr(1, 3), "PNG");
      EXPECT_TRUE(Exists(Dir() + "f003.png"));
      EXPECT_FALSE(Exists(Dir() + "f004.png"));
    } else if (c.exit != 0) {
      EXPECT_FALSE(Exists(Dir() + c.file)) << c.file;
    } else if (c.bytes > 0) {
      EXPECT_EQ(bytes.size(), c.bytes) << c.file;
    } else {
      EXPECT_EQ(bytes.substr(1, 3), "PNG") << c.file;
    }
  }
}

TEST(ZylToolSurgery, AppendAndReplaceNameTheFieldThatDiffers) {
  const std::string base = Dir() + "base.zyl", copy = Dir() + "copy.zyl",
                    rate = Dir() + "rate25.zyl", size = Dir() + "small.zyl";
  auto encode = [&](const std::string& out, std::vector<std::string> extra) {
    std::vector<std::string> args = {"encode", ExampleClip(), out, "--count", "2", "--no-sound",
                                     "-q"};
    args.insert(args.end(), extra.begin(), extra.end());
    return RunTool(args).exit;
  };
  ASSERT_EQ(encode(base, {"--scale", "48x32"}), 0);
  ASSERT_EQ(encode(rate, {"--scale", "48x32", "--fps", "25"}), 0);
  ASSERT_EQ(encode(size, {"--scale", "32x32"}), 0);
  const std::string before = ReadFile(base);
  WriteFile(copy, before);
  const struct {
    std::vector<std::string> args;
    int exit;
    const char* message;
  } cases[] = {
      {{"append", base, rate}, 5, "frame rate differs: 30 fps against 25 fps"},
      {{"replace", base, rate, "--start", "0"}, 5, "frame rate differs: 30 fps against 25 fps"},
      {{"append", base, size}, 5, "picture size differs: 48x32 against 32x32"},
      {{"replace", base, size, "--start", "0"}, 5, "picture size differs: 48x32 against 32x32"},
      {{"replace", base, copy, "--start", "1"}, 6, "frames 1 to 2 are beyond the end"},
  };
  for (const auto& c : cases) {
    const Result result = RunTool(c.args);
    EXPECT_EQ(result.exit, c.exit) << c.args[0] << "\n" << result.err;
    EXPECT_TRUE(Has(result.err, c.message)) << result.err;
    EXPECT_EQ(ReadFile(base), before);
  }
}

// A ZYL1 movie with sound and two sections: info tells its frame kinds, decode writes every
// frame and the sound, and replace swaps its second section for a movie of the same kind.
TEST(ZylToolZyl1, EncodeInfoDecodeAndReplace) {
  const std::string movie = Dir() + "zyl1.zyl";
  const Result encode =
      RunTool({"encode", ExampleClip(), movie, "--format", "zyl1", "--count", "6", "--key-frames",
               "3", "--ratio", "20", "--param", "sFMT=70000", "--param", "tFMT=9"});
  ASSERT_EQ(encode.exit, 0) << encode.err;
  EXPECT_EQ(encode.out, "");  // the plane coder's console stays quiet too
  EXPECT_TRUE(Has(encode.err, "as ZYL1 with still-image key frames")) << encode.err;
  const Result info = RunTool({"info", movie, "--frames"});
  EXPECT_EQ(info.exit, 0) << info.out;
  for (const char* line : {"frames         6 (2 key frames, 2 sections)",
                           "frame kinds    2 still, 0 quadtree, ", "problems       none"}) {
    EXPECT_TRUE(Has(info.out, line)) << info.out;
  }
  EXPECT_EQ(Json(movie, "paramS"), 70000);
  EXPECT_EQ(Json(movie, "paramT"), 9);
  const std::string rgb = Dir() + "zyl1.rgb", wav = Dir() + "zyl1.wav";
  EXPECT_EQ(RunTool({"decode", movie, rgb, "--rgb"}).exit, 0);
  EXPECT_EQ(ReadFile(rgb).size(), size_t(284) * 160 * 3 * 6);
  EXPECT_EQ(RunTool({"decode", movie, "--audio", wav}).exit, 0);
  EXPECT_GT(ReadFile(wav).size(), 44u);

  const std::string part = Dir() + "zyl1_part.zyl";
  ASSERT_EQ(RunTool({"encode", ExampleClip(), part, "--format", "zyl1", "--first", "3",
                     "--count", "3", "--ratio", "20"})
                .exit,
            0);
  const Result replace = RunTool({"replace", movie, part, "--start", "3"});
  ASSERT_EQ(replace.exit, 0) << replace.err;
  const Result after = RunTool({"info", movie});
  EXPECT_EQ(after.exit, 0) << after.out;
  EXPECT_TRUE(Has(after.out, "frames         6 (2 key frames, 2 sections)")) << after.out;
}

}  // namespace

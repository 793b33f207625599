// The zyl tool's everyday options, run as a user would: option refusals and warnings, rate and
// size targets on real clips, pipes, downmixed sound, decode's choices, and the refusals of
// append and replace.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>

#include <string>
#include <vector>

#include "host/tool/progressBar.h"
#include "tests/host/syntheticClip.h"
#include "tests/host/toolRun.h"
#include "tests/support/testMedia.h"

namespace {

std::string Clip() { return std::string(ZYL_SOURCE_DIR) + "/media/coin_pen_284x160_3s.mp4"; }
std::string Speech() { return zylMediaPath("walkers_speech_384x288_10fps_16k.mkv"); }

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

uint32_t Le32(const std::string& bytes, size_t at) {
  return uint32_t(uint8_t(bytes[at])) | uint32_t(uint8_t(bytes[at + 1])) << 8 |
         uint32_t(uint8_t(bytes[at + 2])) << 16 | uint32_t(uint8_t(bytes[at + 3])) << 24;
}

// A number in the tool's JSON.
long JsonNumber(const std::string& json, const std::string& key) {
  const size_t at = json.find("\"" + key + "\": ");
  return at == std::string::npos ? -1 : std::stol(json.substr(at + key.size() + 4));
}

struct OptionCase {
  std::vector<std::string> args;  // "OUT" stands for a fresh output name
  int exit;
  const char* message;            // a part of standard error; "" for none wanted
  bool outputKept;                // a movie is there afterwards
};

TEST(ZylToolOptions, RefusalsAndWarningsOfTheCommandLine) {
  const std::string clip = Clip();
  const std::vector<OptionCase> cases = {
      {{"encode", clip, "OUT", "--count", "1", "--ratio", "3", "--ratio", "40"}, 0,
       "--ratio is given 2 times; the last, '40', counts", true},
      {{"encode", clip, "OUT", "--count", "1", "--ratio", "40", "--bitrate", "300k"}, 0,
       "--ratio and --bitrate set the same thing; the last given, --bitrate, counts", true},
      {{"encode", clip, "OUT", "--count", "1", "--param", "MOTI=1", "--param", "MOTI=2"}, 0,
       "MOTI is set to 1 and then to 2; the last counts", true},
      {{"encode", clip, "OUT", "--count", "2", "--key-frames", "500"}, 0,
       "key frame 500 is outside the frames encoded (0 to 1)", true},
      {{"encode", clip, "OUT", "--count", "1", "--scale", "2x2"}, 0, "the tool's floor", true},
      {{"encode", clip, "-o", "OUT", "--count", "1", "-q"}, 0, "", true},
      {{"encode", clip, "OUT", "--bitrate", "fast"}, 1, "--bitrate wants bits a second", false},
      {{"encode", clip, "OUT", "--size", "5X"}, 1, "--size wants bytes", false},
      {{"encode", clip, "OUT", "--start", "1:75"}, 1, "--start wants a time", false},
      {{"encode", clip, "OUT", "--duration", "0"}, 1, "--duration wants a time above 0", false},
      {{"encode", clip, "OUT", "--scale", "0x10"}, 1, "--scale wants WxH", false},
      {{"encode", clip, "OUT", "--fps", "0"}, 1, "--fps wants pictures a second", false},
      {{"encode", clip, "OUT", "--key-interval", "2x"}, 1, "--key-interval wants frames", false},
      {{"encode", clip, "OUT", "--vf", "nosuchfilter"}, 2,
       "the picture filters 'nosuchfilter' were refused", false},
      {{"encode", clip, "OUT", "--param", "pFMT=33"}, 1,
       "pFMT=33 asks for phone sound outputs (bits 1, 2, 4, 8), whose sound library is not "
       "part of this build", false},
      {{"encode", clip, "OUT", "--count", "2", "--format", "zyl1"}, 3,
       "the encoder refused the job: ZYL1 encoding is not available in this build", false},
      {{"encode", clip, "OUT", "--count", "1", "--param", "iFMT=1", "--scale", "1040x64"}, 3,
       "the encoder refused the job: Still image key frames are at most 1024 pixels wide or "
       "high", false},
      {{"encode", "--", "-no-such-clip.mp4", "OUT"}, 2, "-no-such-clip.mp4: No input!", false},
      {{"encode", clip, "-"}, 1, "the movie can't go to standard output", false},
      {{"info", Dir() + "no-such-movie.zyl"}, 2, "no-such-movie.zyl: No such file or directory",
       false},
      {{"info", Dir()}, 2, ": Is a directory", false},
      {{"info", clip}, 2, "not a movie (no ZYL0 or ZYL1 magic)", false},
  };
  int n = 0;
  for (const OptionCase& c : cases) {
    const std::string output = Dir() + "option" + std::to_string(n++) + ".zyl";
    std::vector<std::string> args = c.args;
    for (std::string& arg : args) {
      if (arg == "OUT") arg = output;
    }
    const ToolResult result = RunTool(args);
    std::string line;
    for (const std::string& arg : args) line += arg + " ";
    EXPECT_EQ(result.exit, c.exit) << line << "\n" << result.err;
    if (*c.message) {
      EXPECT_TRUE(Has(result.err, c.message)) << line << "\n" << result.err;
    } else {
      EXPECT_EQ(result.err, "") << line;  // -q: nothing but warnings and errors
    }
    // A refusal says why before anything claims that encoding began.
    if (c.exit != 0) {
      EXPECT_FALSE(Has(result.err, "zyl: encoding ")) << line << "\n" << result.err;
    }
    EXPECT_EQ(Exists(output), c.outputKept) << line;
    EXPECT_EQ(result.out, "") << line;  // the library's console never reaches standard output
  }
}

TEST(ZylToolOptions, VersionHelpAndVerbose) {
  ToolResult result = RunTool({"--version"});
  EXPECT_EQ(result.exit, 0);
  EXPECT_EQ(result.out.rfind("zyl 0.", 0), 0u) << result.out;
  result = RunTool({"encode", "--help"});
  for (const char* option : {"--bitrate", "--size", "--scale", "--vf", "--fps", "--start",
                             "--duration", "--key-interval", "-q, --quiet", "measured",
                             "DXTC=6"}) {
    EXPECT_TRUE(Has(result.out, option)) << option;
  }
  result = RunTool({"decode", "--help"});
  for (const char* option : {"--first", "--count", ".png", "standard output"}) {
    EXPECT_TRUE(Has(result.out, option)) << option;
  }
  EXPECT_TRUE(Has(RunTool({"params"}).out, "zyl encode uses 6 unless given"));
  // The library's diagnostics go to standard error, after the tool's encode line.
  result = RunTool({"encode", Clip(), Dir() + "verbose.zyl", "--count", "1", "--verbose"});
  EXPECT_EQ(result.exit, 0) << result.err;
  EXPECT_EQ(result.out, "");
  EXPECT_TRUE(Has(result.err, "CompressionSize:")) << result.err;
  EXPECT_TRUE(Has(result.err, "wrote ")) << result.err;
  EXPECT_TRUE(Has(result.err, ": 1 frame, ")) << result.err;
}

TEST(ZylToolOptions, ProgressLineFitsEightyColumns) {
  for (const uint32_t total : {0u, 7u, 99999u}) {
    ProgressBar bar(stderr, false, total, 123456789.0, 80);
    zylProgress progress = {};
    for (uint32_t frame = 0; frame < 3; ++frame) {
      progress.frameIndex = frame;
      progress.size = 987654321;
      progress.keyFrame = 1;
      bar.Update(progress);
    }
    for (const double seconds : {0.0, 0.001, 5000.0}) {
      const std::string line = bar.Line(seconds);
      EXPECT_LE(line.size(), 79u) << line;
      EXPECT_TRUE(Has(line, "3 keys")) << line;
    }
  }
}

// Real clips aimed at a data rate and at a file size land within 3% of it.
TEST(ZylToolOptions, BitrateAndSizeLandNearTheirTarget) {
  struct Case {
    std::string clip;
    std::vector<std::string> args;
    double bytes;  // wanted
  };
  const std::vector<Case> cases = {
      // 60 frames at 10 fps with 16 kHz sound: 6 s at 200 kbit/s.
      {Speech(), {"--count", "60", "--scale", "160x120", "--bitrate", "200k"}, 6 * 200e3 / 8},
      {zylMediaPath("tree_320x240_15fps_cinepak.avi"),
       {"--count", "30", "--scale", "160x120", "--size", "40k"}, 40e3},
  };
  int n = 0;
  for (const Case& c : cases) {
    const std::string movie = Dir() + "rate" + std::to_string(n++) + ".zyl";
    std::vector<std::string> args = {"encode", c.clip, movie};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const ToolResult result = RunTool(args);
    ASSERT_EQ(result.exit, 0) << result.err;
    EXPECT_TRUE(Has(result.err, ", ratio ")) << result.err;  // the encode line tells the ratio
    const double bytes = double(ReadFile(movie).size());
    EXPECT_NEAR(bytes / c.bytes, 1.0, 0.03) << c.clip << ": " << bytes << " bytes";
  }
}

// A Y4M stream made by the tool's own decode, and a real Matroska file, both through
// standard input; the movie's pictures and sound come back through standard output.
TEST(ZylToolOptions, StandardInputAndOutputCarryMovies) {
  const std::string source = Dir() + "pipe_source.zyl", y4m = Dir() + "pipe.y4m";
  ASSERT_EQ(RunTool({"encode", Speech(), source, "--count", "6", "--scale", "96x72", "-q"}).exit,
            0);
  ToolResult result = RunTool({"decode", source, "-", "-q"});
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
    const ToolResult info = RunTool({"info", "--json", movie});
    EXPECT_EQ(info.exit, 0) << info.out;
    EXPECT_EQ(JsonNumber(info.out, "width"), 96);
    EXPECT_EQ(JsonNumber(info.out, "frameCount"), c.soundRate ? 4 : 6);
    EXPECT_EQ(JsonNumber(info.out, "soundRate"), c.soundRate);
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

TEST(ZylToolOptions, SoundOfSixChannelsIsDownmixedToStereo) {
  SyntheticClip clip;
  clip.width = 32;
  clip.height = 16;
  clip.frames = 10;
  clip.channels = 6;
  const std::string input = Dir() + "six.nut", movie = Dir() + "six.zyl";
  ASSERT_EQ(WriteSyntheticClip(clip, input), "");
  const ToolResult result = RunTool({"encode", input, movie});
  ASSERT_EQ(result.exit, 0) << result.err;
  EXPECT_TRUE(Has(result.err, "sound downmixed from 6 to 2 channels")) << result.err;
  const ToolResult info = RunTool({"info", "--json", movie});
  EXPECT_EQ(JsonNumber(info.out, "soundChannels"), 2);
  EXPECT_GT(JsonNumber(info.out, "soundBytes"), 1000);
  const ToolResult wav = RunTool({"decode", movie, "--audio", "-", "-q"});
  ASSERT_EQ(wav.exit, 0) << wav.err;
  ASSERT_GT(wav.out.size(), 1044u);
  int loud = 0;
  for (size_t at = 44; at + 1 < wav.out.size(); at += 2) {
    const int16_t sample = int16_t(uint8_t(wav.out[at]) | uint8_t(wav.out[at + 1]) << 8);
    if (sample > 2000 || sample < -2000) ++loud;
  }
  EXPECT_GT(loud, int(wav.out.size() / 8));  // not silence
}

TEST(ZylToolOptions, SoundThatMissesThePicturesIsWarnedOf) {
  SyntheticClip clip;
  clip.frames = 10;  // 1 s of pictures; the sound starts 2 s later
  clip.soundDelay = 2;
  const std::string input = Dir() + "late.nut";
  ASSERT_EQ(WriteSyntheticClip(clip, input), "");
  const ToolResult result = RunTool({"encode", input, Dir() + "late.zyl", "-q"});
  EXPECT_EQ(result.exit, 0) << result.err;
  EXPECT_TRUE(Has(result.err, "do not overlap in time: the movie will be silent")) << result.err;
}

// A file whose player turns the pictures gives the movie upright pictures.
TEST(ZylToolOptions, RotationOfTheFileIsApplied) {
  SyntheticClip clip;
  clip.width = 32;
  clip.height = 16;
  clip.frames = 2;
  clip.channels = 0;
  clip.rotation = 90;
  const std::string input = Dir() + "turned.mov", movie = Dir() + "turned.zyl";
  ASSERT_EQ(WriteSyntheticClip(clip, input), "");
  const ToolResult result = RunTool({"encode", input, movie, "--ratio", "1", "--count", "1"});
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
      const uint8_t* cw = &source[(size_t(15 - x) * 32 + y) * 3];
      const uint8_t* acw = &source[(size_t(x) * 32 + (31 - y)) * 3];
      for (int c = 0; c < 3; ++c) {
        const double got = uint8_t(bytes[(size_t(y) * 16 + x) * 3 + c]);
        clockwise += std::abs(got - cw[2 - c]);
        anticlockwise += std::abs(got - acw[2 - c]);
      }
    }
  }
  EXPECT_LT(clockwise * 3, anticlockwise);
}

TEST(ZylToolOptions, PicturesTimesAndKeyFramesReachTheMovie) {
  const std::string movie = Dir() + "shaped.zyl";
  // 0.3 s from 0.1 s at 20 fps: frames 2 to 7; a key frame every 0.1 s (2 frames).
  const ToolResult result =
      RunTool({"encode", Speech(), movie, "--scale", "64x48", "--fps", "20", "--start", "0.1",
               "--duration", "0.3", "--key-interval", "0.1s", "--no-sound"});
  ASSERT_EQ(result.exit, 0) << result.err;
  EXPECT_TRUE(Has(result.err, "frames 2 to 7")) << result.err;
  const ToolResult info = RunTool({"info", "--json", movie});
  EXPECT_EQ(JsonNumber(info.out, "width"), 64);
  EXPECT_EQ(JsonNumber(info.out, "height"), 48);
  EXPECT_EQ(JsonNumber(info.out, "frameCount"), 6);
  EXPECT_EQ(JsonNumber(info.out, "frameDuration") * 20, JsonNumber(info.out, "timeScale"));
  EXPECT_EQ(JsonNumber(info.out, "keyFrames"), 3);
}

TEST(ZylToolOptions, DecodeChoosesByNameAndRange) {
  const std::string movie = Dir() + "range.zyl";
  ASSERT_EQ(RunTool({"encode", Clip(), movie, "--count", "4", "--scale", "32x16", "-q"}).exit, 0);
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
  };
  for (const auto& c : cases) {
    std::vector<std::string> args = {"decode", movie, Dir() + c.file, "-q"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const ToolResult result = RunTool(args);
    EXPECT_EQ(result.exit, c.exit) << c.file << "\n" << result.err;
    const std::string bytes = ReadFile(Dir() + c.file);
    if (c.exit != 0) {
      EXPECT_FALSE(Exists(Dir() + c.file)) << c.file;
    } else if (c.bytes > 0) {
      EXPECT_EQ(bytes.size(), c.bytes) << c.file;
    } else {
      EXPECT_EQ(bytes.substr(1, 3), "PNG") << c.file;
    }
  }
}

TEST(ZylToolOptions, AppendAndReplaceNameTheFieldThatDiffers) {
  const std::string base = Dir() + "base.zyl", copy = Dir() + "copy.zyl",
                    rate = Dir() + "rate25.zyl", size = Dir() + "small.zyl";
  const std::vector<std::string> common = {"--count", "2", "--no-sound", "-q"};
  auto encode = [&](const std::string& out, std::vector<std::string> extra) {
    std::vector<std::string> args = {"encode", Clip(), out};
    args.insert(args.end(), common.begin(), common.end());
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
    const ToolResult result = RunTool(c.args);
    EXPECT_EQ(result.exit, c.exit) << c.args[0] << "\n" << result.err;
    EXPECT_TRUE(Has(result.err, c.message)) << result.err;
    EXPECT_EQ(ReadFile(base), before);
  }
}

}  // namespace

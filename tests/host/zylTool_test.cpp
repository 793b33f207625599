// The zyl tool end to end: the built binary run on real clips, with its exit codes, messages
// and the files it writes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/byteIo.h"
#include "host/source/ffmpegSource.h"
#include "codec/framePump.h"
#include "tests/host/syntheticClip.h"
#include "tests/support/testMedia.h"

extern char** environ;

namespace {

struct Result {
  int exit = -1;
  std::string out;
  std::string err;
};

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

bool Exists(const std::string& path) {
  struct stat st = {};
  return stat(path.c_str(), &st) == 0;
}

std::string Dir() {
  static const std::string dir = [] {
    std::string path = ::testing::TempDir() + "zyl_tool_" + std::to_string(getpid());
    mkdir(path.c_str(), 0755);
    return path + "/";
  }();
  return dir;
}

pid_t Start(const std::vector<std::string>& args, const std::string& outPath,
            const std::string& errPath) {
  std::vector<std::string> all = {ZYL_TOOL_PATH};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& arg : all) argv.push_back(arg.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  pid_t pid = -1;
  posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

Result Finish(pid_t pid, const std::string& outPath, const std::string& errPath) {
  Result result;
  int status = 0;
  if (pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status)) {
    result.exit = WEXITSTATUS(status);
  }
  result.out = ReadFile(outPath);
  result.err = ReadFile(errPath);
  return result;
}

Result RunTool(const std::vector<std::string>& args) {
  const std::string out = Dir() + "stdout.txt", err = Dir() + "stderr.txt";
  return Finish(Start(args, out, err), out, err);
}

std::string ExampleClip() { return std::string(ZYL_SOURCE_DIR) + "/media/coin_pen_284x160_3s.mp4"; }

// One short movie of the example clip, made once for the whole suite.
class ZylTool : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    movie_ = Dir() + "five.zyl";
    encode_ = RunTool({"encode", ExampleClip(), movie_, "--count", "5", "--ratio", "40"});
  }
  static std::string movie_;
  static Result encode_;
};
std::string ZylTool::movie_;
Result ZylTool::encode_;

TEST(ZylToolUsage, HelpListsTheCommandsAndTheExitCodes) {
  const Result result = RunTool({"--help"});
  EXPECT_EQ(result.exit, 0);
  for (const char* text : {"encode", "info", "decode", "append", "replace", "params",
                           "4  stopped by Ctrl-C"}) {
    EXPECT_NE(result.out.find(text), std::string::npos) << text;
  }
  EXPECT_EQ(RunTool({"encode", "--help"}).exit, 0);
  EXPECT_NE(RunTool({"decode", "--help"}).out.find("--tree-view"), std::string::npos);
}

TEST(ZylToolUsage, UnknownCommandAndOptionAreUsageErrors) {
  Result result = RunTool({"transcode", "a", "b"});
  EXPECT_EQ(result.exit, 1);
  EXPECT_NE(result.err.find("unknown command 'transcode'"), std::string::npos) << result.err;
  result = RunTool({"info", "x.zyl", "--colour"});
  EXPECT_EQ(result.exit, 1);
  EXPECT_NE(result.err.find("unknown option --colour"), std::string::npos) << result.err;
  EXPECT_EQ(RunTool({}).exit, 1);
}

TEST(ZylToolUsage, BadParameterIsAUsageErrorThatNamesIt) {
  Result result = RunTool({"encode", ExampleClip(), Dir() + "p.zyl", "--param", "QQQQ=1"});
  EXPECT_EQ(result.exit, 1);
  EXPECT_NE(result.err.find("unknown parameter tag 'QQQQ'"), std::string::npos) << result.err;
  result = RunTool({"encode", ExampleClip(), Dir() + "p.zyl", "--param", "RATI=fast"});
  EXPECT_EQ(result.exit, 1);
  EXPECT_NE(result.err.find("parameter RATI wants a whole number, not 'fast'"), std::string::npos)
      << result.err;
  result = RunTool({"encode", ExampleClip(), Dir() + "p.zyl", "--param", "DXTC=9"});
  EXPECT_EQ(result.exit, 1);
  EXPECT_NE(result.err.find("DXTC=9 is out of range (0..6)"), std::string::npos) << result.err;
  result = RunTool({"encode", ExampleClip(), Dir() + "p.zyl", "--param", "SND"});
  EXPECT_EQ(result.exit, 1);
  EXPECT_FALSE(Exists(Dir() + "p.zyl"));  // nothing is written before the options are sound
}

TEST(ZylToolUsage, ParamsListsTheTagsWithLiveDefaults) {
  const Result result = RunTool({"params"});
  EXPECT_EQ(result.exit, 0);
  EXPECT_NE(result.out.find("RATI        100       100"), std::string::npos) << result.out;
  EXPECT_NE(result.out.find("SND           1"), std::string::npos);
  EXPECT_NE(result.out.find("DXTC back ends"), std::string::npos);
}

TEST(ZylToolInput, MissingFileIsAnInputErrorNamingIt) {
  const Result result = RunTool({"encode", Dir() + "absent.mp4", Dir() + "absent.zyl"});
  EXPECT_EQ(result.exit, 2);
  EXPECT_NE(result.err.find("absent.mp4: No input!"), std::string::npos) << result.err;
  EXPECT_EQ(RunTool({"info", Dir() + "absent.zyl"}).exit, 2);
}

TEST(ZylToolInput, FileWithoutPictureIsAnInputError) {
  SyntheticClip clip;
  clip.video = false;
  const std::string wav = Dir() + "speech.wav";
  ASSERT_EQ(WriteSyntheticClip(clip, wav), "");
  const Result result = RunTool({"encode", wav, Dir() + "speech.zyl"});
  EXPECT_EQ(result.exit, 2);
  EXPECT_NE(result.err.find("speech.wav: No video stream found!"), std::string::npos)
      << result.err;
}

TEST(ZylToolInput, RefusedJobIsAnOutputErrorAndLeavesNoFile) {
  // Still-image key frames take pictures up to 1024 x 1024 only.
  const std::string movie = Dir() + "refused.zyl";
  const Result result =
      RunTool({"encode", std::string(ZYL_MEDIA_DIR) + "/photo_flower_2268x1512.png", movie,
               "--format", "zyl1", "--key-format", "still", "--no-sound"});
  EXPECT_EQ(result.exit, 3);
  EXPECT_NE(result.err.find("the encoder refused the job"), std::string::npos) << result.err;
  EXPECT_FALSE(Exists(movie));
}

TEST(ZylToolInput, OutputThatCantBeCreatedIsAnOutputError) {
  const Result result =
      RunTool({"encode", ExampleClip(), Dir() + "no/such/dir/x.zyl", "--count", "2"});
  EXPECT_EQ(result.exit, 3);
  EXPECT_NE(result.err.find("can't create the movie"), std::string::npos) << result.err;
}

TEST_F(ZylTool, EncodeWritesAMovieThatInfoDescribes) {
  ASSERT_EQ(encode_.exit, 0) << encode_.err;
  EXPECT_NE(encode_.err.find("wrote "), std::string::npos) << encode_.err;
  EXPECT_EQ(encode_.out, "");  // the library's console stays quiet
  const Result info = RunTool({"info", movie_});
  EXPECT_EQ(info.exit, 0) << info.out << info.err;
  EXPECT_NE(info.out.find("picture        284 x 160"), std::string::npos) << info.out;
  EXPECT_NE(info.out.find("frame rate     30.000 fps"), std::string::npos) << info.out;
  EXPECT_NE(info.out.find("problems       none"), std::string::npos) << info.out;
  EXPECT_NE(info.out.find("sound          1 channel, 44100 Hz"), std::string::npos) << info.out;
  const Result json = RunTool({"info", "--json", movie_});
  EXPECT_EQ(json.exit, 0);
  EXPECT_NE(json.out.find("\"width\": 284"), std::string::npos) << json.out;
  EXPECT_NE(json.out.find("\"problems\": []"), std::string::npos) << json.out;
}

TEST_F(ZylTool, DecodedPicturesLookLikeTheSource) {
  ASSERT_EQ(encode_.exit, 0) << encode_.err;
  const std::string raw = Dir() + "five.rgb";
  const Result result = RunTool({"decode", movie_, raw, "--rgb"});
  ASSERT_EQ(result.exit, 0) << result.err;
  const std::string bytes = ReadFile(raw);
  const size_t frameBytes = 284 * 160 * 3;
  ASSERT_GT(bytes.size(), 0u);
  ASSERT_EQ(bytes.size() % frameBytes, 0u);
  // The first movie frame against the source's first frames: close in every channel (a
  // swapped channel or an upside-down picture is far off).
  zycFfmpegSource media;
  ASSERT_TRUE(media.Open(ExampleClip(), false));
  zylFrameImage image;
  ASSERT_TRUE(SeekToFrame(media.source(), 0));
  double best = 0;
  for (int frame = 0; frame < 3; ++frame) {
    ASSERT_TRUE(GrabFrame(media.source(), image));
    double squared = 0;
    for (size_t p = 0; p < 284 * 160; ++p) {
      for (int c = 0; c < 3; ++c) {
        const double d = double(uint8_t(bytes[p * 3 + c])) - image.pixels[p * 4 + (2 - c)];
        squared += d * d;
      }
    }
    const double psnr = 10 * std::log10(255.0 * 255.0 / (squared / (284 * 160 * 3) + 1e-9));
    best = std::max(best, psnr);
  }
  EXPECT_GT(best, 25.0);
}

// Pictures that change a lot from frame to frame: each movie frame must be closest to the
// source frame at its own position, counted from --first.
TEST(ZylToolFrames, MovieFramesAreTheSourceFramesFromFirstOn) {
  SyntheticClip clip;
  clip.width = 64;
  clip.height = 48;
  clip.frames = 10;
  clip.channels = 0;
  const std::string input = Dir() + "steps.nut";
  ASSERT_EQ(WriteSyntheticClip(clip, input), "");
  const std::string movie = Dir() + "steps.zyl";
  const Result encode = RunTool({"encode", input, movie, "--first", "3", "--count", "4",
                                 "--ratio", "4"});
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
      const std::vector<uint8_t> picture = SyntheticPicture(clip, source);  // B, G, R
      double error = 0;
      for (size_t p = 0; p < 64 * 48; ++p) {
        for (int c = 0; c < 3; ++c) {
          const double d =
              double(uint8_t(bytes[k * frameBytes + p * 3 + c])) - picture[p * 3 + 2 - c];
          error += d * d;
        }
      }
      if (error < closestError) {
        closestError = error;
        closest = source;
      }
    }
    EXPECT_EQ(closest, int(3 + k)) << "movie frame " << k;
  }
}

TEST(ZylToolOptions, KeyFramePlanPackingAndParamsReachTheMovie) {
  const std::string movie = Dir() + "planned.zyl";
  const Result encode =
      RunTool({"encode", ExampleClip(), movie, "--count", "6", "--key-frames", "3", "--lzma",
               "--no-sound", "--param", "sFMT=70000", "--param=tFMT=9"});
  ASSERT_EQ(encode.exit, 0) << encode.err;
  const Result info = RunTool({"info", "--json", movie});
  ASSERT_EQ(info.exit, 0) << info.out;
  EXPECT_NE(info.out.find("\"packing\": \"lzma\""), std::string::npos) << info.out;
  EXPECT_NE(info.out.find("\"firstFrame\": 3, "), std::string::npos) << info.out;
  EXPECT_NE(info.out.find("\"soundRate\": 0,"), std::string::npos) << info.out;
  EXPECT_NE(info.out.find("\"paramS\": 70000,"), std::string::npos) << info.out;
  EXPECT_NE(info.out.find("\"paramT\": 9,"), std::string::npos) << info.out;
  // The block tree view paints something else than the pictures.
  const std::string plain = Dir() + "planned.rgb", tree = Dir() + "planned_tree.rgb";
  ASSERT_EQ(RunTool({"decode", movie, plain, "--rgb"}).exit, 0);
  ASSERT_EQ(RunTool({"decode", movie, tree, "--rgb", "--tree-view"}).exit, 0);
  const std::string a = ReadFile(plain), b = ReadFile(tree);
  EXPECT_EQ(a.size(), b.size());
  EXPECT_NE(a, b);
}

TEST_F(ZylTool, DecodeWritesY4mPngAndWav) {
  ASSERT_EQ(encode_.exit, 0) << encode_.err;
  const std::string y4m = Dir() + "five.y4m";
  Result result = RunTool({"decode", movie_, y4m});
  ASSERT_EQ(result.exit, 0) << result.err;
  EXPECT_NE(result.err.find("Y4M 4:2:0"), std::string::npos);
  const std::string bytes = ReadFile(y4m);
  EXPECT_EQ(bytes.rfind("YUV4MPEG2 W284 H160 F1000000:33333 Ip A1:1 C420jpeg", 0), 0u);
  const size_t header = bytes.find('\n') + 1;
  const size_t frame = 6 + 284 * 160 + 2 * 142 * 80;
  EXPECT_EQ((bytes.size() - header) % frame, 0u);
  const size_t frames = (bytes.size() - header) / frame;
  EXPECT_GE(frames, 4u);

  result = RunTool({"decode", movie_, Dir() + "f%03d.png", "--png"});
  ASSERT_EQ(result.exit, 0) << result.err;
  EXPECT_EQ(ReadFile(Dir() + "f000.png").substr(1, 3), "PNG");
  EXPECT_TRUE(Exists(Dir() + "f" + std::string(3 - std::to_string(frames - 1).size(), '0') +
                     std::to_string(frames - 1) + ".png"));
  EXPECT_FALSE(Exists(Dir() + "f" + std::string(3 - std::to_string(frames).size(), '0') +
                      std::to_string(frames) + ".png"));

  result = RunTool({"decode", movie_, "--audio", Dir() + "five.wav"});
  ASSERT_EQ(result.exit, 0) << result.err;
  const std::string wav = ReadFile(Dir() + "five.wav");
  ASSERT_GT(wav.size(), 44u);
  EXPECT_EQ(wav.substr(0, 4), "RIFF");
  EXPECT_EQ(uint8_t(wav[24]) | uint8_t(wav[25]) << 8 | uint8_t(wav[26]) << 16, 44100);
}

TEST_F(ZylTool, AppendJoinsTwoMovies) {
  ASSERT_EQ(encode_.exit, 0) << encode_.err;
  const std::string joined = Dir() + "joined.zyl";
  WriteFile(joined, ReadFile(movie_));
  const Result result = RunTool({"append", joined, movie_});
  ASSERT_EQ(result.exit, 0) << result.err;
  const Result info = RunTool({"info", "--json", joined});
  EXPECT_EQ(info.exit, 0) << info.out;
  const Result single = RunTool({"info", "--json", movie_});
  const auto count = [](const std::string& json) {
    const size_t at = json.find("\"frameCount\": ");
    return at == std::string::npos ? -1 : std::stoi(json.substr(at + 14));
  };
  EXPECT_EQ(count(info.out), 2 * count(single.out));
  EXPECT_NE(info.out.find("\"problems\": []"), std::string::npos) << info.out;
}

TEST_F(ZylTool, ReplaceSwapsAKeyFrameAlignedStretch) {
  ASSERT_EQ(encode_.exit, 0) << encode_.err;
  const std::string joined = Dir() + "twice.zyl";
  WriteFile(joined, ReadFile(movie_));
  ASSERT_EQ(RunTool({"append", joined, movie_}).exit, 0);
  const std::string before = ReadFile(joined);
  // The second half is one section; replace it by the movie itself, byte for byte the same.
  const Result info = RunTool({"info", "--json", movie_});
  const int frames = std::stoi(info.out.substr(info.out.find("\"frameCount\": ") + 14));
  Result result = RunTool({"replace", joined, movie_, "--start", std::to_string(frames)});
  ASSERT_EQ(result.exit, 0) << result.err;
  EXPECT_EQ(ReadFile(joined), before);
  // A start inside a section is refused and changes nothing.
  result = RunTool({"replace", joined, movie_, "--start", "1"});
  EXPECT_EQ(result.exit, 1);
  EXPECT_NE(result.err.find("frame 1 of"), std::string::npos) << result.err;
  EXPECT_NE(result.err.find("is not a key frame"), std::string::npos) << result.err;
  EXPECT_EQ(ReadFile(joined), before);
  EXPECT_FALSE(Exists(Dir() + "twicetmp.zyl"));
}

TEST_F(ZylTool, DamagedMovieIsReportedAndRefused) {
  ASSERT_EQ(encode_.exit, 0) << encode_.err;
  std::string bytes = ReadFile(movie_);
  ASSERT_GT(bytes.size(), 200u);
  const std::string damaged = Dir() + "damaged.zyl";
  WriteFile(damaged, bytes.substr(0, bytes.size() - 100));  // the last frame is cut short
  Result result = RunTool({"info", damaged});
  EXPECT_EQ(result.exit, 2);
  EXPECT_EQ(result.out.find("problems       none"), std::string::npos) << result.out;
  const std::string target = Dir() + "target.zyl";
  WriteFile(target, bytes);
  result = RunTool({"append", target, damaged});
  EXPECT_EQ(result.exit, 2);
  EXPECT_NE(result.err.find("nothing was changed"), std::string::npos) << result.err;
  EXPECT_EQ(ReadFile(target), bytes);
  EXPECT_EQ(RunTool({"decode", damaged, Dir() + "damaged.y4m"}).exit, 2);
}

TEST_F(ZylTool, CtrlCStopsBetweenFramesAndLeavesAValidMovie) {
  const std::string movie = Dir() + "stopped.zyl";
  const std::string out = Dir() + "stop_out.txt", err = Dir() + "stop_err.txt";
  const pid_t pid = Start({"encode", ExampleClip(), movie, "--count", "100"}, out, err);
  ASSERT_GT(pid, 0);
  // Wait until the first frame is on disk: the tool is then inside the job.
  struct stat st = {};
  for (int i = 0; i < 6000 && !(stat(movie.c_str(), &st) == 0 && st.st_size > 64); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  kill(pid, SIGINT);
  const Result result = Finish(pid, out, err);
  EXPECT_EQ(result.exit, 4) << result.err;
  EXPECT_NE(result.err.find("stopped by Ctrl-C"), std::string::npos) << result.err;
  const Result info = RunTool({"info", movie});
  EXPECT_EQ(info.exit, 0) << info.out;
}

// Both formats: a killed encode leaves the frames whose headers were patched, and nothing
// that a reader takes for a damaged frame.
TEST_F(ZylTool, AKilledEncodeLeavesAMovieOfWholeFrames) {
  const std::vector<std::vector<std::string>> formats = {{}, {"--format", "zyl1"}};
  for (const std::vector<std::string>& format : formats) {
    SCOPED_TRACE(format.empty() ? "zyl0" : "zyl1");
    const std::string movie = Dir() + "killed.zyl";
    const std::string out = Dir() + "kill_out.txt", err = Dir() + "kill_err.txt";
    std::vector<std::string> args = {"encode", ExampleClip(), movie, "--count", "100"};
    args.insert(args.end(), format.begin(), format.end());
    const pid_t pid = Start(args, out, err);
    ASSERT_GT(pid, 0);
    // Let a few frames reach the disk (the header counts them), then end the process with no
    // chance to tidy up: most likely in the middle of a frame.
    auto framesOnDisk = [&] {
      const std::string bytes = ReadFile(movie);
      return bytes.size() < 20 ? 0u : zycLoad32(bytes.data() + 16);
    };
    for (int i = 0; i < 6000 && framesOnDisk() < 3; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    const Result info = RunTool({"info", movie});
    EXPECT_EQ(info.exit, 0) << info.out;
    EXPECT_NE(info.out.find("problems       none"), std::string::npos) << info.out;
    const Result decode = RunTool({"decode", movie, Dir() + "killed.y4m"});
    EXPECT_EQ(decode.exit, 0) << decode.err;
  }
}

// A ZYL1 movie with sound and two sections: info tells its frame kinds, decode writes every
// frame and the sound, and replace swaps its second section for a movie of the same kind.
TEST(ZylToolZyl1, EncodeInfoDecodeAndReplace) {
  const std::string movie = Dir() + "zyl1.zyl";
  const Result encode = RunTool({"encode", ExampleClip(), movie, "--format", "zyl1", "--count",
                                 "6", "--key-frames", "3", "--ratio", "20"});
  ASSERT_EQ(encode.exit, 0) << encode.err;
  EXPECT_EQ(encode.out, "");  // the plane coder's console stays quiet too
  EXPECT_NE(encode.err.find("as ZYL1 with still-image key frames"), std::string::npos)
      << encode.err;
  const Result info = RunTool({"info", movie, "--frames"});
  EXPECT_EQ(info.exit, 0) << info.out;
  EXPECT_NE(info.out.find("frames         6 (2 key frames, 2 sections)"), std::string::npos)
      << info.out;
  EXPECT_NE(info.out.find("frame kinds    2 still, 0 quadtree, "), std::string::npos) << info.out;
  EXPECT_NE(info.out.find("problems       none"), std::string::npos) << info.out;
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
  EXPECT_NE(after.out.find("frames         6 (2 key frames, 2 sections)"), std::string::npos)
      << after.out;
}

}  // namespace

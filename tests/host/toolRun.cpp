#include "tests/host/toolRun.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

extern char** environ;

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
  // A fresh folder of this test process (a name made from the process id could be a folder an
  // earlier run left, whose files the tool would refuse to overwrite), gone when it ends.
  static const struct Scratch {
    std::string path;
    Scratch() {
      std::string pattern = ::testing::TempDir() + "zyl_tool_XXXXXX";
      if (mkdtemp(pattern.data())) path = pattern + "/";
    }
    ~Scratch() {
      std::error_code ignored;
      if (!path.empty()) std::filesystem::remove_all(path, ignored);
    }
  } scratch;
  return scratch.path;
}

pid_t StartTool(const std::vector<std::string>& args, const std::string& outPath,
                const std::string& errPath, const std::string& inPath) {
  std::vector<std::string> all = {ZYL_TOOL_PATH};
  all.insert(all.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& arg : all) argv.push_back(arg.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, inPath.empty() ? "/dev/null" : inPath.c_str(),
                                   O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0644);
  pid_t pid = -1;
  posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

ToolResult FinishTool(pid_t pid, const std::string& outPath, const std::string& errPath) {
  ToolResult result;
  int status = 0;
  if (pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status)) {
    result.exit = WEXITSTATUS(status);
  }
  result.out = ReadFile(outPath);
  result.err = ReadFile(errPath);
  return result;
}

ToolResult RunTool(const std::vector<std::string>& args, const std::string& inPath) {
  const std::string out = Dir() + "stdout.txt", err = Dir() + "stderr.txt";
  return FinishTool(StartTool(args, out, err, inPath), out, err);
}

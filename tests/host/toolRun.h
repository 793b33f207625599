// Runs the built zyl tool as a user would: arguments in, exit code, standard output and
// standard error out, standard input from a file when asked.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

struct ToolResult {
  int exit = -1;
  std::string out;
  std::string err;
};

std::string ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::string& bytes);
bool Exists(const std::string& path);
// A folder of this test process's own, with a trailing slash.
std::string Dir();

// Starts the tool with stdout and stderr into the files named, stdin from `inPath` (or none).
pid_t StartTool(const std::vector<std::string>& args, const std::string& outPath,
                const std::string& errPath, const std::string& inPath = "");
// Waits for it and reads what it wrote.
ToolResult FinishTool(pid_t pid, const std::string& outPath, const std::string& errPath);
ToolResult RunTool(const std::vector<std::string>& args, const std::string& inPath = "");

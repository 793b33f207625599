// The commands of the zyl tool. Each takes the words behind the command's name and returns
// the process's exit code (toolCommon.h).
#pragma once

#include <string>
#include <vector>

using CommandArgs = std::vector<std::string>;

int RunEncode(const CommandArgs& args);
int RunInfo(const CommandArgs& args);
int RunDecode(const CommandArgs& args);
int RunAppend(const CommandArgs& args);
int RunReplace(const CommandArgs& args);
int RunParams(const CommandArgs& args);
int RunRepair(const CommandArgs& args);

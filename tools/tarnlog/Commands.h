#pragma once
// The three things tarnlog does. Each returns the process exit status.

#include "Options.h"

#include <cstdio>

namespace TarnLogTool {

constexpr int kExitOk = 0;
constexpr int kExitUnreadable = 1;
constexpr int kExitBadArguments = 2;

extern const char kNoRingMessage[];

int RunDump(const Options& options, std::FILE* out, std::FILE* err);
int RunFollow(const Options& options, std::FILE* out, std::FILE* err);
int RunCritical(const Options& options, std::FILE* out, std::FILE* err);

} // namespace TarnLogTool

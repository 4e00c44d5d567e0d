#pragma once
// The command line of tarnlog: what to show and which records.

#include "RecordFilter.h"

#include <cstdint>
#include <string>
#include <vector>

namespace TarnLogTool {

enum class Mode { Dump, Follow, Critical, Help };

struct Options {
    Mode mode = Mode::Dump;
    RecordFilter filter;
    bool hasCount = false;
    uint32_t count = 0;        // --follow: stop after this many new records
    bool hasSeconds = false;
    uint32_t seconds = 0;      // --follow: stop after this long
    std::string criticalPath;  // --critical: empty means the machine's own file
};

// False with a one-line message for anything it does not understand.
bool ParseOptions(const std::vector<std::string>& args, Options& options, std::string& error);

const char* UsageText();

} // namespace TarnLogTool

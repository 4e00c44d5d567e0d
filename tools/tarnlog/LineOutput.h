#pragma once
// Writes one record per line. The text comes from shared memory or a shared file that any
// local process can write, so control characters are shown escaped: a message can neither
// break the one-record-per-line form nor send sequences to the engineer's terminal.

#include <cstdio>
#include <string>

namespace TarnLogTool {

// "\n", "\r", "\t" and "\xNN" for the other control characters; everything else as is.
std::string PrintableLine(const std::string& text);

void WriteLine(std::FILE* out, const std::string& text);

} // namespace TarnLogTool

#pragma once
// Helpers every tool shares.

#include <string>
#include <vector>

namespace TarnTools {

// The process's command line split the way the shell splits it, without the program name.
std::vector<std::wstring> CommandLineArguments();

} // namespace TarnTools

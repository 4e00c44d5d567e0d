#pragma once
// The tools' console output: lines to stdout/stderr and the conversions they need.

#include <string>

namespace TarnTools {

// Writes `text` and CR LF. A console gets UTF-16 directly; a pipe or file gets UTF-8, so a
// test reading the output never depends on the console code page.
void WriteStdout(const std::wstring& text);
void WriteStderr(const std::wstring& text);

std::string ToUtf8(const std::wstring& text);
std::wstring FromUtf8(const std::string& text);

} // namespace TarnTools

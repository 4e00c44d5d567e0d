#pragma once
// What tarngrant prints: results on standard output, refusals on standard error with the
// exit code that says why, and table text made safe for one console line.

#include <string>

namespace TarnGrant {

enum ExitCode { ExitOk = 0, ExitRefused = 1, ExitUsage = 2, ExitUnused = 3 };

void Out(const std::wstring& text);
// Prints "tarngrant: <text>" on standard error and returns `code`.
int Refuse(const std::wstring& text, int code = ExitRefused);
std::wstring Printable(const std::wstring& text);
// The UTF-16 units' bytes, low byte first, as lower-case hex.
std::wstring Hex(const std::wstring& units);

} // namespace TarnGrant

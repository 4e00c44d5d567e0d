#pragma once
// Failures that end a tarnhost run, each with the exit code that tells its kind apart.

#include <windows.h>

#include <string>

namespace TarnHost {

enum ExitCode : int {
    ExitOk = 0,
    ExitUsage = 2,       // bad command line or unreadable script file
    ExitComFailure = 3,  // a COM step failed or a control was refused as unsafe
    ExitScriptError = 4, // the script raised an error it did not handle
};

struct HostError {
    int exitCode;
    std::wstring message; // one line, without the "tarnhost: " prefix
};

HostError UsageError(const std::wstring& reason);

// "<step> failed: 0x8004xxxx"
HostError ComError(const std::wstring& step, HRESULT hr);

std::wstring HexResult(HRESULT hr);

} // namespace TarnHost

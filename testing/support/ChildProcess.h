#pragma once
// Runs a program to completion with its output captured, the way a test drives a tool or
// a script host. A child that outlives its time-out is killed, so no test can hang ctest.

#include "TarnBase/win/Handle.h"

#include <windows.h>

#include <string>
#include <vector>

namespace TarnTest {

struct ChildResult {
    bool started = false;
    bool timedOut = false;
    DWORD exitCode = 0;
    DWORD processId = 0;
    std::string out;
    std::string err;
};

inline std::wstring Widen(const std::string& text)
{
    if (text.empty())
        return std::wstring();
    const int n = ::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring wide(static_cast<size_t>(n), L'\0');
    ::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &wide[0], n);
    return wide;
}

inline std::wstring QuoteArgument(const std::wstring& arg)
{
    if (!arg.empty() && arg.find_first_of(L" \t\"") == std::wstring::npos)
        return arg;
    std::wstring quoted = L"\"";
    size_t backslashes = 0;
    for (wchar_t c : arg) {
        if (c == L'\\') {
            ++backslashes;
            continue;
        }
        quoted.append(c == L'"' ? backslashes * 2 + 1 : backslashes, L'\\');
        backslashes = 0;
        quoted += c;
    }
    quoted.append(backslashes * 2, L'\\');
    return quoted + L"\"";
}

// A path under the Unix file system as Wine's Z: drive sees it.
inline std::wstring UnixToWinePath(const std::string& unixPath)
{
    std::wstring path = L"Z:" + Widen(unixPath);
    for (auto& c : path)
        if (c == L'/')
            c = L'\\';
    return path;
}

// The build tree (TARN_BINARY_DIR, set by ctest) as a Windows path, plus a relative part.
inline std::wstring BuildPath(const std::string& relative)
{
    const char* root = std::getenv("TARN_BINARY_DIR");
    return UnixToWinePath(std::string(root ? root : ".") + "/" + relative);
}

inline std::wstring SourcePath(const std::string& relative)
{
    const char* root = std::getenv("TARN_SOURCE_DIR");
    return UnixToWinePath(std::string(root ? root : ".") + "/" + relative);
}

inline ChildResult RunChild(const std::vector<std::wstring>& args, DWORD timeoutMs = 60000)
{
    ChildResult result;
    SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    TarnBase::UniqueHandle outRead, outWrite, errRead, errWrite, nulIn;
    if (!::CreatePipe(outRead.Put(), outWrite.Put(), &inherit, 0) ||
        !::CreatePipe(errRead.Put(), errWrite.Put(), &inherit, 0))
        return result;
    ::SetHandleInformation(outRead.Get(), HANDLE_FLAG_INHERIT, 0);
    ::SetHandleInformation(errRead.Get(), HANDLE_FLAG_INHERIT, 0);
    nulIn.Reset(::CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit, OPEN_EXISTING, 0,
                              nullptr));

    std::wstring commandLine;
    for (const auto& arg : args)
        commandLine += (commandLine.empty() ? L"" : L" ") + QuoteArgument(arg);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = nulIn.Get();
    startup.hStdOutput = outWrite.Get();
    startup.hStdError = errWrite.Get();
    PROCESS_INFORMATION info{};
    if (!::CreateProcessW(nullptr, &commandLine[0], nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &info))
        return result;
    result.started = true;
    result.processId = info.dwProcessId;
    TarnBase::UniqueHandle process(info.hProcess), thread(info.hThread);
    outWrite.Reset();
    errWrite.Reset();

    // Reading to the end of the pipes is not enough: Wine may start a helper process of its
    // own (explorer.exe) that inherits the child's output handles and never closes them. So
    // the pipes are polled while the child runs and drained once it has ended.
    auto pump = [](HANDLE pipe, std::string& into) {
        DWORD available = 0;
        while (::PeekNamedPipe(pipe, nullptr, 0, nullptr, &available, nullptr) && available > 0) {
            char buffer[4096];
            DWORD read = 0;
            if (!::ReadFile(pipe, buffer, available < sizeof buffer ? available : sizeof buffer, &read, nullptr) ||
                read == 0)
                break;
            into.append(buffer, read);
        }
    };
    const ULONGLONG deadline = ::GetTickCount64() + timeoutMs;
    for (;;) {
        const bool ended = ::WaitForSingleObject(process.Get(), 20) == WAIT_OBJECT_0;
        pump(outRead.Get(), result.out);
        pump(errRead.Get(), result.err);
        if (ended)
            break;
        if (::GetTickCount64() > deadline) {
            result.timedOut = true;
            ::TerminateProcess(process.Get(), 999);
            ::WaitForSingleObject(process.Get(), 5000);
            break;
        }
    }
    ::GetExitCodeProcess(process.Get(), &result.exitCode);
    // Console output of script hosts ends lines with CR LF; tests compare plain lines.
    for (std::string* text : {&result.out, &result.err}) {
        std::string plain;
        for (char c : *text)
            if (c != '\r')
                plain += c;
        *text = plain;
    }
    return result;
}

} // namespace TarnTest

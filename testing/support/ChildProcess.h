#pragma once
// The one process runner of the tests: a child with its output collected while it runs,
// optionally started suspended (its id is known before it runs) or on a console of its own
// (so a test can send it Ctrl+C), killed when it outlives its time-out or its owner, so no
// test can hang ctest.

#include "TarnBase/win/Handle.h"
#include "tools/common/Console.h"

#include <windows.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
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

// Tests speak UTF-8, Windows UTF-16: the tools' conversions serve both.
inline std::wstring Widen(const std::string& text) { return TarnTools::FromUtf8(text); }
inline std::string Narrow(const std::wstring& text) { return TarnTools::ToUtf8(text); }

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

class Process {
public:
    // Room for a fast writer's output between two polls, so that a child (a log follower, say)
    // is never slowed down by its own pipe.
    static constexpr DWORD kPipeBytes = 4u << 20;

    explicit Process(const std::vector<std::wstring>& args, bool suspended = false, bool newConsole = false)
    {
        SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
        TarnBase::UniqueHandle outWrite, errWrite, nulIn;
        if (!::CreatePipe(m_outRead.Put(), outWrite.Put(), &inherit, kPipeBytes) ||
            !::CreatePipe(m_errRead.Put(), errWrite.Put(), &inherit, kPipeBytes))
            return;
        ::SetHandleInformation(m_outRead.Get(), HANDLE_FLAG_INHERIT, 0);
        ::SetHandleInformation(m_errRead.Get(), HANDLE_FLAG_INHERIT, 0);
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
        if (!::CreateProcessW(nullptr, &commandLine[0], nullptr, nullptr, TRUE,
                              (suspended ? CREATE_SUSPENDED : 0) | (newConsole ? CREATE_NEW_CONSOLE : 0),
                              nullptr, nullptr, &startup, &info))
            return;
        m_process.Reset(info.hProcess);
        m_thread.Reset(info.hThread);
        m_pid = info.dwProcessId;
        m_pump = std::thread([this] { Pump(); });
    }
    ~Process()
    {
        Kill();
        if (m_pump.joinable())
            m_pump.join();
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    bool Started() const { return static_cast<bool>(m_process); }
    DWORD Pid() const { return m_pid; }
    HANDLE Handle() const { return m_process.Get(); }
    void Resume() { ::ResumeThread(m_thread.Get()); }
    void Suspend() { ::SuspendThread(m_thread.Get()); }  // the main thread: enough to freeze a console program
    // Without killing it; once it has ended, its output is all in.
    bool Wait(DWORD timeoutMs)
    {
        const bool ended = ::WaitForSingleObject(m_process.Get(), timeoutMs) == WAIT_OBJECT_0;
        if (ended && m_pump.joinable())
            m_pump.join();
        return ended;
    }
    DWORD ExitCode()
    {
        DWORD code = STILL_ACTIVE;
        ::GetExitCodeProcess(m_process.Get(), &code);
        return code;
    }
    std::string Out()
    {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_out;
    }
    std::string Err()
    {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_err;
    }

    // Waits until standard output holds `text` (true) or the time runs out (false).
    bool WaitForOutput(const std::string& text, DWORD timeoutMs)
    {
        std::unique_lock<std::mutex> lock(m_lock);
        return m_changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                  [&] { return m_out.find(text) != std::string::npos; });
    }

    // Waits for the end (killing the process after `timeoutMs`) and returns the outcome.
    ChildResult Finish(DWORD timeoutMs = 60000)
    {
        ChildResult result;
        result.started = Started();
        result.processId = m_pid;
        if (!result.started)
            return result;
        result.timedOut = ::WaitForSingleObject(m_process.Get(), timeoutMs) == WAIT_TIMEOUT;
        Kill();
        ::GetExitCodeProcess(m_process.Get(), &result.exitCode);
        if (m_pump.joinable())
            m_pump.join();
        std::lock_guard<std::mutex> lock(m_lock);
        result.out = m_out;
        result.err = m_err;
        return result;
    }

private:
    void Kill()
    {
        if (m_process && ::WaitForSingleObject(m_process.Get(), 0) == WAIT_TIMEOUT) {
            ::TerminateProcess(m_process.Get(), 999);
            ::WaitForSingleObject(m_process.Get(), 5000);
        }
    }

    // Never a blocking read to the end of the pipes: Wine may start a helper process of its
    // own (explorer.exe) that inherits the child's output handles and never closes them. So
    // the pipes are polled while the child runs and drained once it has ended.
    void Pump()
    {
        for (;;) {
            const bool ended = ::WaitForSingleObject(m_process.Get(), 2) == WAIT_OBJECT_0;
            bool more = true;
            while (more) {
                more = false;
                for (auto [pipe, into] : {std::pair<HANDLE, std::string*>{m_outRead.Get(), &m_out},
                                          std::pair<HANDLE, std::string*>{m_errRead.Get(), &m_err}}) {
                    char buffer[4096];
                    DWORD available = 0, read = 0;
                    if (!::PeekNamedPipe(pipe, nullptr, 0, nullptr, &available, nullptr) || available == 0 ||
                        !::ReadFile(pipe, buffer, available < sizeof buffer ? available : sizeof buffer, &read,
                                    nullptr))
                        continue;
                    std::lock_guard<std::mutex> lock(m_lock);
                    for (DWORD i = 0; i < read; ++i)
                        if (buffer[i] != '\r')  // script hosts end lines with CR LF; tests compare plain lines
                            *into += buffer[i];
                    m_changed.notify_all();
                    more = read > 0;
                }
            }
            if (ended)
                return;
        }
    }

    TarnBase::UniqueHandle m_outRead, m_errRead, m_process, m_thread;
    DWORD m_pid = 0;
    std::mutex m_lock;
    std::condition_variable m_changed;
    std::string m_out, m_err;
    std::thread m_pump;
};

inline std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    for (size_t at = 0, end; at < text.size(); at = end + 1)
        lines.push_back(text.substr(at, (end = std::min(text.find('\n', at), text.size())) - at));
    return lines;
}

// Polls `condition` every 20 ms for at most `timeoutMs`.
template <typename Condition>
bool WaitUntil(Condition condition, DWORD timeoutMs)
{
    for (const ULONGLONG end = ::GetTickCount64() + timeoutMs; !condition(); ::Sleep(20))
        if (::GetTickCount64() >= end)
            return false;
    return true;
}

inline ChildResult RunChild(const std::vector<std::wstring>& args, DWORD timeoutMs = 60000)
{
    return Process(args).Finish(timeoutMs);
}

} // namespace TarnTest

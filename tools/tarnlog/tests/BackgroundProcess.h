#pragma once
// A program the test starts and keeps running beside itself: output goes to files (a
// pipe nobody drains would stall it, and an inherited pipe keeps ctest waiting), it is
// tied to a job that kills it if the test dies, and it is killed when the object goes.

#include "ChildProcess.h"
#include "TarnBase/win/Handle.h"

#include <windows.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace TarnToolTest {

class BackgroundProcess {
public:
    BackgroundProcess() = default;
    BackgroundProcess(const BackgroundProcess&) = delete;
    BackgroundProcess& operator=(const BackgroundProcess&) = delete;
    ~BackgroundProcess()
    {
        Kill();
        m_process.Reset();
        m_thread.Reset();
        for (const auto& path : {m_outPath, m_errPath})
            if (!path.empty())
                ::DeleteFileW(path.c_str());
    }

    // `captureOutput` false sends stdout and stderr to NUL; `newConsole` gives the child a
    // console of its own that the test can attach to and send Ctrl+C.
    bool Start(const std::vector<std::wstring>& args, bool captureOutput = true, bool newConsole = false)
    {
        static std::atomic<unsigned> counter{0};
        wchar_t temp[MAX_PATH] = {};
        ::GetTempPathW(MAX_PATH, temp);
        const std::wstring stem = std::wstring(temp) + L"tarn-child-" + std::to_wstring(::GetCurrentProcessId()) + L"-" +
                                  std::to_wstring(counter++);
        SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
        TarnBase::UniqueFile out, err, in;
        if (captureOutput) {
            m_outPath = stem + L".out";
            m_errPath = stem + L".err";
        }
        auto open = [&](const std::wstring& path, TarnBase::UniqueFile& file) {
            file.Reset(::CreateFileW(path.empty() ? L"NUL" : path.c_str(), GENERIC_WRITE,
                                     FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, &inherit, CREATE_ALWAYS,
                                     FILE_ATTRIBUTE_NORMAL, nullptr));
            return static_cast<bool>(file);
        };
        if (!open(m_outPath, out) || !open(m_errPath, err))
            return false;
        in.Reset(::CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit, OPEN_EXISTING, 0,
                               nullptr));

        std::wstring commandLine;
        for (const auto& arg : args)
            commandLine += (commandLine.empty() ? L"" : L" ") + TarnTest::QuoteArgument(arg);
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdInput = in.Get();
        startup.hStdOutput = out.Get();
        startup.hStdError = err.Get();
        PROCESS_INFORMATION info{};
        if (!::CreateProcessW(nullptr, &commandLine[0], nullptr, nullptr, TRUE, CREATE_SUSPENDED | (newConsole ? CREATE_NEW_CONSOLE : 0), nullptr, nullptr,
                              &startup, &info))
            return false;
        m_process.Reset(info.hProcess);
        m_thread.Reset(info.hThread);
        m_id = info.dwProcessId;
        m_job.Reset(::CreateJobObjectW(nullptr, nullptr));
        if (m_job) {
            JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
            limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
            ::SetInformationJobObject(m_job.Get(), JobObjectExtendedLimitInformation, &limits, sizeof limits);
            ::AssignProcessToJobObject(m_job.Get(), m_process.Get());
        }
        ::ResumeThread(m_thread.Get());
        return true;
    }

    DWORD Id() const { return m_id; }
    HANDLE Process() const { return m_process.Get(); }

    bool Wait(DWORD timeoutMs) { return m_process && ::WaitForSingleObject(m_process.Get(), timeoutMs) == WAIT_OBJECT_0; }
    bool Running() { return m_process && !Wait(0); }

    DWORD ExitCode()
    {
        DWORD code = STILL_ACTIVE;
        if (m_process)
            ::GetExitCodeProcess(m_process.Get(), &code);
        return code;
    }

    // The main thread only: enough to freeze a console program between two waits.
    void Suspend() { ::SuspendThread(m_thread.Get()); }
    void Resume() { ::ResumeThread(m_thread.Get()); }

    void Kill()
    {
        if (Running()) {
            ::TerminateProcess(m_process.Get(), 999);
            Wait(5000);
        }
    }

    std::string Out() const { return Read(m_outPath); }
    std::string Err() const { return Read(m_errPath); }

private:
    static std::string Read(const std::wstring& path)
    {
        if (path.empty())
            return std::string();
        std::ifstream in(std::filesystem::path(path), std::ios::binary);
        std::string plain;
        for (auto it = std::istreambuf_iterator<char>(in); it != std::istreambuf_iterator<char>(); ++it)
            if (*it != '\r')
                plain += *it;
        return plain;
    }

    TarnBase::UniqueHandle m_process;
    TarnBase::UniqueHandle m_thread;
    TarnBase::UniqueHandle m_job;
    DWORD m_id = 0;
    std::wstring m_outPath;
    std::wstring m_errPath;
};

inline std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos)
            end = text.size();
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return lines;
}

// Polls `condition` every 20 ms for at most `timeoutMs`.
template <typename Condition>
bool WaitUntil(Condition condition, DWORD timeoutMs)
{
    const ULONGLONG end = ::GetTickCount64() + timeoutMs;
    for (;;) {
        if (condition())
            return true;
        if (::GetTickCount64() >= end)
            return false;
        ::Sleep(20);
    }
}

} // namespace TarnToolTest

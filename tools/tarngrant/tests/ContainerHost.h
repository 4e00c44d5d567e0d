#pragma once
// Test helpers for container trust from outside the control: copies of the page host
// under chosen executable names, host processes that can be started suspended (their
// identifier is known before the control runs), vendor registry keys, and the log records
// a given process left in the machine-wide ring.

#include "ChildProcess.h"
#include "TarnBase/KernelObjectName.h"
#include "TarnBase/win/Handle.h"
#include "TarnLog/Log.h"
#include "TarnLog/RingLayout.h"

#include <windows.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ContainerTest {

inline std::wstring TarnHostPath()
{
    return TarnTest::BuildPath("tools/tarnhost/tarnhost.exe");
}

inline std::wstring TarnGrantPath()
{
    return TarnTest::BuildPath("tools/tarngrant/tarngrant.exe");
}

inline std::string Narrow(const std::wstring& text)
{
    if (text.empty())
        return std::string();
    const int n = ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr,
                                        nullptr);
    std::string narrow(static_cast<size_t>(n), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), &narrow[0], n, nullptr, nullptr);
    return narrow;
}

// The page script every host copy runs: asks IsCurrentContainerTrusted with the list in
// argument 0, as many times as argument 1 says (default 1), one answer per line.
// Argument 2 "poll" keeps asking (up to 20 s) until the answer is true, after a "ready"
// line, for tests that grant while the host runs.
constexpr char kQueryScript[] = R"(
var c = host.Control(1);
var list = host.ArgCount > 0 ? host.Arg(0) : "";
var n = host.ArgCount > 1 ? parseInt(host.Arg(1), 10) : 1;
function ask() {
    try { return "" + c.IsCurrentContainerTrusted(list); }
    catch (e) { return "error " + (e.number >>> 0).toString(16) + " " + e.description; }
}
if (host.ArgCount > 2 && host.Arg(2) == "poll") {
    host.Echo("ready");
    var end = new Date().getTime() + 20000;
    var answer = ask();
    while (answer != "true" && new Date().getTime() < end)
        answer = ask();
    host.Echo(answer);
} else {
    for (var i = 0; i < n; i++)
        host.Echo(ask());
}
host.Quit(0);
)";

// A temporary directory with copies of the page host and the query script.
class HostDirectory {
public:
    HostDirectory()
    {
        static std::atomic<int> counter{0};
        wchar_t temp[MAX_PATH] = {};
        ::GetTempPathW(MAX_PATH, temp);
        m_directory = std::wstring(temp) + L"tarn-container-" + std::to_wstring(::GetCurrentProcessId()) + L"-" +
                      std::to_wstring(++counter);
        ::CreateDirectoryW(m_directory.c_str(), nullptr);
        m_script = m_directory + L"\\query.js";
        std::ofstream(Narrow(m_script).c_str(), std::ios::binary) << kQueryScript;
        // Keep this process's logger mapped, so the ring (and the records of finished
        // hosts) outlives every host.
        TarnLog::Log("ContainerTest", 4, "host directory ready");
    }
    ~HostDirectory()
    {
        for (const auto& file : m_files)
            ::DeleteFileW(file.c_str());
        ::DeleteFileW(m_script.c_str());
        ::RemoveDirectoryW(m_directory.c_str());
    }
    HostDirectory(const HostDirectory&) = delete;
    HostDirectory& operator=(const HostDirectory&) = delete;

    // The page host copied as `name` (once); its absolute path.
    std::wstring Host(const std::wstring& name)
    {
        const std::wstring path = m_directory + L"\\" + name;
        if (::GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) {
            ::CopyFileW(TarnHostPath().c_str(), path.c_str(), FALSE);
            m_files.push_back(path);
        }
        return path;
    }
    const std::wstring& Script() const { return m_script; }
    const std::wstring& Directory() const { return m_directory; }

private:
    std::wstring m_directory;
    std::wstring m_script;
    std::vector<std::wstring> m_files;
};

// One child process with its output collected on threads; may start suspended.
class Process {
public:
    Process(const std::vector<std::wstring>& args, bool suspended)
    {
        SECURITY_ATTRIBUTES inherit{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
        TarnBase::UniqueHandle outWrite, errWrite, nulIn;
        if (!::CreatePipe(m_outRead.Put(), outWrite.Put(), &inherit, 0) ||
            !::CreatePipe(m_errRead.Put(), errWrite.Put(), &inherit, 0))
            return;
        ::SetHandleInformation(m_outRead.Get(), HANDLE_FLAG_INHERIT, 0);
        ::SetHandleInformation(m_errRead.Get(), HANDLE_FLAG_INHERIT, 0);
        nulIn.Reset(::CreateFileW(L"NUL", GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit, OPEN_EXISTING, 0,
                                  nullptr));
        std::wstring commandLine;
        for (const auto& arg : args)
            commandLine += (commandLine.empty() ? L"" : L" ") + TarnTest::QuoteArgument(arg);
        STARTUPINFOW startup{};
        startup.cb = sizeof startup;
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdInput = nulIn.Get();
        startup.hStdOutput = outWrite.Get();
        startup.hStdError = errWrite.Get();
        PROCESS_INFORMATION info{};
        if (!::CreateProcessW(nullptr, &commandLine[0], nullptr, nullptr, TRUE, suspended ? CREATE_SUSPENDED : 0,
                              nullptr, nullptr, &startup, &info))
            return;
        m_process.Reset(info.hProcess);
        m_thread.Reset(info.hThread);
        m_pid = info.dwProcessId;
        m_state = std::make_shared<Shared>();
        auto state = m_state;
        HANDLE process = m_process.Get();
        m_outReader = std::thread([state, process, pipe = m_outRead.Get()] { Drain(pipe, process, *state, true); });
        m_errReader = std::thread([state, process, pipe = m_errRead.Get()] { Drain(pipe, process, *state, false); });
    }
    ~Process()
    {
        if (m_process && ::WaitForSingleObject(m_process.Get(), 0) == WAIT_TIMEOUT) {
            ::TerminateProcess(m_process.Get(), 999);
            ::WaitForSingleObject(m_process.Get(), 5000);
        }
        Join();
    }
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    bool Started() const { return static_cast<bool>(m_process); }
    DWORD Pid() const { return m_pid; }
    HANDLE Handle() const { return m_process.Get(); }
    void Resume() { ::ResumeThread(m_thread.Get()); }

    // Waits until stdout holds `text` (true) or the time runs out (false).
    bool WaitForOutput(const std::string& text, DWORD timeoutMs)
    {
        std::unique_lock<std::mutex> lock(m_state->lock);
        return m_state->changed.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                         [&] { return m_state->out.find(text) != std::string::npos; });
    }

    // Waits for the end (killing the process after `timeoutMs`) and returns the outcome.
    TarnTest::ChildResult Finish(DWORD timeoutMs = 60000)
    {
        TarnTest::ChildResult result;
        result.started = Started();
        if (!result.started)
            return result;
        if (::WaitForSingleObject(m_process.Get(), timeoutMs) == WAIT_TIMEOUT) {
            result.timedOut = true;
            ::TerminateProcess(m_process.Get(), 999);
            ::WaitForSingleObject(m_process.Get(), 5000);
        }
        ::GetExitCodeProcess(m_process.Get(), &result.exitCode);
        Join();
        std::lock_guard<std::mutex> lock(m_state->lock);
        result.out = WithoutCr(m_state->out);
        result.err = WithoutCr(m_state->err);
        return result;
    }

private:
    struct Shared {
        std::mutex lock;
        std::condition_variable changed;
        std::string out;
        std::string err;
    };

    // Reads until the process has ended and its output is taken. The end of the pipe is not
    // waited for: a Wine service the host starts (explorer.exe for its windows) inherits the
    // pipe and keeps it open long after the host is gone.
    static void Drain(HANDLE pipe, HANDLE process, Shared& state, bool isOut)
    {
        char buffer[4096];
        for (;;) {
            DWORD available = 0;
            if (!::PeekNamedPipe(pipe, nullptr, 0, nullptr, &available, nullptr))
                return;  // every writer is gone
            if (available > 0) {
                DWORD read = 0;
                if (!::ReadFile(pipe, buffer, available < sizeof buffer ? available : sizeof buffer, &read, nullptr) ||
                    read == 0)
                    return;
                std::lock_guard<std::mutex> lock(state.lock);
                (isOut ? state.out : state.err).append(buffer, read);
                state.changed.notify_all();
                continue;
            }
            if (::WaitForSingleObject(process, 10) == WAIT_OBJECT_0) {
                if (::PeekNamedPipe(pipe, nullptr, 0, nullptr, &available, nullptr) && available > 0)
                    continue;
                return;
            }
        }
    }

    static std::string WithoutCr(const std::string& text)
    {
        std::string plain;
        for (char c : text)
            if (c != '\r')
                plain += c;
        return plain;
    }

    void Join()
    {
        if (m_outReader.joinable())
            m_outReader.join();
        if (m_errReader.joinable())
            m_errReader.join();
    }

    TarnBase::UniqueHandle m_outRead, m_errRead, m_process, m_thread;
    DWORD m_pid = 0;
    std::shared_ptr<Shared> m_state;
    std::thread m_outReader, m_errReader;
};

// Arguments of a page host run: host path, options, the script and its arguments.
inline std::vector<std::wstring> HostArgs(const HostDirectory& dir, const std::wstring& host,
                                          const std::vector<std::wstring>& options, const std::wstring& altList = L"",
                                          int queries = 1)
{
    std::vector<std::wstring> args{host};
    args.insert(args.end(), options.begin(), options.end());
    args.push_back(dir.Script());
    args.push_back(altList);
    args.push_back(std::to_wstring(queries));
    return args;
}

inline TarnTest::ChildResult RunHost(const HostDirectory& dir, const std::wstring& host,
                                     const std::vector<std::wstring>& options, const std::wstring& altList = L"",
                                     int queries = 1)
{
    Process process(HostArgs(dir, host, options, altList, queries), false);
    return process.Finish();
}

inline std::vector<std::wstring> GrantArgs(const std::vector<std::wstring>& args)
{
    std::vector<std::wstring> all{TarnGrantPath()};
    all.insert(all.end(), args.begin(), args.end());
    return all;
}

inline TarnTest::ChildResult RunGrant(const std::vector<std::wstring>& args, DWORD timeoutMs = 60000)
{
    Process process(GrantArgs(args), false);
    return process.Finish(timeoutMs);
}

// HKLM "Software\Ostrum\Kestrel\Config\<vendor>", removed again with everything under it.
class VendorKey {
public:
    explicit VendorKey(const std::string& vendor) : m_vendor(vendor)
    {
        TarnBase::UniqueRegKey key;
        ::RegCreateKeyExA(HKEY_LOCAL_MACHINE, Path().c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, key.Put(),
                          nullptr);
    }
    ~VendorKey()
    {
        ::RegDeleteTreeA(HKEY_LOCAL_MACHINE, Path().c_str());
        ::RegDeleteKeyA(HKEY_LOCAL_MACHINE, Path().c_str());
    }
    VendorKey(const VendorKey&) = delete;
    VendorKey& operator=(const VendorKey&) = delete;

    // An empty "TarnSM\TrustedContainers" key, or one subkey per name.
    void AddContainers(const std::vector<std::string>& names = {})
    {
        TarnBase::UniqueRegKey key;
        ::RegCreateKeyExA(HKEY_LOCAL_MACHINE, (Path() + "\\TarnSM\\TrustedContainers").c_str(), 0, nullptr, 0,
                          KEY_ALL_ACCESS, nullptr, key.Put(), nullptr);
        for (const auto& name : names) {
            TarnBase::UniqueRegKey sub;
            ::RegCreateKeyExA(key.Get(), name.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, sub.Put(), nullptr);
        }
    }
    // Names given as UTF-16, for letters outside the ANSI code page.
    void AddContainersWide(const std::vector<std::wstring>& names)
    {
        TarnBase::UniqueRegKey key;
        const std::wstring path = TarnTest::Widen(Path() + "\\TarnSM\\TrustedContainers");
        ::RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, key.Put(), nullptr);
        for (const auto& name : names) {
            TarnBase::UniqueRegKey sub;
            ::RegCreateKeyExW(key.Get(), name.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, sub.Put(), nullptr);
        }
    }
    void RemoveContainer(const std::string& name)
    {
        ::RegDeleteKeyA(HKEY_LOCAL_MACHINE, (Path() + "\\TarnSM\\TrustedContainers\\" + name).c_str());
    }
    const std::string& Name() const { return m_vendor; }
    bool Exists() const
    {
        TarnBase::UniqueRegKey key;
        return ::RegOpenKeyExA(HKEY_LOCAL_MACHINE, Path().c_str(), 0, KEY_READ, key.Put()) == ERROR_SUCCESS;
    }

private:
    std::string Path() const { return "Software\\Ostrum\\Kestrel\\Config\\" + m_vendor; }
    std::string m_vendor;
};

inline std::string UniqueVendor(const char* tag)
{
    static std::atomic<int> counter{0};
    return std::string("ContainerTest") + tag + std::to_string(::GetCurrentProcessId()) + "x" +
           std::to_string(++counter);
}

// Messages of process `pid` still in the machine-wide log ring, oldest first.
inline std::vector<std::string> RingMessagesOf(DWORD pid)
{
    std::vector<std::string> messages;
    const std::string name = TarnBase::MakeKernelObjectName("TarnLogger::Logger::Mapping::3.0", true);
    TarnBase::UniqueHandle mapping(::OpenFileMappingA(FILE_MAP_READ, FALSE, name.c_str()));
    if (!mapping)
        return messages;
    TarnBase::UniqueMappedView view(::MapViewOfFile(mapping.Get(), FILE_MAP_READ, 0, 0, 0));
    MEMORY_BASIC_INFORMATION info{};
    if (!view || !::VirtualQuery(view.Get(), &info, sizeof info))
        return messages;
    TarnLog::RingSnapshot snapshot;
    std::string error;
    if (!TarnLog::SnapshotRing(static_cast<const uint8_t*>(view.Get()), info.RegionSize, snapshot, error))
        return messages;
    for (const auto& record : snapshot.records)
        if (record.processId == pid)
            messages.push_back(TarnLog::ReadField(record.message, sizeof record.message));
    return messages;
}

inline size_t CountMessages(const std::vector<std::string>& messages, const std::string& text)
{
    size_t n = 0;
    for (const auto& m : messages)
        n += m == text ? 1 : 0;
    return n;
}

inline bool HasMessage(const std::vector<std::string>& messages, const std::string& text)
{
    return CountMessages(messages, text) > 0;
}

} // namespace ContainerTest

#pragma once
// A page on a real host: tarnhost.exe runs a script against the registered DLL, with the
// local web server serving the signed data files; the host's output lines and its ring
// records come back for checking.
#include "BlackBox.h"
#include "ChildProcess.h"
#include "RingReader.h"
#include "TestServer.h"
#include "TarnLog/Log.h"

#include <doctest.h>

#include <fstream>

namespace HostPage {

constexpr DWORD kPageTimeoutMs = 60000;

inline std::string BinaryDir()
{
    const char* dir = std::getenv("TARN_BINARY_DIR");
    return dir ? dir : ".";
}

// One server for every case here. Under Wine each TestServer start closes a handle value
// that CreateProcess never filled in for the Unix child; fewer starts, fewer handles of this
// process (its cached HKLM key, its standard output) closed under it.
inline TarnTest::TestServer& Server()
{
    static TarnTest::TestServer server(BinaryDir() + "/trustfiles/www");
    return server;
}

// Every call the page makes goes through this, so a refused value shows up as a line
// "error <hex> <description>" instead of ending the script.
constexpr char kAskFunction[] =
    "function ask(f) { try { return String(f()); } catch (e) {"
    " return 'error ' + (e.number >>> 0).toString(16) + ' ' + e.description; } }\n";

struct HostRun {
    TarnTest::ChildResult child;
    std::vector<std::string> lines;
    std::vector<std::string> messages;

    bool LoggedStart(const std::string& prefix) const
    {
        for (const auto& m : messages)
            if (m.compare(0, prefix.size(), prefix) == 0)
                return true;
        return false;
    }
};

// Runs tarnhost on `script` (wide: it may carry any character) with the given options.
inline HostRun RunHost(const std::vector<std::wstring>& options, const std::wstring& script)
{
    wchar_t folder[MAX_PATH] = {};
    ::GetTempPathW(MAX_PATH, folder);
    static int serial = 0;
    const std::wstring path = std::wstring(folder) + L"fault-" + std::to_wstring(::GetCurrentProcessId()) + L"-" +
                              std::to_wstring(++serial) + L".js";
    {
        // UTF-16 with its mark, so that non-ANSI literals reach the engine unchanged.
        std::ofstream file(path.c_str(), std::ios::binary);
        const std::wstring text = L"\xFEFF" + TarnTest::Widen(kAskFunction) + script;
        file.write(reinterpret_cast<const char*>(text.data()), static_cast<std::streamsize>(text.size() * 2));
    }
    std::vector<std::wstring> args = {TarnTest::BuildPath("tools/tarnhost/tarnhost.exe")};
    args.insert(args.end(), options.begin(), options.end());
    args.push_back(path);

    // Keeps the ring, and so the child's records, alive after the child has gone.
    TarnLog::Log("TarnSMX::FaultInjectionTest", 3, "FaultInjectionTest: running a page.");
    HostRun run;
    run.child = TarnTest::RunChild(args, kPageTimeoutMs);
    ::DeleteFileW(path.c_str());
    size_t at = 0;
    const std::string& out = run.child.out;
    while (at < out.size()) {
        const size_t end = out.find('\n', at);
        run.lines.push_back(out.substr(at, end == std::string::npos ? std::string::npos : end - at));
        if (end == std::string::npos)
            break;
        at = end + 1;
    }
    TarnTest::RingReader ring;
    for (const auto& record : ring.RecordsOfProcess(run.child.processId))
        run.messages.push_back(TarnLog::ReadField(record.message, sizeof record.message));
    return run;
}

// The host survived: started, ended on its own, no script error it did not catch.
inline void CheckSurvived(const HostRun& run)
{
    INFO("stdout: " << run.child.out);
    INFO("stderr: " << run.child.err);
    REQUIRE(run.child.started);
    CHECK_FALSE(run.child.timedOut);
    CHECK(run.child.exitCode == 0);
}

// A false answer, or the boundary's clean refusal; never "true".
inline bool FalseOrCleanError(const std::string& line)
{
    return line == "false" || line.compare(0, 15, "error 80004005 ") == 0;
}

inline std::wstring SiteQuestion(int times = 1)
{
    std::wstring script;
    for (int i = 0; i < times; ++i)
        script += L"host.Echo(ask(function () { return TarnSM.IsCurrentSiteTrusted(); }));\n";
    return script;
}

inline std::vector<std::wstring> PageAt(const std::string& url, const std::string& dataFile)
{
    return {L"--url", TarnTest::Widen(url), L"--param", TarnTest::Widen("TrustedSiteDataFileURL=" + dataFile)};
}

inline std::string Unique(const char* base)
{
    return std::string(base) + "-" + std::to_string(::GetCurrentProcessId());
}

// A vendor key whose TrustedSigners or TrustedContainers subkeys carry the given names
// (wide: they may hold characters outside the ANSI code page); removed at the end. Written
// by reg.exe, not in this process: under Wine, TestServer closes a handle value that
// CreateProcess never filled in, and that can be this process's cached HKLM handle.
class OddVendorKey {
public:
    OddVendorKey(const std::string& vendor, const wchar_t* listKey, const std::vector<std::wstring>& names)
        : m_path(L"HKLM\\Software\\Ostrum\\Kestrel\\Config\\" + TarnTest::Widen(vendor))
    {
        for (const auto& name : names) {
            const auto result = TarnTest::RunChild({Reg(), L"add", m_path + L"\\TarnSM\\" + listKey + L"\\" + name, L"/f"}, 30000);
            created.push_back(result.started && !result.timedOut && result.exitCode == 0);
        }
    }
    ~OddVendorKey() { TarnTest::RunChild({Reg(), L"delete", m_path, L"/f"}, 30000); }
    OddVendorKey(const OddVendorKey&) = delete;
    OddVendorKey& operator=(const OddVendorKey&) = delete;
    std::vector<bool> created;  // one per name

private:
    static std::wstring Reg()
    {
        wchar_t system[MAX_PATH] = {};
        ::GetSystemDirectoryW(system, MAX_PATH);
        return std::wstring(system) + L"\\reg.exe";
    }
    std::wstring m_path;
};

} // namespace HostPage

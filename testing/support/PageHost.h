#pragma once
// Pages in tarnhost.exe, the browser stand-in, driving the registered TarnSMX.dll: one run
// gives the page's output lines, the log records of the host's process and the downloads
// it left behind. Hosts can be copies under other executable names (container rules), and
// can start suspended so their process id is known before the control runs.

#include "ChildProcess.h"
#include "RingReader.h"
#include "Scratch.h"
#include "TarnBase/win/Owners.h"
#include "TarnLog/Log.h"
#include "TarnSMX_h.h"
#include "TarnSM/win/ControlIdentity.h"

#include <wrl/client.h>

#include <algorithm>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace TarnTest {

using Microsoft::WRL::ComPtr;

using TarnBase::ComApartment;

inline ComPtr<ITarnSM> CreateControl(const wchar_t* progId = L"TarnSM.TarnSM")
{
    CLSID clsid{};
    ComPtr<ITarnSM> control;
    if (SUCCEEDED(::CLSIDFromProgID(progId, &clsid)))
        ::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, TarnSMX::kIidITarnSM,
                           reinterpret_cast<void**>(control.GetAddressOf()));
    return control;
}

// Messages of process `pid` still in the machine-wide log ring, oldest first.
inline std::vector<std::string> MessagesOf(DWORD pid) { return RingReader().MessagesOf(pid); }

// How often this process put `message` into the ring.
inline size_t CountRingMessages(const std::string& message)
{
    const std::vector<std::string> messages = MessagesOf(::GetCurrentProcessId());
    return std::count(messages.begin(), messages.end(), message);
}

// Script: echoes IsCurrentSiteTrusted `asks` times on each of `controls` controls.
inline std::string AskSiteScript(int asks = 1, int controls = 1)
{
    std::string script;
    for (int c = 1; c <= controls; ++c)
        for (int i = 0; i < asks; ++i)
            script += "host.Echo(host.Control(" + std::to_string(c) + ").IsCurrentSiteTrusted());\n";
    return script;
}

// Script: echoes IsCurrentContainerTrusted for each script argument (an alternative list),
// or once for "" without arguments; argument "poll" says "ready" and then asks (up to 20 s)
// until the answer is true, for tests that grant while the host runs.
constexpr char kAskContainerScript[] = R"(
var c = host.Control(1);
function ask(list) {
    try { return "" + c.IsCurrentContainerTrusted(list); }
    catch (e) { return "error " + (e.number >>> 0).toString(16) + " " + e.description; }
}
if (host.ArgCount > 0 && host.Arg(0) == "poll") {
    host.Echo("ready");
    var end = new Date().getTime() + 20000, answer = ask("");
    while (answer != "true" && new Date().getTime() < end)
        answer = ask("");
    host.Echo(answer);
} else {
    for (var i = 0; i < Math.max(host.ArgCount, 1); i++)
        host.Echo(ask(host.ArgCount ? host.Arg(i) : ""));
}
)";

// A script as UTF-16 with its byte order mark, so that any literal reaches the engine unchanged.
inline std::string Utf16Script(const std::wstring& text)
{
    const std::wstring marked = L"\xFEFF" + text;
    return std::string(reinterpret_cast<const char*>(marked.data()), marked.size() * sizeof(wchar_t));
}

struct PageRun {
    ChildResult result;
    std::string out;                    // the page's output, lines ended by '\n'
    std::vector<std::string> messages;  // the host process's log records
    std::vector<std::string> leftDownloads;

    bool Logged(const std::string& prefix) const { return Count(prefix) > 0; }
    size_t Count(const std::string& prefix) const
    {
        return std::count_if(messages.begin(), messages.end(),
                             [&](const std::string& m) { return m.compare(0, prefix.size(), prefix) == 0; });
    }
};

class PageHost {
public:
    // The ring lives while some process maps it: logging here keeps it, and so the pages'
    // records, alive after each page's process has exited.
    explicit PageHost(bool keepRing = true) : m_dir(L"page")
    {
        if (keepRing)
            TarnLog::Log("TarnTest::PageHost", 4, "Pages run from this process.");
    }

    // tarnhost.exe, or a copy of it named `name`.
    std::wstring Host(const std::wstring& name = L"")
    {
        const std::wstring original = BuildPath("tools/tarnhost/tarnhost.exe"), copy = m_dir / name;
        if (!name.empty() && !FileExists(copy))
            ::CopyFileW(original.c_str(), copy.c_str(), FALSE);
        return name.empty() ? original : copy;
    }

    // `script`: the file's bytes (ASCII, or Utf16Script).
    std::vector<std::wstring> Args(const std::vector<std::wstring>& options, const std::string& script,
                                   const std::vector<std::wstring>& scriptArgs = {}, const std::wstring& hostName = L"")
    {
        const std::wstring path = m_dir / Widen(Unique("page") + ".js");
        WriteBytes(path, script);
        std::vector<std::wstring> args{Host(hostName)};
        args.insert(args.end(), options.begin(), options.end());
        args.push_back(path);
        args.insert(args.end(), scriptArgs.begin(), scriptArgs.end());
        return args;
    }

    // Failed evaluations keep their download for inspection; they are removed here.
    PageRun Run(const std::vector<std::wstring>& options, const std::string& script,
                const std::vector<std::wstring>& scriptArgs = {}, const std::wstring& hostName = L"")
    {
        const std::set<std::wstring> before = Downloads();
        const ChildResult result = Process(Args(options, script, scriptArgs, hostName)).Finish();
        PageRun run{result, result.out, MessagesOf(result.processId), {}};
        for (const auto& name : Downloads())
            if (!before.count(name)) {
                run.leftDownloads.push_back(Narrow(name));
                ::DeleteFileW(name.c_str());
            }
        return run;
    }

    // The evaluations' downloads: PTI*.tmp in the temporary folder.
    static std::set<std::wstring> Downloads()
    {
        wchar_t folder[MAX_PATH] = {};
        ::GetTempPathW(MAX_PATH, folder);
        std::set<std::wstring> names;
        WIN32_FIND_DATAW found{};
        const TarnBase::UniqueFindHandle search(::FindFirstFileW((std::wstring(folder) + L"PTI*.tmp").c_str(), &found));
        for (bool more = static_cast<bool>(search); more; more = ::FindNextFileW(search.Get(), &found))
            names.insert(std::wstring(folder) + found.cFileName);
        return names;
    }

private:
    TempDir m_dir;
};

} // namespace TarnTest

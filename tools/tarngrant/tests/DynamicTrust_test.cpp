// Dynamic container trust end to end: tarngrant writes a grant into the machine-wide table,
// a page host (a copy of tarnhost under some name) asks the registered control, and the
// grant is used exactly once. The table is shared by every process of the session, so
// these tests run alone (SERIAL) and leave it as they found it.
#include "ContainerHost.h"

#include "TarnBase/KernelObjectName.h"
#include "TarnSys/TrustTable.h"
#include "TarnSys/win/DynamicProcessTrust.h"
#include "tools/tarngrant/TrustTableWriter.h"

#include <doctest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <cwctype>
#include <memory>
#include <random>

using namespace ContainerTest;

namespace {

const std::wstring kLocalPage = L"file:///C:/x/page.html";
const std::wstring kRemotePage = L"http://127.0.0.1/page.html";

std::wstring Pid(DWORD pid)
{
    return std::to_wstring(static_cast<unsigned long>(pid));
}

// Keeps the table open for a test, the way a running launcher does, and removes every
// grant the test made when it ends.
struct Table {
    TarnSys::DynamicProcessTrust table;
    std::vector<std::wstring> pids;
    Table() { REQUIRE(table.Initialize()); }
    ~Table()
    {
        for (const auto& pid : pids)
            TarnGrant::RevokeProcess(table, pid);
    }
    bool Holds(DWORD pid)
    {
        for (const auto& entry : TarnGrant::ListProcesses(table))
            if (entry.pid == Pid(pid))
                return true;
        return false;
    }
};

struct Host {
    std::unique_ptr<Process> process;
    std::wstring path;
};

// A host started suspended: its identifier is known before the control runs.
Host StartSuspended(HostDirectory& dir, const std::wstring& name, const std::vector<std::wstring>& options,
                    int queries = 1, const std::wstring& altList = L"")
{
    Host host;
    host.path = dir.Host(name);
    host.process = std::make_unique<Process>(HostArgs(dir, host.path, options, altList, queries), true);
    REQUIRE(host.process->Started());
    return host;
}

void Grant(Table& table, DWORD pid, const std::wstring& path)
{
    table.pids.push_back(Pid(pid));
    const auto run = RunGrant({L"grant", Pid(pid), path});
    REQUIRE_MESSAGE(run.exitCode == 0, run.err);
    CHECK(run.out.find("granted process " + Narrow(Pid(pid))) == 0);
}

std::vector<std::wstring> LocalPage()
{
    return {L"--url", kLocalPage};
}

} // namespace

TEST_CASE("a grant is used once: true from the table, then from the flag; the entry is gone")
{
    HostDirectory dir;
    Table table;
    Host host = StartSuspended(dir, L"myhost.exe", LocalPage(), 2);
    Grant(table, host.process->Pid(), host.path);
    CHECK(table.Holds(host.process->Pid()));
    host.process->Resume();
    const auto run = host.process->Finish();
    CHECK(run.out == "true\ntrue\n");
    CHECK(run.exitCode == 0);
    CHECK_FALSE(table.Holds(host.process->Pid()));
    const auto list = RunGrant({L"list"});
    CHECK(list.out.find(Narrow(host.path)) == std::string::npos);

    const std::string pid = std::to_string(host.process->Pid());
    const auto log = RingMessagesOf(host.process->Pid());
    CHECK(CountMessages(log, "ClearTrustedProcess():  Successfully cleared process with PID = " + pid + ".") == 1);
    // Two look-ups in the first query (find, clear), none in the second: the flag answers.
    CHECK(CountMessages(log, "FindProcess():  Successfully found process within list, PID = " + pid + ".") == 2);
    CHECK(CountMessages(log, "IsContainerDynamicallyTrustedRightNow: Current container is dynamically trusted.") == 2);
    // The host's name is never needed, so it is never looked up.
    CHECK(CountMessages(log, "IsCurrentContainerTrustedInternal: Our current container is granted dynamic trust at this time. Container: .") == 2);
}

TEST_CASE("the default path of a grant agrees with the host's own view of its path")
{
    HostDirectory dir;
    Table table;
    SUBCASE("a host started suspended, by a path with a lower-case drive letter")
    {
        dir.Host(L"MyHost.exe");
        std::wstring lower = dir.Directory() + L"\\MyHost.exe";
        lower[0] = static_cast<wchar_t>(std::towlower(lower[0]));
        auto process = std::make_unique<Process>(HostArgs(dir, lower, LocalPage(), L"", 1), true);
        REQUIRE(process->Started());
        table.pids.push_back(Pid(process->Pid()));
        const auto grant = RunGrant({L"grant", Pid(process->Pid())});
        REQUIRE_MESSAGE(grant.exitCode == 0, grant.err);
        process->Resume();
        CHECK(process->Finish().out == "true\n");
        // Stored "C:\..." and asked for "c:\...": trusted, and the grant is consumed.
        CHECK_FALSE(table.Holds(process->Pid()));
    }
    SUBCASE("a running process: the stored path is the one it reports itself")
    {
        table.pids.push_back(Pid(::GetCurrentProcessId()));
        const auto grant = RunGrant({L"grant", Pid(::GetCurrentProcessId())});
        REQUIRE_MESSAGE(grant.exitCode == 0, grant.err);
        char self[MAX_PATH + 1] = {};
        ::GetModuleFileNameA(nullptr, self, MAX_PATH + 1);
        const auto list = RunGrant({L"list"});
        CHECK(list.out.find(Narrow(Pid(::GetCurrentProcessId())) + " " + self + "\n") != std::string::npos);
        TarnSys::DynamicProcessTrust check;
        const std::wstring selfWide(self, self + std::strlen(self));
        CHECK(check.IsTrustedProcess(Pid(::GetCurrentProcessId()), selfWide));
    }
    SUBCASE("a running page host asks until the grant arrives")
    {
        Process host({dir.Host(L"myhost.exe"), L"--url", kLocalPage, dir.Script(), L"", L"1", L"poll"}, false);
        REQUIRE(host.WaitForOutput("ready", 20000));
        table.pids.push_back(Pid(host.Pid()));
        const auto grant = RunGrant({L"grant", Pid(host.Pid())});
        REQUIRE_MESSAGE(grant.exitCode == 0, grant.err);
        CHECK(host.Finish().out == "ready\ntrue\n");
        CHECK_FALSE(table.Holds(host.Pid()));
    }
}

TEST_CASE("grants that do not apply stay in the table")
{
    HostDirectory dir;
    Table table;
    SUBCASE("a different path")
    {
        Host host = StartSuspended(dir, L"myhost.exe", LocalPage());
        Grant(table, host.process->Pid(), dir.Directory() + L"\\other.exe");
        host.process->Resume();
        CHECK(host.process->Finish().out == "false\n");
        CHECK(table.Holds(host.process->Pid()));
        CHECK(HasMessage(RingMessagesOf(host.process->Pid()),
                         "IsTrustedProcess():  Process with PID = " + std::to_string(host.process->Pid()) + " is not trusted."));
        const auto revoke = RunGrant({L"revoke", Pid(host.process->Pid())});
        CHECK(revoke.exitCode == 0);
        CHECK_FALSE(table.Holds(host.process->Pid()));
    }
    SUBCASE("a remote page: refused before the table is read")
    {
        Host host = StartSuspended(dir, L"mshta.exe", {L"--url", kRemotePage});
        Grant(table, host.process->Pid(), host.path);
        host.process->Resume();
        CHECK(host.process->Finish().out == "false\n");
        CHECK(table.Holds(host.process->Pid()));
    }
    SUBCASE("another process with the same path")
    {
        Host granted = StartSuspended(dir, L"myhost.exe", LocalPage());
        Grant(table, granted.process->Pid(), granted.path);
        for (int i = 0; i < 2; ++i)
            CHECK(RunHost(dir, granted.path, LocalPage()).out == "false\n");
        CHECK(table.Holds(granted.process->Pid()));
        granted.process->Resume();
        CHECK(granted.process->Finish().out == "true\n");
        CHECK_FALSE(table.Holds(granted.process->Pid()));
    }
}

TEST_CASE("the browser itself can hold a dynamic grant")
{
    HostDirectory dir;
    Table table;
    Host host = StartSuspended(dir, L"iexplore.exe", LocalPage(), 1, L"aWV4cGxvcmUuZXhl");
    Grant(table, host.process->Pid(), host.path);
    host.process->Resume();
    CHECK(host.process->Finish().out == "true\n");
}

TEST_CASE("racing hosts of one executable: only the granted process uses the grant")
{
    HostDirectory dir;
    Table table;
    std::vector<Host> hosts;
    for (int i = 0; i < 6; ++i)
        hosts.push_back(StartSuspended(dir, L"myhost.exe", LocalPage(), 2));
    Grant(table, hosts[2].process->Pid(), hosts[2].path);
    for (auto& host : hosts)
        host.process->Resume();
    for (size_t i = 0; i < hosts.size(); ++i) {
        CAPTURE(i);
        const auto run = hosts[i].process->Finish();
        CHECK(run.exitCode == 0);
        CHECK(run.out == (i == 2 ? "true\ntrue\n" : "false\nfalse\n"));
        const auto log = RingMessagesOf(hosts[i].process->Pid());
        CHECK(CountMessages(log, "ClearTrustedProcess():  Successfully cleared process with PID = " +
                                     std::to_string(hosts[i].process->Pid()) + ".") == (i == 2 ? 1u : 0u));
    }
    CHECK(TarnGrant::ListProcesses(table.table).empty());
}

TEST_CASE("racing hosts each with a grant: every grant is used exactly once")
{
    HostDirectory dir;
    Table table;
    std::vector<Host> hosts;
    for (int i = 0; i < 6; ++i)
        hosts.push_back(StartSuspended(dir, i % 2 ? L"myhost.exe" : L"MSHTA.EXE", {}, 3));
    for (auto& host : hosts)
        Grant(table, host.process->Pid(), host.path);
    CHECK(TarnGrant::ListProcesses(table.table).size() == hosts.size());
    for (auto& host : hosts)
        host.process->Resume();
    for (auto& host : hosts) {
        CHECK(host.process->Finish().out == "true\ntrue\ntrue\n");
        CHECK(CountMessages(RingMessagesOf(host.process->Pid()),
                            "ClearTrustedProcess():  Successfully cleared process with PID = " +
                                std::to_string(host.process->Pid()) + ".") == 1);
    }
    CHECK(TarnGrant::ListProcesses(table.table).empty());
}

TEST_CASE("random bytes written into the table by another process never crash a host and never grant")
{
    HostDirectory dir;
    Table table;
    const std::string mappingName = TarnBase::MakeKernelObjectName(TarnSys::kTableMappingName, false);
    TarnBase::UniqueHandle mapping(::OpenFileMappingA(FILE_MAP_ALL_ACCESS, FALSE, mappingName.c_str()));
    REQUIRE(mapping);
    TarnBase::UniqueMappedView view(::MapViewOfFile(mapping.Get(), FILE_MAP_ALL_ACCESS, 0, 0, TarnSys::kTableBytes));
    REQUIRE(view);
    auto* bytes = static_cast<uint8_t*>(view.Get());
    std::vector<uint8_t> saved(bytes, bytes + TarnSys::kTableBytes);

    std::vector<Host> hosts;
    for (int i = 0; i < 4; ++i)
        hosts.push_back(StartSuspended(dir, i % 2 ? L"myhost.exe" : L"other.exe", LocalPage(), 2));
    std::mt19937 random(1234);
    auto scribble = [&](bool namePids) {
        for (size_t i = 0; i < TarnSys::kTableBytes; ++i)
            bytes[i] = static_cast<uint8_t>(random());
        if (!namePids)
            return;
        // Entries naming the hosts' identifiers over garbage paths: random units, no
        // terminator, or the path in clear instead of encrypted.
        for (size_t h = 0; h < hosts.size(); ++h) {
            const std::wstring pid = Pid(hosts[h].process->Pid());
            uint8_t* entry = bytes + TarnSys::EntryOffset(h * 3);
            for (size_t k = 0; k <= pid.size(); ++k) {
                const wchar_t unit = k < pid.size() ? pid[k] : L'\0';
                entry[2 * k] = static_cast<uint8_t>(unit & 0xFF);
                entry[2 * k + 1] = static_cast<uint8_t>(unit >> 8);
            }
            if (h == 1)
                for (size_t k = 0; k < TarnSys::kPathFieldBytes; ++k)
                    entry[TarnSys::kPidFieldBytes + k] = static_cast<uint8_t>(1 + random() % 255);
            if (h == 2)
                for (size_t k = 0; k <= hosts[h].path.size(); ++k) {
                    const wchar_t unit = k < hosts[h].path.size() ? hosts[h].path[k] : L'\0';
                    entry[TarnSys::kPidFieldBytes + 2 * k] = static_cast<uint8_t>(unit & 0xFF);
                    entry[TarnSys::kPidFieldBytes + 2 * k + 1] = static_cast<uint8_t>(unit >> 8);
                }
        }
    };
    scribble(true);
    // A hostile writer keeps scribbling, without the mutex, while the hosts ask.
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        std::mt19937 local(99);
        while (!stop) {
            const size_t entry = local() % TarnSys::kTableEntryCount;
            for (size_t k = 0; k < TarnSys::kTableEntryBytes; k += 4)
                bytes[TarnSys::EntryOffset(entry) + k] = static_cast<uint8_t>(local());
            ::Sleep(0);
        }
    });
    for (auto& host : hosts)
        host.process->Resume();
    for (auto& host : hosts) {
        const auto run = host.process->Finish();
        CHECK(run.exitCode == 0);
        CHECK(run.out == "false\nfalse\n");
    }
    stop = true;
    writer.join();
    std::copy(saved.begin(), saved.end(), bytes);
}

TEST_CASE("a table mutex held by another process delays a host but never hangs it")
{
    HostDirectory dir;
    Table table;
    Host host = StartSuspended(dir, L"mshta.exe", LocalPage(), 1);
    TarnBase::UniqueHandle release(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
    std::atomic<bool> held{false};
    std::thread holder([&] {
        TarnSys::DynamicProcessTrust other;
        other.TableMutex().Acquire(INFINITE);
        held = true;
        ::WaitForSingleObject(release.Get(), 60000);
        other.TableMutex().Release();
    });
    while (!held)
        ::Sleep(5);
    const auto start = std::chrono::steady_clock::now();
    host.process->Resume();
    const auto run = host.process->Finish(30000);
    const auto took = std::chrono::steady_clock::now() - start;
    ::SetEvent(release.Get());
    holder.join();
    CHECK_FALSE(run.timedOut);
    // The grant could not be read, so the name decides (mshta.exe is on the built-in list).
    CHECK(run.out == "true\n");
    CHECK(took < std::chrono::seconds(15));
    CHECK(HasMessage(RingMessagesOf(host.process->Pid()), "IsTrustedProcess():  Exception - AUTOLOCK_TIMEOUT_EXCEPTION_ERROR."));
}

TEST_CASE("a mutex name taken by another kind of object makes the question fail, never trust")
{
    const std::string name = TarnBase::MakeKernelObjectName(TarnSys::kTableMutexName, true);
    TarnBase::UniqueHandle squatter(::CreateEventA(nullptr, TRUE, FALSE, name.c_str()));
    if (!squatter) {
        MESSAGE("the table's mutex exists (another process holds it); cannot squat its name now");
        return;
    }
    HostDirectory dir;
    for (const wchar_t* name : {L"myhost.exe", L"mshta.exe"}) {
        Process host(HostArgs(dir, dir.Host(name), LocalPage()), false);
        const auto run = host.Finish();
        CHECK(run.exitCode == 0);
        CHECK(run.out == "error 80004005 INVALID_OBJECT_ERROR\n");
        CHECK(HasMessage(RingMessagesOf(host.Pid()), "IsTrustedProcess(): Error - Object is invalid."));
    }
}

TEST_CASE("tarngrant keeps a table nobody else holds until the grant is used")
{
    HostDirectory dir;
    {
        TarnSys::DynamicProcessTrust probe;
        REQUIRE(probe.Initialize());
        if (!probe.CreatedTable()) {
            MESSAGE("another process holds the table; tarngrant has no reason to hold it");
            return;
        }
    }
    SUBCASE("used")
    {
        Host host = StartSuspended(dir, L"myhost.exe", LocalPage());
        Process grant(GrantArgs({L"grant", Pid(host.process->Pid()), host.path}), false);
        REQUIRE(grant.WaitForOutput("holding the table open", 20000));
        host.process->Resume();
        CHECK(host.process->Finish().out == "true\n");
        const auto run = grant.Finish(20000);
        CHECK(run.exitCode == 0);
        CHECK(run.out.find("grant of process " + std::to_string(host.process->Pid()) + " used or revoked") !=
              std::string::npos);
    }
    SUBCASE("the process ends without using it: the grant is revoked")
    {
        Host host = StartSuspended(dir, L"myhost.exe", {L"--url", kRemotePage});
        Process grant(GrantArgs({L"grant", Pid(host.process->Pid()), host.path}), false);
        REQUIRE(grant.WaitForOutput("holding the table open", 20000));
        host.process->Resume();
        CHECK(host.process->Finish().out == "false\n");
        const auto run = grant.Finish(20000);
        CHECK(run.exitCode == 3);
        CHECK(run.err.find("ended without using the grant; revoked") != std::string::npos);
    }
    SUBCASE("nobody uses it in time")
    {
        Host host = StartSuspended(dir, L"myhost.exe", LocalPage());
        const auto run = RunGrant({L"grant", L"--hold", L"1", Pid(host.process->Pid()), host.path});
        CHECK(run.exitCode == 3);
        CHECK(run.err.find("was not used within 1 s; revoked") != std::string::npos);
    }
}

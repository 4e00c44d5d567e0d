// Dynamic container trust end to end: tarngrant grants, a copy of tarnhost asks the registered
// control. The table is machine-wide, so these tests run alone and leave it as they found it.
#include "tools/tarngrant/TrustTableWriter.h"
#include "ContainerHost.h"

#include "TarnBase/KernelObjectName.h"

#include <doctest.h>

#include <algorithm>
#include <chrono>
#include <cwctype>
#include <memory>

using namespace ContainerTest;

namespace {

std::wstring Pid(DWORD pid) { return std::to_wstring(static_cast<unsigned long>(pid)); }

long Count(DWORD pid, const std::string& message)
{
    const auto messages = TarnTest::MessagesOf(pid);
    return std::count(messages.begin(), messages.end(), message);
}

const wchar_t kLocalPage[] = L"file:///C:/x/page.html";

// A copy of tarnhost named `name` asking IsCurrentContainerTrusted once per script argument,
// started suspended so that its id is known before the control runs. It is started by a
// "c:\\..." path: a grant stored as "C:\\..." must still agree.
std::unique_ptr<Process> StartHost(TarnTest::PageHost& pages, const std::wstring& name, int queries = 1,
                                   const std::wstring& page = kLocalPage, const std::wstring& altList = L"",
                                   bool suspended = true)
{
    auto args = pages.Args({L"--url", page}, TarnTest::kAskContainerScript,
                           std::vector<std::wstring>(static_cast<size_t>(queries), altList), name);
    args[0][0] = static_cast<wchar_t>(std::towlower(args[0][0]));
    auto host = std::make_unique<Process>(args, suspended);
    REQUIRE(host->Started());
    return host;
}

void Grant(Table& table, DWORD pid, const std::wstring& path = L"")
{
    table.pids.push_back(Pid(pid));
    std::vector<std::wstring> args{L"grant", Pid(pid)};
    if (!path.empty())  // else tarngrant's view of the process's path
        args.push_back(path);
    const auto run = RunGrant(args);
    REQUIRE_MESSAGE(run.exitCode == 0, run.err);
    CHECK(run.out.find("granted process " + Narrow(Pid(pid))) == 0);
}

} // namespace

TEST_CASE("a grant is used once: true from the table, then from the flag; the entry is gone; tarngrant held the table")
{
    REQUIRE_MESSAGE([] { TarnSys::DynamicProcessTrust probe; return probe.Initialize() && probe.CreatedTable(); }(),
                    "another process holds the table");
    TarnTest::PageHost pages;
    auto host = StartHost(pages, L"myhost.exe", 2);
    const std::string pid = std::to_string(host->Pid());
    // Nobody else holds the table, so tarngrant keeps it until the grant is used.
    Process grant({TarnGrantPath(), L"grant", Pid(host->Pid()), pages.Host(L"myhost.exe")}, false);
    REQUIRE(grant.WaitForOutput("holding the table open", 20000));
    Table table;
    table.pids.push_back(Pid(host->Pid()));
    CHECK(table.Holds(host->Pid()));
    host->Resume();
    CHECK(host->Finish().out == "true\ntrue\n");
    CHECK_FALSE(table.Holds(host->Pid()));
    const auto granted = grant.Finish(20000);
    CHECK(granted.exitCode == 0);
    CHECK(granted.out.find("granted process " + pid) == 0);
    CHECK(granted.out.find("grant of process " + pid + " used or revoked") != std::string::npos);
    CHECK(Count(host->Pid(), "ClearTrustedProcess():  Successfully cleared process with PID = " + pid + ".") == 1);
    // Two look-ups in the first query (find, clear), none in the second: the flag answers.
    CHECK(Count(host->Pid(), "FindProcess():  Successfully found process within list, PID = " + pid + ".") == 2);
    CHECK(Count(host->Pid(), "IsContainerDynamicallyTrustedRightNow: Current container is dynamically trusted.") == 2);
    // The host's name is never needed, so it is never looked up.
    CHECK(Count(host->Pid(), "IsCurrentContainerTrustedInternal: Our current container is granted dynamic trust at "
                             "this time. Container: .") == 2);
}

TEST_CASE("a grant holds for its own process and path only, never on a remote page; the browser may hold one")
{
    // {host, page, alternative list, granted path: appended to the host's, or nullptr for
    // tarngrant's default; trusted, and so the grant used and gone}
    struct Row { const wchar_t *name, *page, *altList, *path; bool trusted; };
    const Row rows[] = {
        {L"myhost.exe", kLocalPage, L"", L"x", false},
        {L"mshta.exe", L"http://127.0.0.1/page.html", L"", L"", false},  // refused before the table is read
        {L"iexplore.exe", kLocalPage, L"aWV4cGxvcmUuZXhl", L"", true},
        {L"MyHost.exe", kLocalPage, L"", nullptr, true},
    };
    TarnTest::PageHost pages;
    Table table;
    for (const Row& row : rows) {
        CAPTURE(Narrow(row.name));
        auto host = StartHost(pages, row.name, 1, row.page, row.altList);
        Grant(table, host->Pid(), row.path ? pages.Host(row.name) + row.path : L"");
        host->Resume();
        CHECK(host->Finish().out == (row.trusted ? "true\n" : "false\n"));
        CHECK(table.Holds(host->Pid()) != row.trusted);
    }
}

TEST_CASE("departure: a table mutex held by another process delays a host but never hangs it (the wait is capped)")
{
    TarnTest::PageHost pages;
    auto host = StartHost(pages, L"mshta.exe");
    TarnSys::DynamicProcessTrust other;
    REQUIRE(other.TableMutex().Acquire(INFINITE));
    const auto start = std::chrono::steady_clock::now();
    host->Resume();
    const auto run = host->Finish(30000);
    const auto took = std::chrono::steady_clock::now() - start;
    other.TableMutex().Release();
    CHECK_FALSE(run.timedOut);
    // The grant could not be read, so the name decides (mshta.exe is on the built-in list).
    CHECK(run.out == "true\n");
    CHECK(took < std::chrono::seconds(15));
    CHECK(Count(run.processId, "IsTrustedProcess():  Exception - AUTOLOCK_TIMEOUT_EXCEPTION_ERROR.") == 1);
}

TEST_CASE("a mutex name taken by another kind of object makes the question fail, never trust")
{
    const std::string name = TarnBase::MakeKernelObjectName(TarnSys::kTableMutexName, true);
    TarnBase::UniqueHandle squatter(::CreateEventA(nullptr, TRUE, FALSE, name.c_str()));
    // These tests run alone, so nothing else may hold the table's mutex now.
    REQUIRE_MESSAGE(squatter, "the table's mutex exists (another process holds it)");
    TarnTest::PageHost pages;
    const auto run = StartHost(pages, L"mshta.exe", 1, kLocalPage, L"", false)->Finish();  // a trusted name
    CHECK(run.exitCode == 0);
    CHECK(run.out == "error 80004005 INVALID_OBJECT_ERROR\n");
    CHECK(Count(run.processId, "IsTrustedProcess(): Error - Object is invalid.") >= 1);
}

// The trusted-process table through its real named mutex and mapping. These tests share
// the machine-wide table, so they run alone (SERIAL) and remove every entry they add.
#include "tools/tarngrant/TrustTableWriter.h"
#include "TarnSys/win/DynamicProcessTrust.h"

#include "TarnBase/KernelObjectName.h"
#include "TarnSys/TrustTable.h"

#include "LogCapture.h"

#include <doctest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <random>
#include <thread>
#include <vector>

using namespace TarnSys;
using TarnGrant::GrantResult;

namespace {

// Identifiers far above any real process's, so no running process is ever granted.
const std::wstring kPid = L"3999999901";
const std::wstring kOtherPid = L"3999999902";
const std::wstring kPath = L"C:\\Program Files\\Ostrum\\TarnBrowser.exe";

// Removes the given identifiers' entries at the end of a test, whatever happened.
struct Cleanup {
    std::vector<std::wstring> pids;
    ~Cleanup()
    {
        DynamicProcessTrust table;
        for (const auto& pid : pids)
            TarnGrant::RevokeProcess(table, pid);
    }
};

// Direct access to the mapping, as any other local process has it.
struct RawTable {
    TarnBase::UniqueHandle mapping;
    TarnBase::UniqueMappedView view;
    bool existed = false;
    RawTable()
    {
        const std::string name = TarnBase::MakeKernelObjectName(kTableMappingName, false);
        mapping.Reset(::CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, kTableBytes, name.c_str()));
        existed = ::GetLastError() == ERROR_ALREADY_EXISTS;
        if (mapping)
            view.Reset(::MapViewOfFile(mapping.Get(), FILE_MAP_ALL_ACCESS, 0, 0, kTableBytes));
    }
    uint8_t* Bytes() const { return static_cast<uint8_t*>(view.Get()); }
};

} // namespace

TEST_CASE("the first holder creates the table, a second opens it; a grant is found, trusted and cleared for its own pid and path only")
{
    Cleanup cleanup{{kPid}};
    TarnTest::LogCapture log;
    DynamicProcessTrust first;
    REQUIRE(first.Initialize());
    // The program runs alone (SERIAL) and every object of an earlier case is gone: this one creates.
    REQUIRE(first.CreatedTable());
    uint32_t index = 99;
    REQUIRE(TarnGrant::GrantProcess(first, kPid, kPath, &index) == GrantResult::Granted);
    DynamicProcessTrust table;
    REQUIRE(table.Initialize());
    CHECK_FALSE(table.CreatedTable());
    // The names: a machine-wide mutex and a session-local mapping.
    CHECK(first.TableMutex().GetName() == "Global\\TarnSys::DynamicProcessTrust::Mutex::2.0");
    CHECK(RawTable().existed);
    // {pid, path -> trusted, cleared}, in order: the second object sees the first one's entry.
    const struct { std::wstring pid, path; bool trusted; } rows[] = {
        {kPid, L"C:\\Program Files\\Ostrum\\Other.exe", false}, {kOtherPid, kPath, false}, {kPid, kPath, true},
        {kPid, kPath, false}};
    for (const auto& row : rows) {
        CHECK(table.IsTrustedProcess(row.pid, row.path) == row.trusted);
        CHECK(table.ClearTrustedProcess(row.pid, row.path) == row.trusted);
    }
    TarnTest::ExpectInOrder(log, {
        {"", 3, "InitMemoryMap():  Successfully created shared memory with size = 38524."},
        {"", 3, "InitMemoryMap():  Successfully opened shared memory with size = 38524."},
        {"", 3, "IsTrustedProcess():  Process with PID = 3999999901 is not trusted."},
        {"", 1, "ClearTrustedProcess():  Found PID, but app paths do not match. Cannot clear process with PID = 3999999901."},
        {"", 3, "IsTrustedProcess():  Process with PID = 3999999901 is trusted."},
        {"", 3, "ClearTrustedProcess():  Successfully cleared process with PID = 3999999901."},
        {"", 2, "ClearTrustedProcess():  Failed to find trusted process with PID = 3999999901. Cannot clear."},
    });
    RawTable raw;
    REQUIRE(raw.view);
    CHECK(std::all_of(raw.Bytes() + EntryOffset(index), raw.Bytes() + EntryOffset(index) + kTableEntryBytes,
                      [](uint8_t b) { return b == 0; }));
    // Identifiers: 256 characters are searched, 257 refused.
    TarnMT::AutoLockMutex lock(&table.TableMutex(), INFINITE);
    log.Clear();
    uint32_t found = 7;
    std::wstring path = L"left over";
    CHECK_FALSE(table.FindProcess(std::wstring(256, L'9'), found, path));
    CHECK((found == 0 && path.empty()));
    CHECK_FALSE(table.FindProcess(std::wstring(257, L'9'), found, path));
    TarnTest::Expect(log, {{"", 3, "FindProcess():  Failed to find specified process in list , PID = 9999..."},
                           {"", 2, "FindProcess():  PID parameter string is too long. Invalid arg. Cannot find process."}});
}

// A grant is honoured at most once: found and removed under one hold of the table's mutex,
// and not honoured at all when it could not be removed.
TEST_CASE("threads racing for one grant: exactly one consumes it; none while the table is held elsewhere")
{
    Cleanup cleanup{{kPid}};
    DynamicProcessTrust writer;  // keeps the table alive for the whole case
    REQUIRE(TarnGrant::GrantProcess(writer, kPid, kPath) == GrantResult::Granted);
    std::atomic<int> won{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t)
        threads.emplace_back([&] { won += DynamicProcessTrust().ConsumeTrustedProcess(kPid, kPath); });
    for (auto& t : threads)
        t.join();
    CHECK(won == 1);
    CHECK_FALSE(writer.IsTrustedProcess(kPid, kPath));
    REQUIRE(TarnGrant::GrantProcess(writer, kPid, kPath) == GrantResult::Granted);
    std::atomic<bool> held{false}, done{false};
    std::thread holder([&] {
        DynamicProcessTrust other;
        other.TableMutex().Acquire(INFINITE);
        for (held = true; !done;)
            ::Sleep(5);
        other.TableMutex().Release();
    });
    while (!held)
        ::Sleep(5);
    CHECK_FALSE(DynamicProcessTrust().ConsumeTrustedProcess(kPid, kPath));
    done = true;
    holder.join();
    CHECK(writer.IsTrustedProcess(kPid, kPath));  // still there for a later question
}

TEST_CASE("random bytes another process writes into the table, even while it is read, never grant")
{
    DynamicProcessTrust table;
    REQUIRE(table.Initialize());
    RawTable raw;
    uint8_t* bytes = raw.Bytes();
    std::mt19937 random(1234);
    std::generate(bytes, bytes + kTableBytes, [&] { return static_cast<uint8_t>(random()); });
    // Our identifiers over garbage paths: random units without a terminator, or the path in clear.
    std::memcpy(bytes + EntryOffset(1), kPid.c_str(), (kPid.size() + 1) * sizeof(wchar_t));
    std::memcpy(bytes + EntryOffset(4), kOtherPid.c_str(), (kOtherPid.size() + 1) * sizeof(wchar_t));
    std::memcpy(bytes + EntryOffset(4) + kPidFieldBytes, kPath.c_str(), (kPath.size() + 1) * sizeof(wchar_t));
    int granted = 0;
    const auto askAll = [&] {
        for (const std::wstring& pid : {kPid, kOtherPid, std::wstring(L"4294967295")})
            granted += table.ConsumeTrustedProcess(pid, kPath);
    };
    askAll();  // before the scribbling starts, then while it goes on
    std::atomic<bool> stop{false};
    std::thread writer([&] {  // without the mutex
        for (std::mt19937 local(99); !stop; ::Sleep(0))
            for (size_t entry = local() % kTableEntryCount, k = 0; k < kTableEntryBytes; k += 4)
                bytes[EntryOffset(entry) + k] = static_cast<uint8_t>(local());
    });
    for (int i = 0; i < 300; ++i)
        askAll();
    stop = true;
    writer.join();
    std::memset(bytes, 0, kTableBytes);
    CHECK(granted == 0);
}

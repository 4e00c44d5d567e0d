// The trusted-process table through its real named mutex and mapping. These tests share
// the machine-wide table, so they run alone (SERIAL) and remove every entry they add.
#include "TarnSys/win/DynamicProcessTrust.h"
#include "tools/tarngrant/TrustTableWriter.h"

#include "TarnBase/Exceptions.h"
#include "TarnBase/KernelObjectName.h"
#include "TarnSys/TrustTable.h"
#include "TarnUtils/win/CryptoUtils.h"

#include "LogCapture.h"

#include <doctest.h>

#include <atomic>
#include <thread>
#include <vector>

using namespace TarnSys;

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

std::wstring StoredForm(const std::wstring& path)
{
    TarnUtils::CryptoUtils crypto;
    std::wstring text = path;
    REQUIRE(crypto.EncryptString(text));
    return text.substr(0, text.find(L'\0'));
}

// Direct access to the mapping, as any other local process has it.
struct RawTable {
    TarnBase::UniqueHandle mapping;
    TarnBase::UniqueMappedView view;
    bool existed = false;
    explicit RawTable(DWORD size = static_cast<DWORD>(kTableBytes))
    {
        const std::string name = TarnBase::MakeKernelObjectName(kTableMappingName, false);
        mapping.Reset(::CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, size, name.c_str()));
        existed = ::GetLastError() == ERROR_ALREADY_EXISTS;
        if (mapping)
            view.Reset(::MapViewOfFile(mapping.Get(), FILE_MAP_ALL_ACCESS, 0, 0, size));
    }
    uint8_t* Bytes() const { return static_cast<uint8_t*>(view.Get()); }
};

} // namespace

TEST_CASE("the first holder creates the zeroed table; a second one opens it and sees its entries")
{
    Cleanup cleanup{{kPid}};
    TarnTest::LogCapture log;
    DynamicProcessTrust first;
    REQUIRE(first.IsValid());
    REQUIRE(first.Initialize());
    CHECK(first.Initialize());  // once per object
    if (first.CreatedTable()) {
        CHECK(log.Has("InitMemoryMap():  Successfully created shared memory with size = 38524.", 3));
        CHECK(TarnGrant::ListProcesses(first).empty());
    } else {
        MESSAGE("another process holds the table; the creation case is not observable now");
    }
    REQUIRE(TarnGrant::GrantProcess(first, kPid, kPath) == TarnGrant::GrantResult::Granted);

    log.Clear();
    DynamicProcessTrust second;
    REQUIRE(second.Initialize());
    CHECK_FALSE(second.CreatedTable());
    CHECK(log.Has("InitMemoryMap():  Successfully opened shared memory with size = 38524.", 3));
    CHECK(log.Count("InitMemoryMap():  Successfully opened shared memory with size = 38524.") == 1);
    CHECK(second.IsTrustedProcess(kPid, kPath));

    // The names: a machine-wide mutex and a session-local mapping.
    CHECK(first.TableMutex().GetName() == "Global\\TarnSys::DynamicProcessTrust::Mutex::2.0");
    RawTable raw;
    CHECK(raw.existed);
}

TEST_CASE("a grant is found, trusted and cleared; afterwards it is gone")
{
    Cleanup cleanup{{kPid}};
    DynamicProcessTrust table;
    uint32_t index = 99;
    REQUIRE(TarnGrant::GrantProcess(table, kPid, kPath, &index) == TarnGrant::GrantResult::Granted);

    TarnTest::LogCapture log;
    {
        TarnMT::AutoLockMutex lock(&table.TableMutex(), INFINITE);
        uint32_t found = 99;
        std::wstring stored;
        REQUIRE(table.FindProcess(kPid, found, stored));
        CHECK(found == index);
        CHECK(stored == StoredForm(kPath));
        CHECK(log.Has("FindProcess():  Successfully found process within list, PID = 3999999901.", 3));
    }
    CHECK(table.IsTrustedProcess(kPid, kPath));
    CHECK(log.Has("IsTrustedProcess():  Process with PID = 3999999901 is trusted.", 3));
    CHECK(table.ClearTrustedProcess(kPid, kPath));
    CHECK(log.Has("ClearTrustedProcess():  Successfully cleared process with PID = 3999999901.", 3));

    log.Clear();
    CHECK_FALSE(table.IsTrustedProcess(kPid, kPath));
    CHECK(log.Has("FindProcess():  Failed to find specified process in list , PID = 3999999901.", 3));
    CHECK(log.Has("IsTrustedProcess():  Specified process is not currently trusted, PID = 3999999901.", 3));
    CHECK_FALSE(table.ClearTrustedProcess(kPid, kPath));
    CHECK(log.Has("ClearTrustedProcess():  Failed to find trusted process with PID = 3999999901. Cannot clear.", 2));

    // The cleared entry is entirely zero again.
    RawTable raw;
    REQUIRE(raw.view);
    for (size_t i = 0; i < kTableEntryBytes; ++i)
        REQUIRE(raw.Bytes()[EntryOffset(index) + i] == 0);
}

TEST_CASE("a matching identifier with another path is neither trusted nor cleared")
{
    Cleanup cleanup{{kPid}};
    DynamicProcessTrust table;
    REQUIRE(TarnGrant::GrantProcess(table, kPid, kPath) == TarnGrant::GrantResult::Granted);
    TarnTest::LogCapture log;
    CHECK_FALSE(table.IsTrustedProcess(kPid, L"C:\\Program Files\\Ostrum\\Other.exe"));
    CHECK(log.Has("IsTrustedProcess():  Process with PID = 3999999901 is not trusted.", 3));
    CHECK_FALSE(table.ClearTrustedProcess(kPid, L"C:\\Program Files\\Ostrum\\Other.exe"));
    CHECK(log.Has("ClearTrustedProcess():  Found PID, but app paths do not match. Cannot clear process with PID = 3999999901.", 1));
    // Another identifier with the right path gets nothing from this entry.
    CHECK_FALSE(table.IsTrustedProcess(kOtherPid, kPath));
    CHECK_FALSE(table.ClearTrustedProcess(kOtherPid, kPath));
    // The entry stays.
    CHECK(table.IsTrustedProcess(kPid, kPath));
}

TEST_CASE("paths that differ only in letter case are trusted and cleared")
{
    Cleanup cleanup{{kPid}};
    DynamicProcessTrust table;
    REQUIRE(TarnGrant::GrantProcess(table, kPid, L"z:\\tmp\\Host\\MSHTA.EXE") == TarnGrant::GrantResult::Granted);
    CHECK(table.IsTrustedProcess(kPid, L"Z:\\TMP\\host\\mshta.exe"));
    CHECK(table.ClearTrustedProcess(kPid, L"Z:\\TMP\\host\\mshta.exe"));
    CHECK(TarnGrant::ListProcesses(table).empty() == true);
}

TEST_CASE("the system directory is not exchanged for a 64-bit reader")
{
    Cleanup cleanup{{kPid}};
#ifdef _WIN64
    CHECK_FALSE(IsCurrentProcessWow64());
#endif
    if (IsCurrentProcessWow64())
        return;
    DynamicProcessTrust table;
    REQUIRE(TarnGrant::GrantProcess(table, kPid, L"C:\\Windows\\system32\\mshta.exe") == TarnGrant::GrantResult::Granted);
    TarnTest::LogCapture log;
    CHECK_FALSE(table.IsTrustedProcess(kPid, L"C:\\Windows\\syswow64\\mshta.exe"));
    CHECK_FALSE(log.HasSubstring("under WOW64"));
    CHECK(table.IsTrustedProcess(kPid, L"C:\\Windows\\system32\\mshta.exe"));
}

TEST_CASE("identifier length: 256 characters are searched, 257 refused")
{
    DynamicProcessTrust table;
    REQUIRE(table.Initialize());
    TarnMT::AutoLockMutex lock(&table.TableMutex(), INFINITE);
    TarnTest::LogCapture log;
    uint32_t index = 7;
    std::wstring path = L"left over";
    CHECK_FALSE(table.FindProcess(std::wstring(256, L'9'), index, path));
    CHECK(index == 0);
    CHECK(path.empty());
    CHECK(log.HasSubstring("FindProcess():  Failed to find specified process in list , PID = 9999"));
    log.Clear();
    CHECK_FALSE(table.FindProcess(std::wstring(257, L'9'), index, path));
    CHECK(log.Has("FindProcess():  PID parameter string is too long. Invalid arg. Cannot find process.", 2));
}

TEST_CASE("a full table refuses a sixteenth grant and fails look-ups of absent identifiers")
{
    Cleanup cleanup;
    DynamicProcessTrust table;
    const size_t inUse = TarnGrant::ListProcesses(table).size();
    for (size_t i = inUse; i < kTableEntryCount; ++i) {
        cleanup.pids.push_back(std::to_wstring(3999999910ul + i));
        REQUIRE(TarnGrant::GrantProcess(table, cleanup.pids.back(), kPath) == TarnGrant::GrantResult::Granted);
    }
    CHECK(TarnGrant::ListProcesses(table).size() == kTableEntryCount);
    CHECK(TarnGrant::GrantProcess(table, kPid, kPath) == TarnGrant::GrantResult::TableFull);
    CHECK_FALSE(table.IsTrustedProcess(kPid, kPath));
    // A new grant for an identifier already in the table replaces its entry instead.
    uint32_t index = 0;
    CHECK(TarnGrant::GrantProcess(table, cleanup.pids.back(), L"C:\\other.exe", &index) == TarnGrant::GrantResult::Replaced);
    CHECK(table.IsTrustedProcess(cleanup.pids.back(), L"C:\\other.exe"));
}

TEST_CASE("the writer refuses what could never match")
{
    DynamicProcessTrust table;
    CHECK(TarnGrant::GrantProcess(table, L"", kPath) == TarnGrant::GrantResult::InvalidPid);
    CHECK(TarnGrant::GrantProcess(table, L"12a", kPath) == TarnGrant::GrantResult::InvalidPid);
    CHECK(TarnGrant::GrantProcess(table, kPid, std::wstring(1026, L'p')) == TarnGrant::GrantResult::PathTooLong);
    CHECK(TarnGrant::GrantProcess(table, kPid, L"") == TarnGrant::GrantResult::PathNotStorable);
    CHECK(TarnGrant::RevokeProcess(table, L"") == 0);
    CHECK(TarnGrant::RevokeProcess(table, std::wstring(L"\0", 1)) == 0);
    CHECK(TarnGrant::RevokeProcess(table, kPid) == 0);
}

TEST_CASE("threads racing for one grant: exactly one clears it")
{
    Cleanup cleanup{{kPid}};
    {
        DynamicProcessTrust writer;
        REQUIRE(TarnGrant::GrantProcess(writer, kPid, kPath) == TarnGrant::GrantResult::Granted);
        RawTable keepAlive;  // the table must outlive the writer object
        std::atomic<int> cleared{0};
        std::atomic<int> trusted{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 6; ++t)
            threads.emplace_back([&] {
                DynamicProcessTrust table;
                if (table.IsTrustedProcess(kPid, kPath))
                    ++trusted;
                if (table.ClearTrustedProcess(kPid, kPath))
                    ++cleared;
            });
        for (auto& t : threads)
            t.join();
        CHECK(cleared == 1);
        CHECK(trusted >= 1);
        CHECK_FALSE(writer.IsTrustedProcess(kPid, kPath));
    }
}

TEST_CASE("a mapping of that name made too small by another process is refused")
{
    RawTable squatter(4096);
    REQUIRE(squatter.mapping);
    if (squatter.existed) {
        MESSAGE("the table exists already; a squatter cannot be placed now");
        return;
    }
    TarnTest::LogCapture log;
    DynamicProcessTrust table;
    CHECK_FALSE(table.Initialize());
    CHECK(log.HasSubstring("InitMemoryMap():  Failed to create/open shared memory. HRESULT = <0x8007"));
    CHECK_FALSE(table.IsTrustedProcess(kPid, kPath));
    CHECK(log.Has("IsTrustedProcess():  Failed to intialize shared memory.", 1));
    CHECK_FALSE(table.ClearTrustedProcess(kPid, kPath));
    CHECK(log.Has("ClearTrustedProcess():  Failed to intialize shared memory.", 1));
    CHECK(TarnGrant::GrantProcess(table, kPid, kPath) == TarnGrant::GrantResult::Unavailable);
}

TEST_CASE("an object whose mutex name is taken by another kind of object is invalid")
{
    const std::string name = TarnBase::MakeKernelObjectName(kTableMutexName, true);
    TarnBase::UniqueHandle squatter(::CreateEventA(nullptr, TRUE, FALSE, name.c_str()));
    if (!squatter) {
        MESSAGE("the table's mutex exists already; it cannot be squatted now");
        return;
    }
    TarnTest::LogCapture log;
    DynamicProcessTrust table;
    CHECK_FALSE(table.IsValid());
    CHECK(log.Has("DynamicProcessTrust():  Failed to construct properly.", 1));
    CHECK_THROWS_AS(table.Initialize(), TarnBase::InvalidObjectException);
    CHECK(log.Has("Initialize(): Error - Object is invalid.", 1));
    CHECK_THROWS_AS(table.IsTrustedProcess(kPid, kPath), TarnBase::InvalidObjectException);
    CHECK(log.Has("IsTrustedProcess(): Error - Object is invalid.", 1));
    CHECK_THROWS_AS(table.ClearTrustedProcess(kPid, kPath), TarnBase::InvalidObjectException);
    CHECK(log.Has("ClearTrustedProcess(): Error - Object is invalid.", 1));
    uint32_t index = 0;
    std::wstring path;
    CHECK_THROWS_AS(table.FindProcess(kPid, index, path), TarnBase::InvalidObjectException);
    CHECK(log.Has("FindProcess(): Error - Object is invalid.", 1));
    CHECK(log.HasSubstring("Throwing TarnBase::InvalidObjectException exception type. File: DynamicProcessTrust Line: "));
}

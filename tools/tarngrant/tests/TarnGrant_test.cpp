// tarngrant.exe as a support engineer or a test uses it: commands, refusals, output.
#include "tools/tarngrant/TrustTableWriter.h"
#include "ContainerHost.h"

#include "TarnSys/TrustTable.h"

#include <doctest.h>

using namespace ContainerTest;

namespace {

std::wstring Self() { return std::to_wstring(static_cast<unsigned long>(::GetCurrentProcessId())); }

} // namespace

TEST_CASE("tarngrant usage and refusal table: exit code and the one line that says why")
{
    Table table;
    table.pids.push_back(Self());
    Process ended({TarnGrantPath(), L"--help"});  // ended, its id still taken by our handle
    REQUIRE(ended.Finish().exitCode == 0);
    const std::wstring endedPid = std::to_wstring(ended.Pid());
    const std::wstring longest = L"C:\\" + std::wstring(1018, L'a') + L".exe";  // 1025 characters
    struct Row { std::vector<std::wstring> args; DWORD exit; std::string err; };  // err: a prefix ("" for none checked)
    const std::vector<Row> rows = {
        {{L"--help"}, 0, ""}, {{}, 2, ""}, {{L"frobnicate"}, 2, ""},
        {{L"grant", L"12x"}, 2, "tarngrant: '12x' is not a process id\n"},
        {{L"grant", L"99999999999"}, 2, ""}, {{L"grant", L"--hold", L"x", L"1"}, 2, ""},
        {{L"revoke"}, 2, ""}, {{L"list", L"extra"}, 2, ""}, {{L"encrypt"}, 2, ""},
        {{L"grant", L"4000000000", L"C:\\x.exe"}, 1, "tarngrant: no process with id 4000000000; nothing granted\n"},
        {{L"grant", endedPid, L"C:\\x.exe"}, 1, "tarngrant: "},
        {{L"grant", Self(), longest + L"x"}, 1,
         "tarngrant: the path has 1026 characters; an entry holds at most 1025; nothing granted\n"},
        // Its fifth encrypted unit is zero: the stored form would end there and never match.
        {{L"grant", Self(), L"C:\\x\uF41Ay.exe"}, 1, "tarngrant: "},
    };
    for (const Row& row : rows) {
        CAPTURE(row.args.size() ? Narrow(row.args.back()).substr(0, 40) : std::string());
        const auto run = RunGrant(row.args);
        CHECK(run.exitCode == row.exit);
        CHECK(run.err.compare(0, row.err.size(), row.err) == 0);
    }
    CHECK(TarnGrant::ListProcesses(table.table).empty());
    CHECK(RunGrant({L"grant", Self(), longest}).exitCode == 0);
    CHECK(table.table.IsTrustedProcess(Self(), longest));
}

TEST_CASE("tarngrant: a full table refuses; a second grant replaces; list decrypts; revoke twice")
{
    Table table;
    for (size_t i = TarnGrant::ListProcesses(table.table).size(); i < TarnSys::kTableEntryCount; ++i) {
        table.pids.push_back(std::to_wstring(3999999950ul + i));
        REQUIRE(TarnGrant::GrantProcess(table.table, table.pids.back(), L"Z:\\tmp\\J\u00f6rg\\host.exe") == TarnGrant::GrantResult::Granted);
    }
    const auto full = RunGrant({L"grant", Self(), L"C:\\x.exe"});
    CHECK(full.exitCode == 1);
    CHECK(full.err == "tarngrant: the table is full (15 entries in use); nothing granted\n");
    TarnGrant::RevokeProcess(table.table, table.pids.back());
    table.pids.push_back(Self());
    CHECK(RunGrant({L"grant", Self(), L"C:\\first.exe"}).exitCode == 0);
    CHECK(RunGrant({L"grant", Self(), L"C:\\Program Files\\second.exe"}).exitCode == 0);
    CHECK_FALSE(table.table.IsTrustedProcess(Self(), L"C:\\first.exe"));
    const auto list = RunGrant({L"list"});
    CHECK(list.out.find(" " + Narrow(Self()) + " C:\\Program Files\\second.exe\n") != std::string::npos);
    CHECK(list.out.find(" 3999999950 Z:\\tmp\\J\xc3\xb6rg\\host.exe\n") != std::string::npos);
    CHECK(list.out.find("15 of 15 entries in use\n") != std::string::npos);
    CHECK(RunGrant({L"revoke", Self()}).out == "revoked process " + Narrow(Self()) + "\n");
    CHECK(RunGrant({L"revoke", Self()}).err == "tarngrant: no grant for process " + Narrow(Self()) + "\n");

    // An entry whose path field decrypts to control characters is listed printably.
    const uint32_t garbled = TarnGrant::ListProcesses(table.table)[0].index;
    {
        TarnMT::AutoLockMutex lock(&table.table.TableMutex(), INFINITE);
        size_t size = 0;
        uint8_t* const path = table.table.HeldTable(size) + TarnSys::EntryOffset(garbled) + TarnSys::kPidFieldBytes;
        for (size_t k = 0; k < TarnSys::kPathFieldBytes; ++k)
            path[k] = static_cast<uint8_t>(0x11 + k % 7);
    }
    for (char c : RunGrant({L"list"}).out)
        CHECK((static_cast<unsigned char>(c) >= 0x20 || c == '\n'));
}

TEST_CASE("tarngrant: encrypt prints the known stored form")
{
    // The vector CryptoUtils_test computes independently (MD5 and RC4 outside the product).
    const auto run = RunGrant({L"encrypt", L"C:\\Windows\\system32\\mshta.exe"});
    CHECK(run.exitCode == 0);
    CHECK(run.out ==
          "15e2be02146e3de773f4bec3397f871308835f56eae75863562ab728f4a3c0999f5c257706492e10271512fa81552703a66ed3a01fbfbe4bb3e7\n");
}

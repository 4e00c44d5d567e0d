// tarngrant.exe as a support engineer or a test uses it: commands, refusals, output.
#include "ContainerHost.h"

#include "TarnSys/TrustTable.h"
#include "TarnSys/win/DynamicProcessTrust.h"
#include "tools/tarngrant/TrustTableWriter.h"
#include "TarnUtils/win/CryptoUtils.h"

#include <doctest.h>

#include <cctype>

using namespace ContainerTest;

namespace {

std::wstring Self()
{
    return std::to_wstring(static_cast<unsigned long>(::GetCurrentProcessId()));
}

std::string SelfText()
{
    return std::to_string(::GetCurrentProcessId());
}

// Holds the table open for the test and removes the test's grants afterwards.
struct Table {
    TarnSys::DynamicProcessTrust table;
    std::vector<std::wstring> pids;
    Table() { REQUIRE(table.Initialize()); }
    ~Table()
    {
        for (const auto& pid : pids)
            TarnGrant::RevokeProcess(table, pid);
    }
};

std::string HexOfStoredForm(const std::wstring& path)
{
    TarnUtils::CryptoUtils crypto;
    std::wstring text = path;
    REQUIRE(crypto.EncryptString(text));
    std::string hex;
    char pair[8];
    for (wchar_t unit : text.substr(0, text.find(L'\0'))) {
        std::snprintf(pair, sizeof pair, "%02x%02x", static_cast<unsigned>(unit) & 0xFF,
                      (static_cast<unsigned>(unit) >> 8) & 0xFF);
        hex += pair;
    }
    return hex;
}

} // namespace

TEST_CASE("tarngrant: help, usage mistakes and their exit codes")
{
    auto help = RunGrant({L"--help"});
    CHECK(help.exitCode == 0);
    CHECK(help.out.find("usage: tarngrant.exe <command> [arguments]") == 0);
    CHECK(RunGrant({}).exitCode == 2);
    CHECK(RunGrant({L"frobnicate"}).exitCode == 2);
    const auto badPid = RunGrant({L"grant", L"12x"});
    CHECK(badPid.exitCode == 2);
    CHECK(badPid.err == "tarngrant: '12x' is not a process id\n");
    CHECK(RunGrant({L"grant", L"99999999999"}).exitCode == 2);
    CHECK(RunGrant({L"grant", L"--hold", L"x", L"1"}).exitCode == 2);
    CHECK(RunGrant({L"revoke"}).exitCode == 2);
    CHECK(RunGrant({L"list", L"extra"}).exitCode == 2);
    CHECK(RunGrant({L"encrypt"}).exitCode == 2);
}

TEST_CASE("tarngrant: one-line refusals for a process that does not exist or has ended")
{
    Table table;
    const auto none = RunGrant({L"grant", L"4000000000", L"C:\\x.exe"});
    CHECK(none.exitCode == 1);
    CHECK(none.err == "tarngrant: no process with id 4000000000; nothing granted\n");

    // A process that has ended but whose identifier is still taken by an open handle.
    Process ended({TarnGrantPath(), L"--help"}, false);
    REQUIRE(ended.Finish().exitCode == 0);
    const auto run = RunGrant({L"grant", std::to_wstring(ended.Pid()), L"C:\\x.exe"});
    CHECK(run.exitCode == 1);
    CHECK((run.err == "tarngrant: process " + std::to_string(ended.Pid()) + " has ended; nothing granted\n" ||
           run.err == "tarngrant: no process with id " + std::to_string(ended.Pid()) + "; nothing granted\n"));
    CHECK(TarnGrant::ListProcesses(table.table).empty());
}

TEST_CASE("tarngrant: the path field's size is the limit")
{
    Table table;
    table.pids.push_back(Self());
    const std::wstring longest = L"C:\\" + std::wstring(1018, L'a') + L".exe";  // 1025 characters
    REQUIRE(longest.size() == 1025);
    const auto tooLong = RunGrant({L"grant", Self(), longest + L"x"});
    CHECK(tooLong.exitCode == 1);
    CHECK(tooLong.err == "tarngrant: the path has 1026 characters; an entry holds at most 1025; nothing granted\n");
    CHECK(TarnGrant::ListProcesses(table.table).empty());

    const auto fits = RunGrant({L"grant", Self(), longest});
    CHECK(fits.exitCode == 0);
    CHECK(table.table.IsTrustedProcess(Self(), longest));
}

TEST_CASE("tarngrant: a full table refuses; a second grant for a process replaces its entry")
{
    Table table;
    for (size_t i = TarnGrant::ListProcesses(table.table).size(); i < TarnSys::kTableEntryCount; ++i) {
        table.pids.push_back(std::to_wstring(3999999950ul + i));
        REQUIRE(TarnGrant::GrantProcess(table.table, table.pids.back(), L"C:\\filler.exe") == TarnGrant::GrantResult::Granted);
    }
    const auto full = RunGrant({L"grant", Self(), L"C:\\x.exe"});
    CHECK(full.exitCode == 1);
    CHECK(full.err == "tarngrant: the table is full (15 entries in use); nothing granted\n");

    TarnGrant::RevokeProcess(table.table, table.pids.back());
    table.pids.push_back(Self());
    CHECK(RunGrant({L"grant", Self(), L"C:\\first.exe"}).exitCode == 0);
    CHECK(RunGrant({L"grant", Self(), L"C:\\second.exe"}).exitCode == 0);
    CHECK(TarnGrant::ListProcesses(table.table).size() == TarnSys::kTableEntryCount);
    CHECK_FALSE(table.table.IsTrustedProcess(Self(), L"C:\\first.exe"));
    CHECK(table.table.IsTrustedProcess(Self(), L"C:\\second.exe"));
}

TEST_CASE("tarngrant: list shows decrypted paths; revoke removes entries")
{
    Table table;
    table.pids = {Self(), L"3999999940"};
    REQUIRE(RunGrant({L"grant", Self(), L"C:\\Program Files\\Ostrum\\TarnBrowser.exe"}).exitCode == 0);
    REQUIRE(TarnGrant::GrantProcess(table.table, L"3999999940", L"Z:\\tmp\\J\u00f6rg\\host.exe") == TarnGrant::GrantResult::Granted);
    const auto list = RunGrant({L"list"});
    CHECK(list.exitCode == 0);
    CHECK(list.out.find(" " + SelfText() + " C:\\Program Files\\Ostrum\\TarnBrowser.exe\n") != std::string::npos);
    CHECK(list.out.find(" 3999999940 Z:\\tmp\\J\xc3\xb6rg\\host.exe\n") != std::string::npos);
    CHECK(list.out.find("2 of 15 entries in use\n") != std::string::npos);

    const auto revoke = RunGrant({L"revoke", Self()});
    CHECK(revoke.exitCode == 0);
    CHECK(revoke.out == "revoked process " + SelfText() + "\n");
    const auto again = RunGrant({L"revoke", Self()});
    CHECK(again.exitCode == 1);
    CHECK(again.err == "tarngrant: no grant for process " + SelfText() + "\n");
    CHECK(RunGrant({L"list"}).out.find("1 of 15 entries in use\n") != std::string::npos);
}

TEST_CASE("tarngrant: garbage entries are listed safely")
{
    Table table;
    table.pids = {L"3999999941"};
    REQUIRE(TarnGrant::GrantProcess(table.table, L"3999999941", L"C:\\x.exe") == TarnGrant::GrantResult::Granted);
    // Overwrite that entry's path field with bytes that decrypt to control characters.
    const std::string name = TarnBase::MakeKernelObjectName(TarnSys::kTableMappingName, false);
    TarnBase::UniqueHandle mapping(::OpenFileMappingA(FILE_MAP_ALL_ACCESS, FALSE, name.c_str()));
    TarnBase::UniqueMappedView view(::MapViewOfFile(mapping.Get(), FILE_MAP_ALL_ACCESS, 0, 0, TarnSys::kTableBytes));
    REQUIRE(view);
    auto* bytes = static_cast<uint8_t*>(view.Get());
    for (const auto& entry : TarnGrant::ListProcesses(table.table))
        if (entry.pid == L"3999999941")
            for (size_t k = 0; k < TarnSys::kPathFieldBytes; ++k)
                bytes[TarnSys::EntryOffset(entry.index) + TarnSys::kPidFieldBytes + k] = static_cast<uint8_t>(0x11 + k % 7);
    const auto list = RunGrant({L"list"});
    CHECK(list.exitCode == 0);
    const size_t line = list.out.find(" 3999999941 ");
    REQUIRE(line != std::string::npos);
    const std::string text = list.out.substr(line, list.out.find('\n', line) - line);
    for (char c : text)
        CHECK(static_cast<unsigned char>(c) >= 0x20);
}

TEST_CASE("tarngrant: encrypt prints the stored form as hex")
{
    const std::wstring path = L"C:\\Windows\\system32\\mshta.exe";
    const auto run = RunGrant({L"encrypt", path});
    CHECK(run.exitCode == 0);
    CHECK(run.out == HexOfStoredForm(path) + "\n");
    CHECK(run.out.size() == path.size() * 4 + 1);
    CHECK(RunGrant({L"encrypt", path}).out == run.out);
    for (char c : run.out.substr(0, run.out.size() - 1))
        CHECK(std::isxdigit(static_cast<unsigned char>(c)));

    // A path whose fifth encrypted unit is zero: its stored form ends there, and such a path
    // can never be granted (the entry would never match).
    std::wstring zero = L"C:\\x\uF41Ay.exe";
    const auto cut = RunGrant({L"encrypt", zero});
    CHECK(cut.out.size() == 4 * 4 + 1);
    CHECK(cut.err.find("holds a zero unit at character 4") != std::string::npos);
    Table table;
    const auto refused = RunGrant({L"grant", Self(), zero});
    CHECK(refused.exitCode == 1);
    CHECK(refused.err.find("could never match; nothing granted") != std::string::npos);
}

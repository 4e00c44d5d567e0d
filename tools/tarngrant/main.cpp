// tarngrant: grants a running process one-time container trust through the machine-wide
// trusted-process table, and lists, revokes and shows the table's stored forms. It writes
// the table exactly as the product's launchers do, with the control's own table and
// encryption code. Run with --help for the command line.

#include "TargetProcess.h"

#include "TarnBase/Exceptions.h"
#include "TarnSys/TrustTable.h"
#include "TarnSys/win/DynamicProcessTrust.h"
#include "tools/tarngrant/TrustTableWriter.h"
#include "TarnUtils/win/CryptoUtils.h"
#include "tools/common/CommandLine.h"
#include "tools/common/Console.h"

#include <windows.h>

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

namespace {

using TarnGrant::TargetProcess;

enum ExitCode { ExitOk = 0, ExitRefused = 1, ExitUsage = 2, ExitUnused = 3 };

constexpr DWORD kDefaultHoldSeconds = 600;
constexpr DWORD kHoldPollMs = 50;

const wchar_t kUsage[] =
    L"usage: tarngrant.exe <command> [arguments]\r\n"
    L"  grant [--hold <seconds>] <pid> [path]\r\n"
    L"        grant process <pid> one-time container trust. The path defaults to the process's\r\n"
    L"        executable as the process itself sees it. When no other process keeps the table\r\n"
    L"        open, tarngrant keeps it open until the grant is used or revoked, the process\r\n"
    L"        ends (the grant is then revoked), or <seconds> pass (default 600; 0: do not wait).\r\n"
    L"  revoke <pid>      remove the grant of process <pid>\r\n"
    L"  list              the table's entries: entry number, process id, decrypted path\r\n"
    L"  encrypt <path>    the stored (encrypted) form of <path>, as hex bytes\r\n"
    L"exit codes: 0 done, 1 refused, 2 usage, 3 grant ended unused";

void Out(const std::wstring& text)
{
    TarnTools::WriteStdout(text);
}

int Refuse(const std::wstring& text, int code = ExitRefused)
{
    TarnTools::WriteStderr(L"tarngrant: " + text);
    return code;
}

std::wstring Widen(const std::string& text)
{
    return std::wstring(text.begin(), text.end());
}

// Decimal process identifier: digits only, within 32 bits.
std::optional<DWORD> ParsePid(const std::wstring& text)
{
    if (text.empty() || text.size() > 10)
        return std::nullopt;
    unsigned long long value = 0;
    for (wchar_t c : text) {
        if (c < L'0' || c > L'9')
            return std::nullopt;
        value = value * 10 + static_cast<unsigned>(c - L'0');
    }
    if (value > 0xFFFFFFFFull)
        return std::nullopt;
    return static_cast<DWORD>(value);
}

std::optional<DWORD> ParseSeconds(const std::wstring& text)
{
    const auto value = ParsePid(text);
    if (!value || *value > 24u * 3600u)
        return std::nullopt;
    return value;
}

// Text taken from the table (or computed from untrusted bytes) shown safely on one line.
std::wstring Printable(const std::wstring& text)
{
    std::wstring shown;
    for (wchar_t c : text) {
        if (c >= 0x20 && c != 0x7F && !(c >= 0xD800 && c <= 0xDFFF)) {
            shown += c;
        } else {
            wchar_t escape[8];
            std::swprintf(escape, 8, L"\\u%04x", static_cast<unsigned>(c));
            shown += escape;
        }
    }
    return shown;
}

std::wstring Hex(const std::wstring& units)
{
    static const wchar_t digits[] = L"0123456789abcdef";
    std::wstring hex;
    for (wchar_t unit : units) {
        const unsigned value = static_cast<unsigned>(unit);
        for (unsigned byte : {value & 0xFFu, (value >> 8) & 0xFFu}) {
            hex += digits[byte >> 4];
            hex += digits[byte & 0xF];
        }
    }
    return hex;
}

std::wstring Decrypt(const std::wstring& stored)
{
    TarnUtils::CryptoUtils crypto;
    std::wstring plain = stored;
    if (!crypto.DecryptString(plain))
        return L"<cannot decrypt>";
    return TarnSys::ToWide(TarnSys::UpToZero(TarnSys::ToU16(plain)));
}

bool EntryStillGranted(TarnSys::DynamicProcessTrust& table, const std::wstring& pid, const std::wstring& stored)
{
    for (const auto& entry : TarnGrant::ListProcesses(table))
        if (TarnSys::EqualsNoCase(TarnSys::ToU16(entry.pid), TarnSys::ToU16(pid)) && entry.storedPath == stored)
            return true;
    return false;
}

// The table lives only while some process has it open. When this grant created it, keep
// it until the grant is used, revoked or can no longer be used.
int HoldTable(TarnSys::DynamicProcessTrust& table, const TargetProcess& target, const std::wstring& pid,
              DWORD holdSeconds)
{
    std::wstring stored;
    for (const auto& entry : TarnGrant::ListProcesses(table))
        if (entry.pid == pid)
            stored = entry.storedPath;
    Out(L"holding the table open until process " + pid + L" uses the grant or ends (at most " +
        std::to_wstring(holdSeconds) + L" s)");
    const ULONGLONG deadline = ::GetTickCount64() + static_cast<ULONGLONG>(holdSeconds) * 1000;
    while (::GetTickCount64() < deadline) {
        if (!EntryStillGranted(table, pid, stored)) {
            Out(L"grant of process " + pid + L" used or revoked");
            return ExitOk;
        }
        if (target.Handle() != nullptr && ::WaitForSingleObject(target.Handle(), kHoldPollMs) == WAIT_OBJECT_0) {
            if (!EntryStillGranted(table, pid, stored)) {
                Out(L"grant of process " + pid + L" used or revoked");
                return ExitOk;
            }
            TarnGrant::RevokeProcess(table, pid);
            return Refuse(L"process " + pid + L" ended without using the grant; revoked", ExitUnused);
        }
        if (target.Handle() == nullptr)
            ::Sleep(kHoldPollMs);
    }
    TarnGrant::RevokeProcess(table, pid);
    return Refuse(L"the grant of process " + pid + L" was not used within " + std::to_wstring(holdSeconds) +
                      L" s; revoked",
                  ExitUnused);
}

int Grant(std::vector<std::wstring> args)
{
    DWORD holdSeconds = kDefaultHoldSeconds;
    if (!args.empty() && args[0] == L"--hold") {
        const auto seconds = args.size() > 1 ? ParseSeconds(args[1]) : std::nullopt;
        if (!seconds)
            return Refuse(L"--hold expects a number of seconds (0..86400)", ExitUsage);
        holdSeconds = *seconds;
        args.erase(args.begin(), args.begin() + 2);
    }
    if (args.empty() || args.size() > 2)
        return Refuse(L"grant expects <pid> [path]", ExitUsage);
    const auto pidValue = ParsePid(args[0]);
    if (!pidValue)
        return Refuse(L"'" + args[0] + L"' is not a process id", ExitUsage);
    const std::wstring pid = std::to_wstring(static_cast<unsigned long>(*pidValue));

    TargetProcess target(*pidValue);
    switch (target.GetState()) {
    case TargetProcess::State::NotFound:
        return Refuse(L"no process with id " + pid + L"; nothing granted");
    case TargetProcess::State::Ended:
        return Refuse(L"process " + pid + L" has ended; nothing granted");
    case TargetProcess::State::AccessDenied:
        if (args.size() < 2)
            return Refuse(L"cannot read the executable path of process " + pid + L" (access denied); give the path");
        break;
    case TargetProcess::State::Running:
        break;
    }

    std::wstring path = args.size() > 1 ? args[1] : target.ModulePath();
    if (path.empty())
        return Refuse(L"cannot read the executable path of process " + pid + L"; give the path");
    if (path.size() > TarnSys::kMaxStoredPathUnits)
        return Refuse(L"the path has " + std::to_wstring(path.size()) + L" characters; an entry holds at most " +
                      std::to_wstring(TarnSys::kMaxStoredPathUnits) + L"; nothing granted");

    TarnSys::DynamicProcessTrust table;
    if (!table.IsValid())
        return Refuse(L"cannot open the trusted-process table's mutex; nothing granted");
    uint32_t index = 0;
    switch (TarnGrant::GrantProcess(table, pid, path, &index)) {
    case TarnGrant::GrantResult::Granted:
    case TarnGrant::GrantResult::Replaced:
        break;
    case TarnGrant::GrantResult::TableFull:
        return Refuse(L"the table is full (" + std::to_wstring(TarnSys::kTableEntryCount) +
                      L" entries in use); nothing granted");
    case TarnGrant::GrantResult::InvalidPid:
        return Refuse(L"'" + pid + L"' is not a process id", ExitUsage);
    case TarnGrant::GrantResult::PathTooLong:
        return Refuse(L"the path has " + std::to_wstring(path.size()) + L" characters; an entry holds at most " +
                      std::to_wstring(TarnSys::kMaxStoredPathUnits) + L"; nothing granted");
    case TarnGrant::GrantResult::PathNotStorable:
        return Refuse(L"the encrypted form of this path holds a zero unit, so the entry could never match; nothing granted");
    case TarnGrant::GrantResult::Unavailable:
        return Refuse(L"cannot create or open the trusted-process table; nothing granted");
    }
    Out(L"granted process " + pid + L" entry " + std::to_wstring(index) + L": " + Printable(path));

    if (table.CreatedTable() && holdSeconds > 0)
        return HoldTable(table, target, pid, holdSeconds);
    return ExitOk;
}

int Revoke(const std::vector<std::wstring>& args)
{
    if (args.size() != 1)
        return Refuse(L"revoke expects <pid>", ExitUsage);
    const auto pidValue = ParsePid(args[0]);
    if (!pidValue)
        return Refuse(L"'" + args[0] + L"' is not a process id", ExitUsage);
    const std::wstring pid = std::to_wstring(static_cast<unsigned long>(*pidValue));
    TarnSys::DynamicProcessTrust table;
    if (!table.IsValid())
        return Refuse(L"cannot open the trusted-process table's mutex");
    const size_t removed = TarnGrant::RevokeProcess(table, pid);
    if (removed == 0)
        return Refuse(L"no grant for process " + pid);
    Out(L"revoked process " + pid + (removed > 1 ? L" (" + std::to_wstring(removed) + L" entries)" : L""));
    return ExitOk;
}

int List(const std::vector<std::wstring>& args)
{
    if (!args.empty())
        return Refuse(L"list takes no arguments", ExitUsage);
    TarnSys::DynamicProcessTrust table;
    if (!table.IsValid())
        return Refuse(L"cannot open the trusted-process table's mutex");
    const auto entries = TarnGrant::ListProcesses(table);
    for (const auto& entry : entries)
        Out(std::to_wstring(entry.index) + L" " + Printable(entry.pid) + L" " + Printable(Decrypt(entry.storedPath)));
    Out(std::to_wstring(entries.size()) + L" of " + std::to_wstring(TarnSys::kTableEntryCount) + L" entries in use");
    return ExitOk;
}

int Encrypt(const std::vector<std::wstring>& args)
{
    if (args.size() != 1)
        return Refuse(L"encrypt expects <path>", ExitUsage);
    std::wstring text = args[0];
    TarnUtils::CryptoUtils crypto;
    if (!crypto.EncryptString(text))
        return Refuse(L"encryption failed");
    const std::wstring stored = TarnSys::ToWide(TarnSys::UpToZero(TarnSys::ToU16(text)));
    Out(Hex(stored));
    if (stored.size() != args[0].size())
        TarnTools::WriteStderr(L"tarngrant: the encrypted form holds a zero unit at character " +
                                        std::to_wstring(stored.size()) + L"; this path cannot be granted");
    return ExitOk;
}

int Run()
{
    std::vector<std::wstring> args = TarnTools::CommandLineArguments();
    if (args.empty())
        return Refuse(std::wstring(L"no command\r\n") + kUsage, ExitUsage);
    const std::wstring command = args[0];
    args.erase(args.begin());
    if (command == L"--help" || command == L"-h" || command == L"/?" || command == L"help") {
        Out(kUsage);
        return ExitOk;
    }
    if (command == L"grant")
        return Grant(args);
    if (command == L"revoke")
        return Revoke(args);
    if (command == L"list")
        return List(args);
    if (command == L"encrypt")
        return Encrypt(args);
    return Refuse(L"unknown command '" + command + L"'\r\n" + kUsage, ExitUsage);
}

} // namespace

int main()
{
    try {
        return Run();
    } catch (const TarnMT::AutoLockTimeoutException&) {
        return Refuse(L"another process holds the trusted-process table's mutex; try again");
    } catch (const TarnBase::BaseException& e) {
        return Refuse(L"failed: " + e.GetErrorId());
    } catch (const std::exception& e) {
        return Refuse(L"internal error: " + Widen(e.what()));
    }
}

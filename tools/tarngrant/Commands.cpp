#include "Commands.h"

#include "Options.h"
#include "Output.h"
#include "TargetProcess.h"
#include "TrustTableWriter.h"

#include "TarnSys/TrustTable.h"
#include "TarnSys/win/DynamicProcessTrust.h"
#include "TarnUtils/win/CryptoUtils.h"
#include "tools/common/Console.h"

#include <windows.h>

namespace TarnGrant {
namespace {

constexpr DWORD kDefaultHoldSeconds = 600;
constexpr DWORD kHoldPollMs = 50;

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

} // namespace

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

} // namespace TarnGrant

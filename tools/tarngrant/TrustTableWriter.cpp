#include "TrustTableWriter.h"

#include "TarnBase/Throw.h"
#include "TarnLog/Log.h"
#include "TarnSys/TrustTable.h"

namespace TarnGrant {
namespace {

using namespace TarnSys;

// Records keep the table's own class, so a grant and its use read as one story in the log.
const char kClass[] = "DynamicProcessTrust";
const char kSource[] = "DynamicProcessTrust";

bool IsDecimal(const std::wstring& text)
{
    if (text.empty())
        return false;
    for (wchar_t c : text)
        if (c < L'0' || c > L'9')
            return false;
    return true;
}

} // namespace

GrantResult GrantProcess(TarnSys::DynamicProcessTrust& table, const std::wstring& pid, const std::wstring& appPath,
                         uint32_t* index)
{
    TARN_REQUIRE_VALID(table.IsValid(), kClass, kSource, "GrantProcess");
    if (!IsDecimal(pid) || pid.size() > kMaxLookupPidUnits)
        return GrantResult::InvalidPid;
    if (appPath.size() > kMaxStoredPathUnits)
        return GrantResult::PathTooLong;
    std::wstring stored;
    if (appPath.empty() || !StoredFormOf(appPath, stored) || stored.size() != appPath.size())
        return GrantResult::PathNotStorable;
    const auto entry = EncodeEntry(ToU16(pid), ToU16(stored));
    if (!entry)
        return GrantResult::PathNotStorable;

    TarnMT::AutoLockMutex lock(&table.TableMutex(), kTableLockTimeoutMs);
    size_t size = 0;
    uint8_t* const mapped = table.HeldTable(size);
    if (mapped == nullptr)
        return GrantResult::Unavailable;
    // One entry per process: a second one would be shadowed by the first and outlive it.
    auto slot = FindEntry(mapped, size, ToU16(pid));
    const bool replacing = slot.has_value();
    if (!slot)
        slot = FirstFreeEntry(mapped, size);
    if (!slot)
        return GrantResult::TableFull;
    WriteEntry(mapped, size, *slot, *entry);
    if (index != nullptr)
        *index = static_cast<uint32_t>(*slot);
    TarnLog::Log(kClass, 3, "GrantProcess():  Granted dynamic trust to process with PID = %s in entry %u.",
                 LogText(pid).c_str(), static_cast<unsigned>(*slot));
    return replacing ? GrantResult::Replaced : GrantResult::Granted;
}

size_t RevokeProcess(TarnSys::DynamicProcessTrust& table, const std::wstring& pid)
{
    TARN_REQUIRE_VALID(table.IsValid(), kClass, kSource, "RevokeProcess");
    const std::u16string wanted = UpToZero(ToU16(pid));
    if (wanted.empty() || wanted.size() > kMaxLookupPidUnits)
        return 0;
    TarnMT::AutoLockMutex lock(&table.TableMutex(), kTableLockTimeoutMs);
    size_t size = 0;
    uint8_t* const mapped = table.HeldTable(size);
    if (mapped == nullptr)
        return 0;
    size_t removed = 0;
    for (size_t i = 0; i < kTableEntryCount; ++i) {
        const auto entry = ReadEntry(mapped, size, i);
        if (entry && !entry->IsFree() && EqualsNoCase(entry->pid, wanted)) {
            WriteEntry(mapped, size, i, std::vector<uint8_t>(kTableEntryBytes, 0));
            ++removed;
        }
    }
    if (removed > 0)
        TarnLog::Log(kClass, 3, "RevokeProcess():  Revoked dynamic trust of process with PID = %s.", LogText(pid).c_str());
    return removed;
}

std::vector<TrustedProcessEntry> ListProcesses(TarnSys::DynamicProcessTrust& table)
{
    TARN_REQUIRE_VALID(table.IsValid(), kClass, kSource, "ListProcesses");
    std::vector<TrustedProcessEntry> entries;
    TarnMT::AutoLockMutex lock(&table.TableMutex(), kTableLockTimeoutMs);
    size_t size = 0;
    uint8_t* const mapped = table.HeldTable(size);
    if (mapped == nullptr)
        return entries;
    for (size_t i = 0; i < kTableEntryCount; ++i) {
        const auto entry = ReadEntry(mapped, size, i);
        if (entry && !entry->IsFree())
            entries.push_back({static_cast<uint32_t>(i), ToWide(entry->pid), ToWide(entry->path)});
    }
    return entries;
}

} // namespace TarnGrant

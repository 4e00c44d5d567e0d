#pragma once
// The writer side of the machine-wide trusted-process table: granting, revoking and listing
// entries. Only the tools write the table; the control reads it through
// TarnSys::DynamicProcessTrust and never links this.

#include "TarnSys/win/DynamicProcessTrust.h"

#include <cstdint>
#include <string>
#include <vector>

namespace TarnGrant {

enum class GrantResult {
    Granted,          // written into the first free entry
    Replaced,         // the identifier already had an entry; its path was replaced
    TableFull,        // all 15 entries are taken
    InvalidPid,       // empty, not decimal, or longer than a look-up accepts
    PathTooLong,      // more than the path field holds
    PathNotStorable,  // empty, or its encrypted form holds a zero unit (it would never match)
    Unavailable,      // the shared memory could not be created or mapped
};

struct TrustedProcessEntry {
    uint32_t index = 0;
    std::wstring pid;
    std::wstring storedPath;  // encrypted form, up to its first zero unit
};

// Each takes the table's mutex once (bounded wait). They throw InvalidObjectException on an
// invalid table object and AutoLockTimeoutException when the mutex stays held elsewhere.
GrantResult GrantProcess(TarnSys::DynamicProcessTrust& table, const std::wstring& pid, const std::wstring& appPath,
                         uint32_t* index = nullptr);
size_t RevokeProcess(TarnSys::DynamicProcessTrust& table, const std::wstring& pid);  // entries removed
std::vector<TrustedProcessEntry> ListProcesses(TarnSys::DynamicProcessTrust& table);

} // namespace TarnGrant

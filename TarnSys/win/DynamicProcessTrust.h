#pragma once
// The machine-wide table of dynamically trusted processes: a named mutex and a named
// page-file mapping laid out as in TarnSys/TrustTable.h. A launcher of the product's own
// applications grants a running process one-time container trust by writing its process
// identifier and encrypted executable path; the control looks its own process up and
// consumes the grant.
//
// Every local process can open the table, so the names, the layout and the encryption are
// a contract with other programs: change none of them.

#include "TarnBase/NoCopySemantics.h"
#include "TarnBase/win/Handle.h"
#include "TarnMT/win/Mutex.h"
#include "TarnMT/win/SecurityAttributes.h"

#include <windows.h>

#include <cstdint>
#include <string>

namespace TarnSys {

extern const char kTableMutexName[];    // before the namespace prefix ("Global\")
extern const char kTableMappingName[];  // before the namespace prefix ("Local\")

// Longest wait for the table's mutex. Any local process may take it and keep it; a host
// must never hang on it, so a wait this long ends in "not trusted". Holders keep it for
// microseconds.
constexpr DWORD kTableLockTimeoutMs = 1000;

// Whether this process is a 32-bit process on a 64-bit system.
bool IsCurrentProcessWow64();

// The table's UTF-16 text and the platform's wide strings (the same units on Windows).
std::u16string ToU16(const std::wstring& text);
std::wstring ToWide(const std::u16string& text);

// Identifiers and paths come from other processes; log them without trusting them to be
// convertible.
std::string LogText(const std::wstring& text);

// The encrypted form of `path` as the table stores it (the part before the first zero
// unit), or false when it cannot be encrypted.
bool StoredFormOf(const std::wstring& path, std::wstring& stored);

class DynamicProcessTrust : public TarnBase::NoCopySemantics {
public:
    DynamicProcessTrust();
    ~DynamicProcessTrust();

    bool IsValid() const { return m_valid; }

    // Maps the shared memory once per object; false (and a later retry) when it cannot.
    bool Initialize();

    // Caller holds the mutex and has initialised the object. On success `index` is the
    // entry and `appPath` its stored (encrypted) path.
    bool FindProcess(const std::wstring& pid, uint32_t& index, std::wstring& appPath);

    // Whether `pid` with executable `appPath` holds a grant right now.
    bool IsTrustedProcess(const std::wstring& pid, const std::wstring& appPath);

    // Removes the grant of `pid` when its stored path is `appPath`.
    bool ClearTrustedProcess(const std::wstring& pid, const std::wstring& appPath);

    // The two above under one hold of the table's mutex: true only when the grant was found
    // and removed, so that a grant is honoured once or not at all (never left behind for a
    // later process with the same identifier and path). One bounded wait for the mutex.
    bool ConsumeTrustedProcess(const std::wstring& pid, const std::wstring& appPath);

    // For a caller that holds TableMutex(): the mapped table and its size in `size`,
    // mapping it first when needed; null when the shared memory cannot be had. The
    // writer side (tools/tarngrant) works through this; the control only reads.
    uint8_t* HeldTable(size_t& size);

    // True when this object's Initialize created the shared memory (no other process held
    // it): the table then lives only as long as this object keeps it open.
    bool CreatedTable() const { return m_createdTable; }

    TarnMT::Mutex& TableMutex() { return m_mutex; }

private:
    bool InitMemoryMap();
    bool InitializeHeld();  // Initialize for callers that already hold the mutex
    uint8_t* Table() const { return static_cast<uint8_t*>(m_view.Get()); }

    TarnMT::SecurityAttributes m_securityAttributes;
    TarnMT::Mutex m_mutex;
    TarnBase::UniqueMappedView m_view;
    size_t m_mapSize = 0;
    TarnBase::UniqueHandle m_mapping;
    bool m_initialized = false;  // the shared memory is mapped
    bool m_valid = false;        // the mutex could be made; every operation refuses without it
    bool m_createdTable = false;
    // Paths are compared across the file-system redirection a 32-bit process sees.
    bool m_wow64 = false;
};

} // namespace TarnSys

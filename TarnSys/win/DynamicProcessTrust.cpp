#include "TarnSys/win/DynamicProcessTrust.h"

#include "TarnBase/KernelObjectName.h"
#include "TarnBase/ResultLog.h"
#include "TarnBase/Throw.h"
#include "TarnBase/win/SharedView.h"
#include "TarnLog/Log.h"
#include "TarnSys/TrustTable.h"
#include "TarnUtils/win/CryptoUtils.h"

#include <cstring>

namespace TarnSys {

const char kTableMutexName[] = "TarnSys::DynamicProcessTrust::Mutex::2.0";
const char kTableMappingName[] = "TarnSys::DynamicProcessTrust::MemMap::2.0";

namespace {

const char kClass[] = "DynamicProcessTrust";
const char kSource[] = "DynamicProcessTrust";

bool IsNtPlatform()
{
    return TarnBase::CurrentOsVersion().platformId == VER_PLATFORM_WIN32_NT;
}

// The table's queries and updates answer false whatever fails; the log says what did.
template <typename Body>
bool FalseOnException(const char* operation, int line, Body&& body)
{
    try {
        return body();
    } catch (const TarnBase::BaseException& e) {
        TarnLog::Log(kClass, 1, "%s():  Exception - %S.", operation, e.GetErrorId().c_str());
    } catch (...) {
        TARN_LOG_UNKNOWN_EXCEPTION(TarnLog::Log, kClass, kSource, line);
    }
    return false;
}

} // namespace

static_assert(sizeof(wchar_t) == sizeof(char16_t), "wide strings are UTF-16 on this platform");

std::u16string ToU16(const std::wstring& text)
{
    return std::u16string(text.begin(), text.end());
}

std::wstring ToWide(const std::u16string& text)
{
    return std::wstring(text.begin(), text.end());
}

std::string LogText(const std::wstring& text)
{
    return ToNarrowForLog(ToU16(text));
}

// The encrypted form of `path` as the table stores it (the part before the first zero
// unit), or false when it cannot be encrypted.
bool StoredFormOf(const std::wstring& path, std::wstring& stored)
{
    TarnUtils::CryptoUtils crypto;
    stored = path;
    if (!crypto.EncryptString(stored))
        return false;
    stored = ToWide(UpToZero(ToU16(stored)));
    return true;
}

bool IsCurrentProcessWow64()
{
    // A process never changes its kind: ask once.
    static const bool wow64 = [] {
        using IsWow64ProcessFn = BOOL(WINAPI*)(HANDLE, PBOOL);
        // Looked up rather than linked: systems before XP SP2 do not have it, and there
        // the answer is "no".
        const HMODULE kernel = ::GetModuleHandleA("kernel32.dll");
        const auto isWow64Process =
            kernel ? reinterpret_cast<IsWow64ProcessFn>(::GetProcAddress(kernel, "IsWow64Process")) : nullptr;
        BOOL answer = FALSE;
        return isWow64Process != nullptr && isWow64Process(::GetCurrentProcess(), &answer) && answer;
    }();
    return wow64;
}

DynamicProcessTrust::DynamicProcessTrust()
{
    try {
        if (IsNtPlatform())
            m_securityAttributes = TarnMT::SecurityAttributes::Everyone();
        m_mutex.Config(TarnBase::MakeKernelObjectName(kTableMutexName, true), m_securityAttributes.Get());
        if (m_mutex.GetHandle() == nullptr)
            throw TarnBase::Win32ErrorException(kSource, __LINE__);
        m_wow64 = IsCurrentProcessWow64();
        m_valid = true;
    } catch (const TarnBase::BaseException&) {
        TarnLog::Log(kClass, 1, "%s():  Failed to construct properly.", "DynamicProcessTrust");
    } catch (...) {
        TARN_LOG_UNKNOWN_EXCEPTION(TarnLog::Log, kClass, kSource, __LINE__);
    }
}

DynamicProcessTrust::~DynamicProcessTrust()
{
    m_view.Reset();
    m_mapping.Reset();
}

bool DynamicProcessTrust::Initialize()
{
    TARN_REQUIRE_VALID(m_valid, kClass, kSource, "Initialize");
    TarnMT::AutoLockMutex lock(&m_mutex, kTableLockTimeoutMs);
    return InitializeHeld();
}

bool DynamicProcessTrust::InitializeHeld()
{
    if (m_initialized)
        return true;
    m_initialized = InitMemoryMap();
    return m_initialized;
}

bool DynamicProcessTrust::InitMemoryMap()
{
    const std::string name = TarnBase::MakeKernelObjectName(kTableMappingName, false);
    SECURITY_ATTRIBUTES* attributes = IsNtPlatform() ? m_securityAttributes.Get() : nullptr;

    HRESULT result = S_OK;
    bool existed = false;
    TarnBase::UniqueHandle mapping(::CreateFileMappingA(INVALID_HANDLE_VALUE, attributes, PAGE_READWRITE, 0,
                                                        static_cast<DWORD>(kTableBytes), name.c_str()));
    TarnBase::UniqueMappedView view;
    if (!mapping) {
        result = HRESULT_FROM_WIN32(::GetLastError());
    } else {
        existed = ::GetLastError() == ERROR_ALREADY_EXISTS;
        view.Reset(::MapViewOfFile(mapping.Get(), FILE_MAP_ALL_ACCESS, 0, 0, kTableBytes));
        if (!view) {
            result = HRESULT_FROM_WIN32(::GetLastError());
            mapping.Reset();
        } else {
            // Another process may have made this name first: smaller, reserved but never
            // committed, or backed by a file. A look-up must not fault on any of them.
            if (TarnBase::UsableViewBytes(view.Get()) < kTableBytes) {
                TarnLog::Log(kClass, 1,
                             "InitMemoryMap():  Shared memory is smaller than the table, not committed, not readable or backed by a file. Not using it.");
                result = HRESULT_FROM_WIN32(ERROR_INVALID_DATA);
                view.Reset();
                mapping.Reset();
            }
        }
    }
    if (FAILED(result)) {
        TARN_LOG_HRESULT(TarnLog::Log, kClass, 1, result, "InitMemoryMap():  Failed to create/open shared memory.");
        return false;
    }

    m_mapping = std::move(mapping);
    m_view = std::move(view);
    m_mapSize = kTableBytes;
    m_createdTable = !existed;
    if (!existed) {
        std::memset(m_view.Get(), 0, kTableBytes);
        TarnLog::Log(kClass, 3, "InitMemoryMap():  Successfully created shared memory with size = %u.",
                     static_cast<unsigned>(kTableBytes));
    } else {
        TarnLog::Log(kClass, 3, "InitMemoryMap():  Successfully opened shared memory with size = %u.",
                     static_cast<unsigned>(kTableBytes));
    }
    return true;
}

bool DynamicProcessTrust::FindProcess(const std::wstring& pid, uint32_t& index, std::wstring& appPath)
{
    TARN_REQUIRE_VALID(m_valid, kClass, kSource, "FindProcess");
    index = 0;
    appPath.clear();
    if (pid.size() + 2 > kPidFieldUnits) {
        TarnLog::Log(kClass, 2, "FindProcess():  PID parameter string is too long. Invalid arg. Cannot find process.");
        return false;
    }
    const std::string pidText = LogText(pid);
    const std::u16string wanted = ToU16(pid);
    for (size_t i = 0; m_view && i < kTableEntryCount; ++i) {
        // The identifier and the path come from one copy of the entry.
        const auto entry = ReadEntry(Table(), m_mapSize, i);
        if (entry && EqualsNoCase(entry->pid, wanted)) {
            TarnLog::Log(kClass, 3, "FindProcess():  Successfully found process within list, PID = %s.", pidText.c_str());
            appPath = ToWide(entry->path);
            index = static_cast<uint32_t>(i);
            return true;
        }
    }
    TarnLog::Log(kClass, 3, "FindProcess():  Failed to find specified process in list , PID = %s.", pidText.c_str());
    return false;
}

bool DynamicProcessTrust::IsTrustedProcess(const std::wstring& pid, const std::wstring& appPath)
{
    TARN_REQUIRE_VALID(m_valid, kClass, kSource, "IsTrustedProcess");
    const std::string pidText = LogText(pid);
    return FalseOnException("IsTrustedProcess", __LINE__, [&] {
        TarnMT::AutoLockMutex lock(&m_mutex, kTableLockTimeoutMs);
        if (!InitializeHeld()) {
            TarnLog::Log(kClass, 1, "IsTrustedProcess():  Failed to intialize shared memory.");
            return false;
        }
        uint32_t index = 0;
        std::wstring storedPath;
        if (!FindProcess(pid, index, storedPath)) {
            TarnLog::Log(kClass, 3, "IsTrustedProcess():  Specified process is not currently trusted, PID = %s.",
                         pidText.c_str());
            return false;
        }
        TarnUtils::CryptoUtils crypto;
        if (!crypto.DecryptString(storedPath)) {
            TarnLog::Log(kClass, 1,
                         "IsTrustedProcess():  Failed to decrypt full path param. Cannot determine trust for process with PID = %s.",
                         pidText.c_str());
            return false;
        }
        const std::u16string stored = ToU16(storedPath);
        const std::u16string reader = ToU16(appPath);
        bool trusted = EqualsNoCase(stored, reader);
        if (!trusted) {
            if (const auto seen = StoredPathAsSeenUnderWow64(stored, m_wow64)) {
                const std::wstring seenWide = ToWide(*seen);
                TarnLog::Log(kClass, 3, "IsTrustedProcess():  Using trusted app path [%S] under WOW64 to determine trust.",
                             seenWide.c_str());
                trusted = EqualsNoCase(*seen, reader);
            }
        }
        TarnLog::Log(kClass, 3,
                     trusted ? "IsTrustedProcess():  Process with PID = %s is trusted."
                             : "IsTrustedProcess():  Process with PID = %s is not trusted.",
                     pidText.c_str());
        return trusted;
    });
}

bool DynamicProcessTrust::ClearTrustedProcess(const std::wstring& pid, const std::wstring& appPath)
{
    TARN_REQUIRE_VALID(m_valid, kClass, kSource, "ClearTrustedProcess");
    const std::string pidText = LogText(pid);
    return FalseOnException("ClearTrustedProcess", __LINE__, [&] {
        TarnMT::AutoLockMutex lock(&m_mutex, kTableLockTimeoutMs);
        if (!InitializeHeld()) {
            TarnLog::Log(kClass, 1, "ClearTrustedProcess():  Failed to intialize shared memory.");
            return false;
        }
        uint32_t index = 0;
        std::wstring storedPath;
        if (!FindProcess(pid, index, storedPath)) {
            TarnLog::Log(kClass, 2, "ClearTrustedProcess():  Failed to find trusted process with PID = %s. Cannot clear.",
                         pidText.c_str());
            return false;
        }
        std::wstring encrypted;
        if (!StoredFormOf(appPath, encrypted)) {
            TarnLog::Log(kClass, 1,
                         "ClearTrustedProcess():  Failed to encrypt full path param. Cannot clear process with PID = %s.",
                         pidText.c_str());
            return false;
        }
        const std::u16string stored = ToU16(storedPath);
        bool match = EqualsNoCase(ToU16(encrypted), stored);
        if (!match) {
            if (const auto written = ReaderPathAsWrittenUnderWow64(ToU16(appPath), m_wow64)) {
                const std::wstring writtenWide = ToWide(*written);
                TarnLog::Log(kClass, 3,
                             "ClearTrustedProcess():  Using full app path [%S] under WOW64 to match dynamically trusted process.",
                             writtenWide.c_str());
                if (!StoredFormOf(writtenWide, encrypted)) {
                    TarnLog::Log(kClass, 1,
                                 "ClearTrustedProcess():  Failed to encrypt full path param. Cannot clear process with PID = %s.",
                                 pidText.c_str());
                    return false;
                }
                match = EqualsNoCase(ToU16(encrypted), stored);
            }
        }
        if (!match) {
            // Encrypted forms of paths that differ only in letter case differ; the query
            // found such a path trusted, so its grant must be consumed all the same.
            TarnUtils::CryptoUtils crypto;
            std::wstring decrypted = storedPath;
            if (crypto.DecryptString(decrypted) && PathsMatchForQuery(ToU16(decrypted), ToU16(appPath), m_wow64)) {
                TarnLog::Log(kClass, 3,
                             "ClearTrustedProcess():  App paths match without regard to case. Clearing process with PID = %s.",
                             pidText.c_str());
                match = true;
            }
        }
        if (!match) {
            TarnLog::Log(kClass, 1,
                         "ClearTrustedProcess():  Found PID, but app paths do not match. Cannot clear process with PID = %s.",
                         pidText.c_str());
            return false;
        }
        WriteEntry(Table(), m_mapSize, index, std::vector<uint8_t>(kTableEntryBytes, 0));
        TarnLog::Log(kClass, 3, "ClearTrustedProcess():  Successfully cleared process with PID = %s.", pidText.c_str());
        return true;
    });
}

bool DynamicProcessTrust::ConsumeTrustedProcess(const std::wstring& pid, const std::wstring& appPath)
{
    TARN_REQUIRE_VALID(m_valid, kClass, kSource, "IsTrustedProcess");
    return FalseOnException("IsTrustedProcess", __LINE__, [&] {
        // The mutex is re-entrant: the query and the clear take it again without waiting.
        TarnMT::AutoLockMutex lock(&m_mutex, kTableLockTimeoutMs);
        return IsTrustedProcess(pid, appPath) && ClearTrustedProcess(pid, appPath);
    });
}

uint8_t* DynamicProcessTrust::HeldTable(size_t& size)
{
    if (!InitializeHeld())
        return nullptr;
    size = m_mapSize;
    return Table();
}

} // namespace TarnSys

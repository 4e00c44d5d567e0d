#include "TarnLog/win/Logger.h"

#include "TarnBase/Exceptions.h"
#include "TarnMT/win/Platform.h"
#include "TarnBase/KernelObjectName.h"
#include "TarnLog/CriticalFile.h"
#include "TarnLog/Log.h"
#include "TarnLog/LogRecord.h"
#include "TarnLog/RingLayout.h"
#include "TarnLog/win/CriticalFileOpen.h"
#include "TarnLog/win/LowIntegrity.h"
#include "TarnBase/win/SharedView.h"

#include <shlobj.h>

#include <cstring>

namespace TarnLog {

const char kLoggerKeyPath[] = "SOFTWARE\\Ostrum\\Kestrel\\Logger";
const char kRingMappingName[] = "TarnLogger::Logger::Mapping::3.0";
const char kRingMutexName[] = "TarnLogger::Logger::Mutex::3.0";

namespace {

// The longest any log call waits for the ring mutex. Any local process can take that
// mutex and keep it; a host must not freeze for as long as it likes.
constexpr DWORD kRecordLockTimeoutMs = 1000;
const char kRingRefusedMessage[] =
    "Logger::Initialize() - The log map another process made is damaged, not committed, not readable or backed by "
    "a file; records go only to the debugger output and the critical file.";

// The logger is the sink of every library, including the ones it is built on. A record
// raised while this thread is already inside the logger (a bad slot name, a throw during
// set-up) must not recurse into it again.
thread_local int t_loggerDepth = 0;

struct DepthGuard {
    DepthGuard() { ++t_loggerDepth; }
    ~DepthGuard() { --t_loggerDepth; }
};

// Only a 4-byte REG_DWORD counts; any other type or size leaves the current value alone.
void ReadDword(HKEY key, const char* name, DWORD& value)
{
    DWORD data = 0;
    DWORD type = 0;
    DWORD size = sizeof data;
    if (::RegQueryValueExA(key, name, nullptr, &type, reinterpret_cast<BYTE*>(&data), &size) == ERROR_SUCCESS &&
        type == REG_DWORD && size == sizeof data)
        value = data;
}

TarnMT::SecurityAttributes& SharedObjectAttributes()
{
    static TarnMT::SecurityAttributes attributes = TarnMT::SecurityAttributes::Everyone();
    return attributes;
}

// Seconds since 1970, as the C run time's time() would say, straight from the system clock.
// (Converting to local broken-down time and back gives the same calendar time; under Wine
// the run time's time functions cost more than the rest of a record.)
uint32_t RecordTimeNow()
{
    FILETIME now{};
    ::GetSystemTimeAsFileTime(&now);
    const uint64_t ticks = (static_cast<uint64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
    constexpr uint64_t kUnixEpochTicks = 116444736000000000ull;
    return static_cast<uint32_t>((ticks - kUnixEpochTicks) / 10000000ull);
}

RingHeader* Header(void* view)
{
    return static_cast<RingHeader*>(view);
}

} // namespace

Logger& Logger::Instance()
{
    // Never destroyed: records may still arrive from other modules' teardown.
    static Logger* instance = nullptr;
    if (instance == nullptr)
        instance = new Logger();
    return *instance;
}

Logger::Logger()
{
    try {
        m_mutex.Config(TarnBase::MakeKernelObjectName(kRingMutexName, true), SharedObjectAttributes().Get());
        ApplyLowIntegrityLabel(m_mutex.GetHandle());
    } catch (...) {
        ::OutputDebugStringA("Logger::Logger(void) - Unknown Exception.");
    }
}

Logger::~Logger()
{
    try {
        m_events.clear();
    } catch (...) {
        ::OutputDebugStringA("Logger::~Logger(void) - Unknown Exception.");
    }
}

void Logger::ReadConfiguration(bool includeRingSize)
{
    m_outputDebugString = 0;
    m_criticalLogging = 1;
    m_filterLevel = 255;
    if (!m_key)
        return;
    ReadDword(m_key.Get(), "EnableOutputDebugString", m_outputDebugString);
    ReadDword(m_key.Get(), "EnableCriticalLogger", m_criticalLogging);
    ReadDword(m_key.Get(), "FilterLogLevel", m_filterLevel);
    if (includeRingSize)
        ReadDword(m_key.Get(), "NumberOfLogEntries", m_ringEntries);
}

namespace {

// Holds the ring mutex for a scope when it could be had in time.
class RingLock {
public:
    explicit RingLock(TarnMT::Mutex& mutex, bool acquired) : m_mutex(mutex), m_held(acquired) {}
    ~RingLock()
    {
        if (m_held)
            m_mutex.Release();
    }
    RingLock(const RingLock&) = delete;
    RingLock& operator=(const RingLock&) = delete;
    bool Held() const { return m_held; }

private:
    TarnMT::Mutex& m_mutex;
    bool m_held;
};

} // namespace

bool Logger::AcquireRing()
{
    bool acquired = false;
    try {
        if (m_ringStalled) {
            // A bare look, without the threading library's time-out line for every record.
            const HANDLE handle = m_mutex.GetHandle();
            const DWORD wait = handle ? ::WaitForSingleObject(handle, 0) : WAIT_FAILED;
            acquired = wait == WAIT_OBJECT_0 || wait == WAIT_ABANDONED;
        } else {
            acquired = m_mutex.Acquire(kRecordLockTimeoutMs);
        }
    } catch (...) {
    }
    m_ringStalled = !acquired;
    return acquired;
}

void Logger::ReadHostAndConfiguration()
{
    if (::RegOpenKeyExA(HKEY_CURRENT_USER, kLoggerKeyPath, 0, KEY_READ | KEY_WRITE, m_key.Put()) != ERROR_SUCCESS)
        ::RegCreateKeyExA(HKEY_CURRENT_USER, kLoggerKeyPath, 0, nullptr, 0, KEY_READ | KEY_WRITE, nullptr, m_key.Put(),
                          nullptr);
    m_ringEntries = kDefaultRingEntries;
    ReadConfiguration(true);

    char path[MAX_PATH + 1] = {};
    const DWORD length = ::GetModuleFileNameA(nullptr, path, MAX_PATH);
    path[length < MAX_PATH ? length : MAX_PATH] = '\0';
    const char* slash = std::strrchr(path, '\\');
    m_processName = slash ? slash + 1 : path;
    m_processId = ::GetCurrentProcessId();
    m_configured = true;
}

void Logger::Initialize()
{
    if (m_initialized)
        return;
    TarnMT::AutoCriticalSection setup(&m_setupLock);
    if (m_initialized)
        return;
    if (!m_configured)
        ReadHostAndConfiguration();
    // Without the ring mutex the ring waits for a later call; the records of this one still
    // reach the debugger output and the critical file.
    RingLock lock(m_mutex, AcquireRing());
    if (!lock.Held())
        return;
    if (!MapRing()) {
        ::OutputDebugStringA("Logger::Initialize() - Failed to create log map.");
        // Thrown without the usual throw record: that record would come straight back here.
        throw TarnBase::InvalidObjectException();
    }
    m_initialized = true;
}

bool Logger::MapRing()
{
    size_t bytes = 0;
    if (!RingBytes(m_ringEntries, bytes)) {
        // "NumberOfLogEntries" of 0, or one so large the size overflows, would create a ring
        // no process can index; the default keeps the format usable for everyone.
        m_ringEntries = kDefaultRingEntries;
        RingBytes(m_ringEntries, bytes);
    }
    const std::string name = TarnBase::MakeKernelObjectName(kRingMappingName, true);
    const uint64_t size64 = bytes;
    m_mapping.Reset(::CreateFileMappingA(INVALID_HANDLE_VALUE, TarnMT::IsNtPlatform() ? SharedObjectAttributes().Get() : nullptr,
                                         PAGE_READWRITE, static_cast<DWORD>(size64 >> 32), static_cast<DWORD>(size64),
                                         name.c_str()));
    const bool existed = ::GetLastError() == ERROR_ALREADY_EXISTS;
    if (!m_mapping)
        return false;
    // An existing ring is mapped whole so its creator's entry count decides the size.
    m_view.Reset(::MapViewOfFile(m_mapping.Get(), FILE_MAP_ALL_ACCESS, 0, 0, existed ? 0 : bytes));
    if (!m_view) {
        m_mapping.Reset();
        return false;
    }
    if (TarnMT::IsNtPlatform())
        ApplyLowIntegrityLabel(m_mapping.Get());

    if (existed) {
        // Only what is committed, readable and not a file may be touched at all.
        const size_t mapped = TarnBase::UsableViewBytes(m_view.Get());
        const uint32_t count = mapped >= kRingHeaderSize ? Header(m_view.Get())->entryCount : 0;
        size_t needed = 0;
        // A header whose entry count does not fit the mapping was written by a broken or
        // hostile process: indexing with it would write outside the view. Leave that ring
        // alone; the debugger output and the critical file still get their records.
        m_ringUsable = RingBytes(count, needed) && needed <= mapped;
        if (m_ringUsable) {
            m_ringEntries = count;
            m_cachedGeneration = Header(m_view.Get())->generation - 1;  // forces a first reload
        } else {
            m_ringRefused = true;
        }
        return true;
    }

    std::memset(m_view.Get(), 0, bytes);
    Header(m_view.Get())->entryCount = m_ringEntries;
    Header(m_view.Get())->generation = 1;
    m_ringUsable = true;
    ReloadConfiguration();
    return true;
}

void Logger::ReloadConfiguration()
{
    ReadConfiguration(false);
    m_events.clear();
    if (!m_ringUsable)
        return;
    RingHeader* header = Header(m_view.Get());
    m_cachedGeneration = header->generation;
    for (uint32_t i = 0; i < kNotificationSlots; ++i) {
        NotificationSlot slot;
        std::memcpy(&slot, &header->slots[i], sizeof slot);
        const std::string name = SlotEventName(slot);
        // A reader may have died half-way through writing its slot: skip what cannot be a name.
        if (name.empty() || name.find('\\') != std::string::npos)
            continue;
        try {
            auto event = std::make_unique<TarnMT::Event>();
            event->Config(TarnBase::MakeKernelObjectName(name, true), SharedObjectAttributes().Get());
            // Any process can name any event in a slot: relabelling an object of someone
            // else would open it to low-integrity processes. Only our own events get the label.
            const HANDLE handle = event->GetHandle();
            if (!event->AlreadyExisted())
                ApplyLowIntegrityLabel(handle);
            m_events.push_back(std::move(event));
        } catch (...) {
        }
    }
}

void Logger::WriteToRing(const LogRecord& record)
{
    RingHeader* header = Header(m_view.Get());
    // The entry count is this process's validated copy, never the live header field, which
    // another process could have overwritten since.
    const uint32_t index = header->writeCounter % m_ringEntries;
    std::memcpy(static_cast<char*>(m_view.Get()) + kRingHeaderSize + static_cast<size_t>(index) * kRingEntrySize,
                &record, sizeof record);
    header->writeCounter = header->writeCounter + 1;
    for (auto& event : m_events) {
        try {
            event->Set();
        } catch (...) {
        }
    }
}

void Logger::WriteCritical(const std::string& text)
{
    try {
        TarnMT::AutoCriticalSection guard(&m_criticalLock);
        if (m_criticalFolder.empty()) {
            char folder[MAX_PATH] = {};
            if (FAILED(::SHGetFolderPathA(nullptr, CSIDL_COMMON_APPDATA, nullptr, 0, folder)))
                return;
            m_criticalFolder = std::string(folder) + "\\Ostrum";
        }
        if (UniqueStdFile file = OpenCriticalFile(m_criticalFolder))
            AppendCriticalRecord(file.get(), text);
    } catch (...) {
    }
}

void Logger::WriteTextOutputs(const LogRecord& record)
{
    const bool critical = record.level == 0 && m_criticalLogging != 0;
    if (!critical && m_outputDebugString == 0)
        return;
    try {
        const std::string text = FormatRecordText(record);
        if (m_outputDebugString != 0 && record.level < m_filterLevel)
            ::OutputDebugStringA(text.c_str());
        if (critical)
            WriteCritical(text);
    } catch (...) {
    }
}

void Logger::Log(const char* className, unsigned char level, const char* message) noexcept
{
    if (t_loggerDepth > 0)
        return;
    DepthGuard depth;
    try {
        Initialize();
    } catch (...) {
        return;
    }

    LogRecord record;
    std::memset(&record, 0, sizeof record);
    record.threadId = ::GetCurrentThreadId();
    record.time = RecordTimeNow();
    record.processId = m_processId;
    CopyField(record.processName, sizeof record.processName, m_processName.c_str());
    if (m_ringRefused.exchange(false)) {
        LogRecord notice = record;
        CopyField(notice.message, sizeof notice.message, kRingRefusedMessage);
        CopyField(notice.className, sizeof notice.className, "TarnLogLib");
        ::OutputDebugStringA(kRingRefusedMessage);
        WriteTextOutputs(notice);
    }
    record.level = level;
    CopyField(record.message, sizeof record.message, message);
    CopyField(record.className, sizeof record.className, className);

    if (m_initialized) {
        try {
            RingLock lock(m_mutex, AcquireRing());
            if (lock.Held() && m_ringUsable) {
                if (Header(m_view.Get())->generation != m_cachedGeneration)
                    ReloadConfiguration();
                if (level < m_filterLevel)
                    WriteToRing(record);
            }
        } catch (...) {
            // A ring another process holds loses this record; the text outputs still get it.
        }
    }
    WriteTextOutputs(record);
}

} // namespace TarnLog

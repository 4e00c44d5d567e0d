#pragma once

#include "TarnBase/NoCopySemantics.h"
#include "TarnBase/win/Handle.h"
#include "TarnMT/win/CriticalSection.h"
#include "TarnMT/win/Event.h"
#include "TarnMT/win/Mutex.h"

#include <windows.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

namespace TarnLog {

extern const char kLoggerKeyPath[];    // HKCU "SOFTWARE\Ostrum\Kestrel\Logger"
extern const char kRingMappingName[];  // before the namespace prefix
extern const char kRingMutexName[];

// The process-wide logger: every accepted record goes into the machine-wide ring, and,
// as configured, to the debugger output and (errors) the critical log file.
class Logger : public TarnBase::NoCopySemantics {
public:
    static Logger& Instance();

    void Log(const char* className, unsigned char level, const char* message) noexcept;
    void Initialize();

private:
    Logger();
    ~Logger();

    void ReadConfiguration(bool includeRingSize);
    void ReadHostAndConfiguration();
    bool AcquireRing();
    void ReloadConfiguration();  // caller holds the ring mutex
    bool MapRing();
    void WriteToRing(const struct LogRecord& record);
    void WriteTextOutputs(const struct LogRecord& record);
    void WriteCritical(const std::string& text);

    std::atomic<bool> m_initialized{false};  // the ring is mapped
    // The registry and the host's name are read once, even while the ring is still retried.
    bool m_configured = false;
    TarnMT::CriticalSection m_setupLock;
    // Set when the ring mutex was not had in time: later records try it without waiting
    // until it is seen free again.
    std::atomic<bool> m_ringStalled{false};
    std::atomic<bool> m_ringRefused{false};  // another process's ring could not be used
    std::string m_processName;
    DWORD m_processId = 0;
    TarnBase::UniqueRegKey m_key;
    DWORD m_outputDebugString = 0;
    DWORD m_criticalLogging = 1;
    DWORD m_filterLevel = 255;
    DWORD m_ringEntries = 512;
    TarnMT::Mutex m_mutex;
    TarnBase::UniqueHandle m_mapping;
    TarnBase::UniqueMappedView m_view;
    bool m_ringUsable = false;
    // The header's generation when this process last read the configuration and the
    // notification slots; a reader bumps it whenever it claims or releases a slot.
    uint32_t m_cachedGeneration = 0;
    std::vector<std::unique_ptr<TarnMT::Event>> m_events;  // the readers' events, set per record

    TarnMT::CriticalSection m_criticalLock;
    std::string m_criticalFolder;
};

} // namespace TarnLog

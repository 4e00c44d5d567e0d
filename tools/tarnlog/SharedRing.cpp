#include "SharedRing.h"

#include "TarnBase/KernelObjectName.h"
#include "TarnLog/RingLayout.h"
#include "TarnLog/win/Logger.h"

namespace TarnLogTool {

OpenResult SharedRing::Open(bool writable, std::string& error)
{
    m_view.Reset();
    m_mapping.Reset();
    m_size = 0;
    std::string mappingName;
    std::string mutexName;
    try {
        mappingName = TarnBase::MakeKernelObjectName(TarnLog::kRingMappingName, true);
        mutexName = TarnBase::MakeKernelObjectName(TarnLog::kRingMutexName, true);
    } catch (...) {
        error = "tarnlog: cannot build the log ring's object names";
        return OpenResult::Failed;
    }

    m_writable = writable;
    DWORD access = writable ? FILE_MAP_READ | FILE_MAP_WRITE : FILE_MAP_READ;
    m_mapping.Reset(::OpenFileMappingA(access, FALSE, mappingName.c_str()));
    if (!m_mapping && writable && ::GetLastError() == ERROR_ACCESS_DENIED) {
        m_writable = false;
        access = FILE_MAP_READ;
        m_mapping.Reset(::OpenFileMappingA(access, FALSE, mappingName.c_str()));
    }
    if (!m_mapping) {
        const DWORD code = ::GetLastError();
        if (code == ERROR_FILE_NOT_FOUND)
            return OpenResult::Missing;
        error = "tarnlog: cannot open the log ring (GetLastError: " + std::to_string(code) + ")";
        return OpenResult::Failed;
    }

    // The whole mapping, whatever its header claims; the system knows its real size.
    m_view.Reset(::MapViewOfFile(m_mapping.Get(), access, 0, 0, 0));
    MEMORY_BASIC_INFORMATION info{};
    if (!m_view || ::VirtualQuery(m_view.Get(), &info, sizeof info) == 0) {
        error = "tarnlog: cannot map the log ring (GetLastError: " + std::to_string(::GetLastError()) + ")";
        return OpenResult::Failed;
    }
    m_size = info.RegionSize;
    if (m_size < TarnLog::kRingHeaderSize) {
        error = "tarnlog: the log ring is smaller than its header";
        return OpenResult::Failed;
    }

    m_mutex.Reset(::OpenMutexA(SYNCHRONIZE | MUTEX_MODIFY_STATE, FALSE, mutexName.c_str()));
    if (!m_mutex) {
        error = "tarnlog: cannot open the log ring's mutex (GetLastError: " + std::to_string(::GetLastError()) + ")";
        return OpenResult::Failed;
    }
    return OpenResult::Opened;
}

RingLock::RingLock(HANDLE mutex, DWORD timeoutMs) : m_mutex(mutex)
{
    const DWORD wait = ::WaitForSingleObject(mutex, timeoutMs);
    m_held = wait == WAIT_OBJECT_0 || wait == WAIT_ABANDONED;
}

RingLock::~RingLock()
{
    if (m_held)
        ::ReleaseMutex(m_mutex);
}

} // namespace TarnLogTool

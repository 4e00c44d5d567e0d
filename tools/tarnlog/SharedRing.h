#pragma once
// The machine-wide log ring as another process sees it: the whole mapping mapped, its
// size taken from the system (never from the header), and the ring mutex.

#include "TarnBase/win/Handle.h"

#include <windows.h>

#include <cstdint>
#include <string>

namespace TarnLogTool {

enum class OpenResult { Opened, Missing, Failed };

class SharedRing {
public:
    // Asks for write access when `writable` (a follower publishes its event in the
    // header) and falls back to reading only when the mapping refuses it.
    OpenResult Open(bool writable, std::string& error);

    uint8_t* Base() const { return static_cast<uint8_t*>(m_view.Get()); }
    size_t Size() const { return m_size; }
    bool Writable() const { return m_writable; }
    HANDLE Mutex() const { return m_mutex.Get(); }

private:
    TarnBase::UniqueHandle m_mapping;
    TarnBase::UniqueMappedView m_view;
    TarnBase::UniqueHandle m_mutex;
    size_t m_size = 0;
    bool m_writable = false;
};

// The ring mutex for a scope, waited on for at most `timeoutMs`. An abandoned mutex (a
// writer died holding it) counts as taken, as it does for the writers.
class RingLock {
public:
    RingLock(HANDLE mutex, DWORD timeoutMs);
    ~RingLock();
    RingLock(const RingLock&) = delete;
    RingLock& operator=(const RingLock&) = delete;

    bool Held() const { return m_held; }

private:
    HANDLE m_mutex;
    bool m_held = false;
};

} // namespace TarnLogTool

#pragma once
// Ends a download at its deadline, whatever call it is blocked in. WinINet's receive time-out
// bounds each receive, not the whole exchange: a server that sends its headers a byte at a
// time, or falls silent where the time-out is not honoured, could otherwise hold the page's
// thread for as long as it likes. At the deadline a thread-pool timer closes the session,
// which makes the blocked call fail.

#include "TarnBase/win/Handle.h"

#include <windows.h>

#include <atomic>

namespace TarnSMX {

class DownloadWatch {
public:
    // `session` must not be used through its owner until Stop(): the timer may reset it.
    DownloadWatch(TarnBase::UniqueInternetHandle& session, DWORD deadlineMs) noexcept;
    ~DownloadWatch() { Stop(); }
    DownloadWatch(const DownloadWatch&) = delete;
    DownloadWatch& operator=(const DownloadWatch&) = delete;

    // Cancels the timer, waiting for a callback already running, so that none outlives the
    // download (or the module). True when the deadline closed the session.
    bool Stop() noexcept;

private:
    static void CALLBACK Fire(void* context, BOOLEAN) noexcept;

    TarnBase::UniqueInternetHandle& m_session;
    HANDLE m_timer = nullptr;
    std::atomic<bool> m_fired{false};
};

} // namespace TarnSMX

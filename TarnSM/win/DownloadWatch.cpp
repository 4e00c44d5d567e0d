#include "TarnSM/win/DownloadWatch.h"

namespace TarnSMX {

DownloadWatch::DownloadWatch(TarnBase::UniqueInternetHandle& session, DWORD deadlineMs) noexcept : m_session(session)
{
    // Without a timer the download is still bounded between reads; nothing else is lost.
    if (!::CreateTimerQueueTimer(&m_timer, nullptr, &DownloadWatch::Fire, this, deadlineMs, 0, WT_EXECUTEONLYONCE))
        m_timer = nullptr;
}

void CALLBACK DownloadWatch::Fire(void* context, BOOLEAN) noexcept
{
    auto* watch = static_cast<DownloadWatch*>(context);
    watch->m_fired = true;
    watch->m_session.Reset();
}

bool DownloadWatch::Stop() noexcept
{
    if (m_timer != nullptr) {
        ::DeleteTimerQueueTimer(nullptr, m_timer, INVALID_HANDLE_VALUE);
        m_timer = nullptr;
    }
    return m_fired;
}

} // namespace TarnSMX

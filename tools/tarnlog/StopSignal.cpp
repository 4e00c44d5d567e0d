#include "StopSignal.h"

#include "TarnBase/win/Handle.h"

namespace TarnLogTool {
namespace {

// The handler runs on a thread of the system's; it only sees these.
TarnBase::UniqueHandle g_stop;
TarnBase::UniqueHandle g_finished;

BOOL WINAPI OnConsoleControl(DWORD type)
{
    ::SetEvent(g_stop.Get());
    // On close, logoff and shutdown the process ends when the handler returns: give the
    // follower a moment to free its slot first.
    if (type == CTRL_CLOSE_EVENT || type == CTRL_LOGOFF_EVENT || type == CTRL_SHUTDOWN_EVENT)
        ::WaitForSingleObject(g_finished.Get(), 3000);
    return TRUE;
}

} // namespace

StopSignal::StopSignal()
{
    g_stop.Reset(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
    g_finished.Reset(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
    ::SetConsoleCtrlHandler(OnConsoleControl, TRUE);
}

StopSignal::~StopSignal()
{
    ::SetConsoleCtrlHandler(OnConsoleControl, FALSE);
    Finished();
}

HANDLE StopSignal::Handle() const
{
    return g_stop.Get();
}

void StopSignal::Finished()
{
    ::SetEvent(g_finished.Get());
}

} // namespace TarnLogTool

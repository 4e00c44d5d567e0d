#pragma once

#include "TarnBase/NoCopySemantics.h"
#include "TarnBase/win/Handle.h"
#include "TarnMT/win/CriticalSection.h"

#include <memory>

namespace TarnMT {

class Event;

// An abstract worker. Stopping is cooperative first: Abort sets the yield event, which
// wakes every wait bound to this thread (they throw ThreadAbortException and unwind Run);
// a worker that does not end within the deadlock time-out is terminated.
class Thread : public TarnBase::NoCopySemantics {
public:
    Thread();
    virtual ~Thread();

    virtual DWORD Run() = 0;
    virtual bool Execute();
    virtual bool IsRunning();
    virtual void Suspend();
    virtual bool IsSuspended();
    virtual void Resume();
    virtual void Abort(DWORD deadlockTimeoutMs);
    virtual void Sleep(DWORD ms);
    virtual DWORD GetExitCode();
    virtual HANDLE GetHandle();
    virtual DWORD GetThreadId();
    virtual HANDLE GetYieldEvent();
    virtual bool WaitForThreadToEnd(DWORD timeoutMs, Event* event, Thread* thread);

private:
    static unsigned __stdcall ThreadWrapper(void* self);

    bool m_abortRequested = false;
    bool m_suspended = false;
    bool m_running = false;
    DWORD m_exitCode = 0;
    TarnBase::UniqueHandle m_thread;
    DWORD m_threadId = 0;
    TarnBase::UniqueHandle m_yieldEvent;
    std::unique_ptr<CriticalSection> m_lock;
};

} // namespace TarnMT

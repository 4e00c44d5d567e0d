#include "TarnMT/win/Thread.h"

#include "TarnBase/Exceptions.h"
#include "TarnMT/DebugLine.h"
#include "TarnMT/win/Event.h"
#include "TarnMT/win/Mutex.h"

#include <process.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <new>

namespace TarnMT {
namespace {
const char kClass[] = "TarnMT::Thread";
const char kSource[] = "Thread";
const DWORD kDestructorDeadlockMs = 5000;

unsigned AsNumber(HANDLE handle)
{
    return static_cast<unsigned>(reinterpret_cast<uintptr_t>(handle));
}
} // namespace

Thread::Thread()
{
    m_yieldEvent.Reset(::CreateEventA(nullptr, TRUE, FALSE, nullptr));
    if (!m_yieldEvent) {
        TARN_MT_LOG_WIN32_ERROR(kClass, 0, ::GetLastError(), "Internel CreateEvent call failed.");
        TARN_MT_THROW(kClass, kSource, TarnBase::InvalidObjectException);
    }
    m_lock.reset(new (std::nothrow) CriticalSection);
    if (!m_lock)
        TARN_MT_THROW(kClass, kSource, TarnBase::NullPointerException);
}

Thread::~Thread()
{
    // A derived destructor should stop its worker itself: by now the derived part is gone.
    try {
        DebugLog(kClass, 2, "Destructor running, aborting any underlying thread with a deadlock timeout value = %u (milliseconds).",
                 static_cast<unsigned>(kDestructorDeadlockMs));
        Abort(kDestructorDeadlockMs);
    } catch (...) {
        TARN_LOG_UNKNOWN_EXCEPTION(DebugLog, kClass, kSource, __LINE__);
    }
}

bool Thread::Execute()
{
    AutoCriticalSection guard(m_lock.get());
    if (m_running) {
        DebugLog(kClass, 1, "Execute call failure because this thread object is already associate with a running thread.");
        return false;
    }
    m_thread.Reset();
    m_threadId = 0;
    if (!::ResetEvent(m_yieldEvent.Get())) {
        TARN_MT_LOG_WIN32_ERROR(kClass, 0, ::GetLastError(),
                                "Internel ResetEvent call failed for our internal yield event.");
        return false;
    }
    // A request meant for the previous worker must not stop the next one at its first Sleep.
    m_abortRequested = false;
    m_running = true;

    // The wrapper reads the handle and id through the lock we hold, so it cannot see them unset.
    unsigned id = 0;
    const uintptr_t handle = ::_beginthreadex(nullptr, 0, &Thread::ThreadWrapper, this, 0, &id);
    if (handle == 0) {
        m_running = false;
        char reason[261] = "";
        ::strerror_s(reason, sizeof reason, errno);
        DebugLog(kClass, 0, "Internel _beginthreadex call failed. strerror(errno) = %s.", reason);
        return false;
    }
    m_thread.Reset(reinterpret_cast<HANDLE>(handle));
    m_threadId = id;
    DebugLog(kClass, 2, "Internel thread creation successful. Thread HANDLE = %u. Thread ID = %u.", AsNumber(m_thread.Get()),
             static_cast<unsigned>(m_threadId));
    return true;
}

unsigned __stdcall Thread::ThreadWrapper(void* parameter)
{
    Thread* self = static_cast<Thread*>(parameter);
    // Kept locally: once running is cleared below, the owner may destroy the object.
    const unsigned handle = AsNumber(self->GetHandle());
    const unsigned id = static_cast<unsigned>(self->GetThreadId());
    DebugLog(kClass, 2, "ThreadWrapper running. Thread HANDLE = %u. Thread Id = %u.", handle, id);

    // DebugLog never throws, so the reports below need no guard of their own.
    DWORD exitCode = 0;
    try {
        exitCode = self->Run();
    } catch (const ThreadAbortException&) {
        DebugLog(kClass, 1, "ThreadWrapper uncaught TarnMT::ThreadAbortException caught. The exception is swallowed, the thread will exit. Thread HANDLE = %u. Thread Id = %u.",
                 handle, id);
    } catch (const ThreadDeadlockException&) {
        DebugLog(kClass, 1, "ThreadWrapper uncaught TarnMT::ThreadDeadlockException caught. The exception is swallowed, the thread will exit. Thread HANDLE = %u. Thread Id = %u.",
                 handle, id);
    } catch (...) {
        DebugLog(kClass, 1, "ThreadWrapper uncaught unhandled exception caught. The exception is swallowed, the thread will exit. Thread HANDLE = %u. Thread Id = %u.",
                 handle, id);
    }

    {
        AutoCriticalSection guard(self->m_lock.get());
        self->m_exitCode = exitCode;
        self->m_running = false;
    }
    DebugLog(kClass, 2, "ThreadWrapper exiting. Exit Code = %u. Thread HANDLE = %u. Thread Id = %u.",
             static_cast<unsigned>(exitCode), handle, id);
    return exitCode;
}

bool Thread::IsRunning()
{
    AutoCriticalSection guard(m_lock.get());
    return m_running;
}

void Thread::Suspend()
{
    AutoCriticalSection guard(m_lock.get());
    if (m_suspended)
        return;
    if (::SuspendThread(m_thread.Get()) == static_cast<DWORD>(-1))
        TARN_MT_LOG_WIN32_ERROR(kClass, 1, ::GetLastError(), "Internel SuspendThread call failed.");
    else
        m_suspended = true;
}

bool Thread::IsSuspended()
{
    AutoCriticalSection guard(m_lock.get());
    return m_suspended;
}

void Thread::Resume()
{
    AutoCriticalSection guard(m_lock.get());
    if (!m_suspended)
        return;
    if (::ResumeThread(m_thread.Get()) == static_cast<DWORD>(-1))
        TARN_MT_LOG_WIN32_ERROR(kClass, 1, ::GetLastError(), "Internel ResumeThread call failed.");
    else
        m_suspended = false;
}

void Thread::Abort(DWORD deadlockTimeoutMs)
{
    HANDLE thread = nullptr;
    {
        AutoCriticalSection guard(m_lock.get());
        if (!m_thread)
            return;
        m_abortRequested = true;
        // A suspended worker could never reach the wait that the yield event wakes.
        Resume();
        thread = m_thread.Get();
    }
    DebugLog(kClass, 2, "Aborting underlying thread managed by this TarnMT::Thread object. Deadlock timeout interval = %u (in milliseconds).",
             static_cast<unsigned>(deadlockTimeoutMs));
    if (!::SetEvent(m_yieldEvent.Get()))
        TARN_MT_LOG_WIN32_ERROR(kClass, 1, ::GetLastError(),
                                "Failed to signal our internal Yield Event. We will attempt to continue anyway. SetEvent call failed with");

    // Not under the lock: the ending worker takes it to store its exit code.
    const DWORD result = ::WaitForSingleObject(thread, deadlockTimeoutMs);

    // Held while terminating, so the worker cannot die owning the lock.
    AutoCriticalSection guard(m_lock.get());
    if (result == WAIT_TIMEOUT) {
        DebugLog(kClass, 1, "Timeout encountered waiting for clean thread death. TerminateThread (evil as it is) will be used to force the issue. Timeout interval: %u (in milliseconds).",
                 static_cast<unsigned>(deadlockTimeoutMs));
        if (!::TerminateThread(thread, 0))
            TARN_MT_LOG_WIN32_ERROR(kClass, 1, ::GetLastError(), "Internal TerminateThread call failure.");
        m_running = false;
        m_exitCode = 0xFFFFFFFF;
        TARN_MT_THROW(kClass, kSource, TarnMT::ThreadDeadlockException);
    }
    m_running = false;
    DebugLog(kClass, 2, "Successfully aborted underlying thread managed by this TarnMT::Thread object.");
}

void Thread::Sleep(DWORD ms)
{
    DebugLog(kClass, 2, "TarnMT::Thread putting the underlying thread to sleep for %u milliseconds. Thread HANDLE = %u. Thread Id = %u.",
             static_cast<unsigned>(ms), AsNumber(GetHandle()), static_cast<unsigned>(GetThreadId()));
    ::WaitForSingleObject(m_yieldEvent.Get(), ms);
    AutoCriticalSection guard(m_lock.get());
    if (m_abortRequested)
        TARN_MT_THROW(kClass, kSource, TarnMT::ThreadAbortException);
}

DWORD Thread::GetExitCode()
{
    AutoCriticalSection guard(m_lock.get());
    return m_exitCode;
}

HANDLE Thread::GetHandle()
{
    AutoCriticalSection guard(m_lock.get());
    return m_thread.Get();
}

DWORD Thread::GetThreadId()
{
    AutoCriticalSection guard(m_lock.get());
    return m_threadId;
}

HANDLE Thread::GetYieldEvent()
{
    AutoCriticalSection guard(m_lock.get());
    return m_yieldEvent.Get();
}

bool Thread::WaitForThreadToEnd(DWORD timeoutMs, Event* event, Thread* thread)
{
    HANDLE handles[4] = {};
    DWORD count = 0;
    {
        AutoCriticalSection guard(m_lock.get());
        if (!m_running)
            return true;
        handles[count++] = m_thread.Get();
    }
    const bool bound = IsUsablePointer(thread);
    if (bound) {
        handles[count++] = thread->GetHandle();
        if (handles[count - 1] == nullptr) {
            DebugLog(kClass, 0, "WaitForThreadToEnd(): Error - Invalid Thread HANDLE.");
            TARN_MT_THROW(kClass, kSource, TarnBase::InvalidOperationException);
        }
        handles[count++] = thread->GetYieldEvent();
        if (handles[count - 1] == nullptr) {
            DebugLog(kClass, 0, "WaitForThreadToEnd(): Error - Invalid Thread yield event.");
            TARN_MT_THROW(kClass, kSource, TarnBase::InvalidOperationException);
        }
    }
    if (IsUsablePointer(event)) {
        HANDLE eventHandle = nullptr;
        try {
            eventHandle = event->GetHandle();
        } catch (const TarnBase::BaseException&) {
        }
        if (eventHandle == nullptr) {
            DebugLog(kClass, 0, "WaitForThreadToEnd(): Error - Invalid Event Object.");
            TARN_MT_THROW(kClass, kSource, TarnBase::InvalidOperationException);
        }
        handles[count++] = eventHandle;
    }

    const DWORD result = ::WaitForMultipleObjects(count, handles, FALSE, timeoutMs);
    if (result == WAIT_TIMEOUT)
        return false;
    if (result == WAIT_OBJECT_0 || result == WAIT_ABANDONED_0)
        return true;
    // Only the bound thread's own two handles mean "stop"; the extra event merely ends the wait.
    const DWORD index = result >= WAIT_ABANDONED_0 ? result - WAIT_ABANDONED_0 : result - WAIT_OBJECT_0;
    if (bound && (index == 1 || index == 2))
        TARN_MT_THROW(kClass, kSource, TarnMT::ThreadAbortException);
    DebugLog(kClass, 0, "WaitForThreadToEnd(): Error - Unhandled return code from wait.");
    return false;
}

} // namespace TarnMT

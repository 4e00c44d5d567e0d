#include "TarnMT/win/Event.h"

#include "TarnBase/Exceptions.h"
#include "TarnMT/DebugLine.h"
#include "TarnMT/win/Mutex.h"
#include "TarnMT/win/Thread.h"

namespace TarnMT {
namespace {
const char kClass[] = "TarnMT::Event";
const char kSource[] = "Event";

HANDLE CreateManualResetEvent(SECURITY_ATTRIBUTES* attributes, const char* name)
{
    return ::CreateEventA(attributes, TRUE, FALSE, name);
}

} // namespace

Event::Event() : NamedObject(kClass, kSource) {}

void Event::Config(const std::string& name, const SECURITY_ATTRIBUTES* securityAttributes)
{
    ConfigName(name, securityAttributes);
}

HANDLE Event::CreatedHandle()
{
    if (!EnsureCreated(CreateManualResetEvent))
        TARN_MT_THROW(kClass, kSource, TarnBase::InvalidObjectException);
    return Handle();
}

HANDLE Event::GetHandle()
{
    return CreatedHandle();
}

void Event::Reset()
{
    if (!::ResetEvent(CreatedHandle()))
        TARN_MT_LOG_WIN32_ERROR(kClass, 1, ::GetLastError(), "Internal ResetEvent call failed.");
}

void Event::Set()
{
    if (!::SetEvent(CreatedHandle()))
        TARN_MT_LOG_WIN32_ERROR(kClass, 1, ::GetLastError(), "Internal SetEvent call failed.");
}

void Event::Pulse()
{
    if (!::PulseEvent(CreatedHandle()))
        TARN_MT_LOG_WIN32_ERROR(kClass, 1, ::GetLastError(), "Internal PulseEvent call failed.");
}

bool Event::Wait(DWORD timeoutMs, Thread* thread)
{
    HANDLE handles[3] = {CreatedHandle(), nullptr, nullptr};
    DWORD count = 1;
    if (thread == nullptr || !IsUsablePointer(thread)) {
        DebugLog(kClass, 2, "Event object Wait operation being attempted without being bound to a TarnMT::Thread object.");
    } else {
        handles[1] = thread->GetHandle();
        handles[2] = thread->GetYieldEvent();
        DebugLog(kClass, 2, "Event object Wait operation bound to TarnMT::Thread with Thread HANDLE = %u.",
                 static_cast<unsigned>(reinterpret_cast<uintptr_t>(handles[1])));
        DebugLog(kClass, 2, "Event object Wait operation bound to TarnMT::Thread with Thread Yield Event HANDLE = %u.",
                 static_cast<unsigned>(reinterpret_cast<uintptr_t>(handles[2])));
        if (handles[1] == nullptr || handles[2] == nullptr)
            TARN_MT_THROW(kClass, kSource, TarnBase::InvalidOperationException);
        count = 3;
    }

    const DWORD result = ::WaitForMultipleObjects(count, handles, FALSE, timeoutMs);
    switch (result) {
    case WAIT_TIMEOUT:
        DebugLog(kClass, 1, "Event object Wait operation failed due to timeout. Timeout interval: %u (milliseconds).",
                 static_cast<unsigned>(timeoutMs));
        return false;
    case WAIT_OBJECT_0:
    case WAIT_ABANDONED_0:
        DebugLog(kClass, 2, "Event object Wait operation successful for current thread. ThreadID: %u.",
                 static_cast<unsigned>(::GetCurrentThreadId()));
        return true;
    case WAIT_OBJECT_0 + 1:
    case WAIT_OBJECT_0 + 2:
    case WAIT_ABANDONED_0 + 1:
    case WAIT_ABANDONED_0 + 2:
        DebugLog(kClass, 1, "Event object Wait operation detected that the bound TarnMT::Thread object has been terminated.");
        TARN_MT_THROW(kClass, kSource, TarnMT::ThreadAbortException);
    default:
        TARN_MT_THROW(kClass, kSource, TarnBase::InvalidObjectException);
    }
}

} // namespace TarnMT

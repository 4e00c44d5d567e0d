#include "TarnMT/win/Mutex.h"

#include "TarnBase/Exceptions.h"
#include "TarnMT/DebugLine.h"
#include "TarnMT/win/Thread.h"

namespace TarnMT {
namespace {
const char kClass[] = "TarnMT::Mutex";
const char kAutoClass[] = "TarnMT::AutoLockMutex";
const char kSource[] = "Mutex";
const char kAutoSource[] = "AutoLockMutex";

HANDLE CreateUnownedMutex(SECURITY_ATTRIBUTES* attributes, const char* name)
{
    return ::CreateMutexA(attributes, FALSE, name);
}

} // namespace

bool IsUsablePointer(const void* pointer)
{
    return pointer != nullptr && !::IsBadCodePtr(reinterpret_cast<FARPROC>(const_cast<void*>(pointer)));
}

Mutex::Mutex() : NamedObject(kClass, kSource) {}

void Mutex::Config(const std::string& name, const SECURITY_ATTRIBUTES* securityAttributes)
{
    ConfigName(name, securityAttributes);
}

HANDLE Mutex::GetHandle()
{
    EnsureCreated(CreateUnownedMutex);
    return Handle();
}

bool Mutex::Acquire(DWORD timeoutMs)
{
    return Acquire(timeoutMs, nullptr);
}

bool Mutex::Acquire(DWORD timeoutMs, Thread* thread)
{
    if (!EnsureCreated(CreateUnownedMutex))
        TARN_MT_THROW(kClass, kSource, TarnBase::InvalidObjectException);

    HANDLE handles[3] = {Handle(), nullptr, nullptr};
    DWORD count = 1;
    if (thread != nullptr && IsUsablePointer(thread)) {
        handles[1] = thread->GetHandle();
        handles[2] = thread->GetYieldEvent();
        if (handles[1] == nullptr || handles[2] == nullptr)
            TARN_MT_THROW(kClass, kSource, TarnBase::InvalidOperationException);
        count = 3;
    }

    const DWORD result = ::WaitForMultipleObjects(count, handles, FALSE, timeoutMs);
    switch (result) {
    case WAIT_OBJECT_0:
    case WAIT_ABANDONED_0:
        // An abandoned mutex still hands us ownership; its previous owner died holding it.
        return true;
    case WAIT_TIMEOUT:
        DebugLog(kClass, 1, "Mutex object Acquire operation failed due to timeout. Timeout interval: %u (milliseconds).",
                 static_cast<unsigned>(timeoutMs));
        return false;
    case WAIT_OBJECT_0 + 1:
    case WAIT_OBJECT_0 + 2:
    case WAIT_ABANDONED_0 + 1:
    case WAIT_ABANDONED_0 + 2:
        DebugLog(kClass, 1, "Mutex object Acquire operation detected that the bound TarnMT::Thread object has been terminated.");
        TARN_MT_THROW(kClass, kSource, TarnMT::ThreadAbortException);
    default:
        TARN_MT_THROW(kClass, kSource, TarnBase::InvalidObjectException);
    }
}

void Mutex::Release()
{
    if (!Handle())
        return;
    if (!::ReleaseMutex(Handle()))
        TARN_MT_LOG_WIN32_ERROR(kClass, 1, ::GetLastError(), "Internel ReleaseMutex call failed.");
}

AutoLockMutex::AutoLockMutex(Mutex* mutex, DWORD timeoutMs, Thread* thread) : m_mutex(mutex)
{
    if (!IsUsablePointer(mutex))
        TARN_MT_THROW(kAutoClass, kAutoSource, TarnBase::InvalidParameterException);
    const bool acquired = IsUsablePointer(thread) ? mutex->Acquire(timeoutMs, thread) : mutex->Acquire(timeoutMs);
    if (!acquired) {
        DebugLog(kAutoClass, 1, "Throwing %s exception type. File: %s Line: %d.", "TarnMT::AutoLockTimeoutException",
                 kAutoSource, __LINE__);
        throw TarnMT::AutoLockTimeoutException();
    }
}

AutoLockMutex::~AutoLockMutex()
{
    if (IsUsablePointer(m_mutex))
        m_mutex->Release();
}

} // namespace TarnMT

#pragma once

#include "TarnBase/NoCopySemantics.h"
#include "TarnMT/win/NamedObject.h"

#include <string>

namespace TarnMT {

class Thread;

// A kernel mutex, named or not, created on first use. A wait bound to a Thread wakes up
// when that thread is asked to stop and turns into ThreadAbortException.
class Mutex : public NamedObject {
public:
    Mutex();
    virtual ~Mutex() = default;

    virtual void Config(const std::string& name, const SECURITY_ATTRIBUTES* securityAttributes);
    virtual bool Acquire(DWORD timeoutMs, Thread* thread);
    virtual bool Acquire(DWORD timeoutMs);
    virtual void Release();

    HANDLE GetHandle();
};

// Holds a Mutex for a scope; a time-out throws AutoLockTimeoutException.
class AutoLockMutex : public TarnBase::NoCopySemantics {
public:
    AutoLockMutex(Mutex* mutex, DWORD timeoutMs, Thread* thread = nullptr);
    ~AutoLockMutex();

private:
    Mutex* m_mutex;
};

// Whether a caller-supplied object pointer is usable. The platform's code-pointer test is
// the historical check; it also catches pointers into unmapped memory.
bool IsUsablePointer(const void* pointer);

} // namespace TarnMT

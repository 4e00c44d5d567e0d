#pragma once

#include "TarnBase/NoCopySemantics.h"
#include "TarnBase/win/Handle.h"
#include "TarnMT/win/CriticalSection.h"
#include "TarnMT/win/SecurityAttributes.h"

#include <string>

namespace TarnMT {

class Thread;

// A manual-reset kernel event, named or not, created (not set) on first use.
class Event : public TarnBase::NoCopySemantics {
public:
    Event() = default;
    virtual ~Event() = default;

    virtual void Config(const std::string& name, const SECURITY_ATTRIBUTES* securityAttributes);
    virtual void Reset();
    virtual void Set();
    virtual void Pulse();
    virtual bool Wait(DWORD timeoutMs, Thread* thread);
    virtual HANDLE GetHandle();

    // True when creation opened an event that another party had already created.
    bool AlreadyExisted() const { return m_alreadyExisted; }
    const std::string& GetName() const { return m_name; }

private:
    bool EnsureCreated();
    HANDLE CreatedHandle();

    CriticalSection m_createLock;  // two threads' first use still makes one handle
    std::string m_name;
    bool m_alreadyExisted = false;
    SecurityAttributes m_securityAttributes;
    TarnBase::UniqueHandle m_handle;
};

} // namespace TarnMT

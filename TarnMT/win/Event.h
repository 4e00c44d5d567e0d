#pragma once

#include "TarnMT/win/NamedObject.h"

#include <string>

namespace TarnMT {

class Thread;

// A manual-reset kernel event, named or not, created (not set) on first use.
class Event : public NamedObject {
public:
    Event();
    virtual ~Event() = default;

    virtual void Config(const std::string& name, const SECURITY_ATTRIBUTES* securityAttributes);
    virtual void Reset();
    virtual void Set();
    virtual void Pulse();
    virtual bool Wait(DWORD timeoutMs, Thread* thread);
    virtual HANDLE GetHandle();

private:
    HANDLE CreatedHandle();
};

} // namespace TarnMT

#pragma once

#include "TarnBase/NoCopySemantics.h"

#include <windows.h>

namespace TarnMT {

// Process-local lock.
class CriticalSection : public TarnBase::NoCopySemantics {
public:
    CriticalSection() noexcept;
    ~CriticalSection();

    void Enter();
    void Leave();

private:
    // False when the platform could not set the section up: Enter and Leave then throw,
    // so the constructor itself never has to.
    bool m_initialized = false;
    CRITICAL_SECTION m_section{};
};

// Scope guard: a null section or a failure to enter throws InvalidObjectException.
class AutoCriticalSection : public TarnBase::NoCopySemantics {
public:
    explicit AutoCriticalSection(CriticalSection* section);
    ~AutoCriticalSection();

private:
    CriticalSection* m_section;
};

} // namespace TarnMT

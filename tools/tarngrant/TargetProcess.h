#pragma once
// The process a grant is for: whether it runs, and the executable path the control inside
// it will see.

#include "TarnBase/win/Handle.h"

#include <windows.h>

#include <string>

namespace TarnGrant {

class TargetProcess {
public:
    enum class State { Running, Ended, NotFound, AccessDenied };

    explicit TargetProcess(DWORD pid);

    State GetState() const { return m_state; }
    DWORD Pid() const { return m_pid; }
    HANDLE Handle() const { return m_handle.Get(); }

    // The full path of the process's executable as GetModuleFileNameA inside it reports
    // it (the control asks exactly that), converted from the ANSI code page. Empty when it
    // cannot be read.
    std::wstring ModulePath() const;

    bool HasEnded() const;

private:
    DWORD m_pid;
    State m_state = State::NotFound;
    TarnBase::UniqueHandle m_handle;
};

} // namespace TarnGrant

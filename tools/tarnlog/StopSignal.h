#pragma once
// Ctrl+C, Ctrl+Break and closing the console window ask a follower to stop; it then
// frees its notification slot before the process ends.

#include <windows.h>

namespace TarnLogTool {

class StopSignal {
public:
    StopSignal();
    ~StopSignal();
    StopSignal(const StopSignal&) = delete;
    StopSignal& operator=(const StopSignal&) = delete;

    // Set when a stop was asked for; wait on it beside the follower's own event.
    HANDLE Handle() const;
    // Tells a console-close handler still waiting that the clean-up is over.
    void Finished();
};

} // namespace TarnLogTool

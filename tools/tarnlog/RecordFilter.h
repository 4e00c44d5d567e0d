#pragma once
// Which records a support engineer asked to see. Every condition given must hold.

#include "TarnLog/LogRecord.h"

#include <cstdint>
#include <string>

namespace TarnLogTool {

struct RecordFilter {
    bool hasLevel = false;
    uint8_t maxLevel = 0;      // shows levels 0..maxLevel: 0 errors, 1 adds warnings
    std::string processName;   // case-insensitive; "host" also matches "host.exe"
    std::string className;     // case-insensitive, whole name
    bool hasProcessId = false;
    uint32_t processId = 0;

    bool IsEmpty() const { return !hasLevel && processName.empty() && className.empty() && !hasProcessId; }
    bool Matches(const TarnLog::LogRecord& record) const;
};

} // namespace TarnLogTool

#include "TarnMT/DebugLine.h"

#include <cstdio>

namespace TarnMT {

const char* LevelTag(unsigned level)
{
    if (level == 0)
        return "[ ERROR ]";
    if (level == 1)
        return "[ WARN  ]";
    return "[ DEBUG ]";
}

std::string FormatDebugLine(unsigned level, const std::tm& t, unsigned long processId, unsigned long threadId,
                            const char* className, const char* message)
{
    char stamp[64];
    std::snprintf(stamp, sizeof stamp, "[ %.2d/%.2d/%d %.2d:%.2d:%.2d ] ", t.tm_mon + 1, t.tm_mday, t.tm_year + 1900,
                  t.tm_hour, t.tm_min, t.tm_sec);
    std::string line = LevelTag(level);
    line += stamp;
    line += "[ PID: " + std::to_string(processId) + " ] ";
    line += "[ TID: " + std::to_string(threadId) + " ] ";
    line += "[ TarnMT-Log ]";
    line += " [ ";
    line += className ? className : "";
    line += " ] ";
    line += "[ Msg: ";
    line += message ? message : "";
    line += " ]\n";
    return line;
}

} // namespace TarnMT

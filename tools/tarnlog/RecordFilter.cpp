#include "RecordFilter.h"

namespace TarnLogTool {
namespace {

char Lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool EqualNoCase(const std::string& a, const std::string& b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (Lower(a[i]) != Lower(b[i]))
            return false;
    return true;
}

} // namespace

bool RecordFilter::Matches(const TarnLog::LogRecord& record) const
{
    if (hasLevel && record.level > maxLevel)
        return false;
    if (hasProcessId && record.processId != processId)
        return false;
    if (!processName.empty()) {
        const std::string name = TarnLog::ReadField(record.processName, sizeof record.processName);
        // Engineers type the program's name as they know it, often without ".exe".
        if (!EqualNoCase(name, processName) && !EqualNoCase(name, processName + ".exe"))
            return false;
    }
    if (!className.empty() && !EqualNoCase(TarnLog::ReadField(record.className, sizeof record.className), className))
        return false;
    return true;
}

} // namespace TarnLogTool

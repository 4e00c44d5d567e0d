#include "TarnLog/LogRecord.h"

#include <cstdio>
#include <cstring>

namespace TarnLog {

void CopyField(char* field, size_t fieldSize, const char* text)
{
    std::memset(field, 0, fieldSize);
    if (text == nullptr || fieldSize == 0)
        return;
    const size_t length = ::strnlen(text, fieldSize - 1);
    std::memcpy(field, text, length);
}

std::string ReadField(const char* field, size_t fieldSize)
{
    return std::string(field, ::strnlen(field, fieldSize));
}

std::string FormatRecordText(const LogRecord& record)
{
    std::time_t when = static_cast<std::time_t>(record.time);
    std::tm local{};
#ifdef _WIN32
    localtime_s(&local, &when);
#else
    localtime_r(&when, &local);
#endif
    return FormatRecordText(record, local);
}

std::string FormatRecordText(const LogRecord& record, const std::tm& t)
{
    char head[160];
    std::snprintf(head, sizeof head, "[%.2d/%.2d/%d %.2d:%.2d:%.2d]", t.tm_mon + 1, t.tm_mday, t.tm_year + 1900, t.tm_hour,
                  t.tm_min, t.tm_sec);
    char ids[80];
    std::snprintf(ids, sizeof ids, "[PID: 0x%lx][Thread: 0x%lx]", static_cast<unsigned long>(record.processId),
                  static_cast<unsigned long>(record.threadId));
    std::string text = head;
    text += "[Process: " + ReadField(record.processName, sizeof record.processName) + "]";
    text += ids;
    text += "[Class: " + ReadField(record.className, sizeof record.className) + "]";
    text += "[Msg: " + ReadField(record.message, sizeof record.message) + "]";
    return text;
}

} // namespace TarnLog

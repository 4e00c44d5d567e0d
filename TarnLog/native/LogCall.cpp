// Native builds have no logger singleton: records go to the in-process observer only.
#include "TarnLog/Log.h"
#include "TarnLog/LogFormat.h"

namespace TarnLog {

void LogV(const char* className, unsigned char level, const char* format, va_list args) noexcept
{
    bool invalid = false;
    std::string message = FormatMessageText(format, args, invalid);
    if (invalid)
        NotifyObserver(kInvalidSequenceClass, 2, kInvalidSequenceMessage);
    if (message.empty() && format != nullptr)
        message = format;
    NotifyObserver(className, level, message.c_str());
}

} // namespace TarnLog

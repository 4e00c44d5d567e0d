#include "TarnMT/DebugLine.h"

#include "TarnBase/LogCall.h"

#include <windows.h>

#include <cstdarg>
#include <cstdio>

namespace TarnMT {

void DebugLog(const char* className, unsigned level, const char* format, ...) noexcept
{
    const DWORD savedError = ::GetLastError();
    try {
        char message[2048];
        va_list args;
        va_start(args, format);
        const int n = std::vsnprintf(message, sizeof message, format, args);
        va_end(args);
        if (n < 0)
            std::snprintf(message, sizeof message, "%s", format);
        const std::time_t now = std::time(nullptr);
        std::tm local{};
        localtime_s(&local, &now);
        const std::string line = FormatDebugLine(level, local, ::GetCurrentProcessId(), ::GetCurrentThreadId(),
                                                 className, message);
        ::OutputDebugStringA(line.c_str());
        TarnBase::NotifyObserver(className, static_cast<unsigned char>(level), message);
    } catch (...) {
    }
    ::SetLastError(savedError);
}

} // namespace TarnMT

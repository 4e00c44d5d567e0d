#include "TarnLog/Log.h"
#include "TarnLog/LogFormat.h"
#include "TarnLog/win/Logger.h"

#include <windows.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace TarnLog {
namespace {

// Only wide conversions depend on the C run time's locale; switching it costs two
// process-wide locale changes, so it is done only for formats that need it.
bool HasWideConversion(const char* format)
{
    for (const char* p = std::strchr(format, '%'); p != nullptr; p = std::strchr(p + 1, '%')) {
        const char* q = p + 1;
        if (*q == '%') {
            p = q;
            continue;
        }
        while (*q != '\0' && std::strchr("-+ #0'.*0123456789hIL", *q) != nullptr)
            ++q;
        if (*q == 'S' || *q == 'C' || *q == 'w' || (*q == 'l' && (q[1] == 's' || q[1] == 'c')))
            return true;
    }
    return false;
}

class ScopedAnsiLocale {
public:
    explicit ScopedAnsiLocale(bool active) : m_active(active)
    {
        if (!m_active)
            return;
        if (const char* current = std::setlocale(LC_ALL, nullptr))
            m_saved = current;
        char name[16];
        std::snprintf(name, sizeof name, ".%u", ::GetACP());
        std::setlocale(LC_ALL, name);
    }
    ~ScopedAnsiLocale()
    {
        if (m_active)
            std::setlocale(LC_ALL, m_saved.empty() ? "C" : m_saved.c_str());
    }

private:
    bool m_active;
    std::string m_saved;
};

} // namespace

void LogV(const char* className, unsigned char level, const char* format, va_list args) noexcept
{
    const DWORD savedError = ::GetLastError();
    try {
        bool invalid = false;
        std::string message;
        {
            ScopedAnsiLocale locale(format != nullptr && HasWideConversion(format));
            // No invalid-parameter handler is swapped in: that handler is the whole host's,
            // so two threads logging at once could leave ours installed, and the host would
            // call into this module after it is unloaded. The format is checked before it is
            // used and the formatter reports a failure by its result, which is what the
            // record below reports.
            message = FormatMessageText(format, args, invalid);
        }
        if (invalid) {
            NotifyObserver(kInvalidSequenceClass, 2, kInvalidSequenceMessage);
            Logger::Instance().Log(kInvalidSequenceClass, 2, kInvalidSequenceMessage);
        }
        if (message.empty() && format != nullptr)
            message = format;
        NotifyObserver(className, level, message.c_str());
        Logger::Instance().Log(className, level, message.c_str());
    } catch (...) {
    }
    ::SetLastError(savedError);
}

} // namespace TarnLog

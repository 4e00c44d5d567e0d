// The variadic log call and the base layer's sink, the same in every build; LogV is the
// platform's (win/ writes the ring, native/ feeds the in-process observer only).
#include "TarnLog/Log.h"

namespace TarnLog {

void Log(const char* className, unsigned char level, const char* format, ...) noexcept
{
    va_list args;
    va_start(args, format);
    LogV(className, level, format, args);
    va_end(args);
}

// Every binary that links the log call routes the base layer's records through it.
namespace {
const bool g_sinkInstalled = (::TarnBase::SetLogSink(&LogV), true);
} // namespace

} // namespace TarnLog

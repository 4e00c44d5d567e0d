#pragma once
// The one log call used by every library. It never throws and never changes the caller's
// last-error code: callers log in the middle of error paths and read the error afterwards.

#include "TarnBase/LogCall.h"

#include <cstdarg>
#include <string>

namespace TarnLog {

// Levels: 0 error, 1 warning, 2 and above debug (smaller is more severe).
void Log(const char* className, unsigned char level, const char* format, ...) noexcept;
void LogV(const char* className, unsigned char level, const char* format, va_list args) noexcept;

// The in-process observer lives in the base layer so that the libraries below the logger
// can feed it too; these names keep the logger's callers in one namespace.
using ::TarnBase::NotifyObserver;
using ::TarnBase::Observer;
using ::TarnBase::SetObserver;

} // namespace TarnLog

#pragma once
// The one log call used by every library. It never throws and never changes the caller's
// last-error code: callers log in the middle of error paths and read the error afterwards.

#include <cstdarg>
#include <string>

namespace TarnLog {

// Levels: 0 error, 1 warning, 2 and above debug (smaller is more severe).
void Log(const char* className, unsigned char level, const char* format, ...) noexcept;
void LogV(const char* className, unsigned char level, const char* format, va_list args) noexcept;

// In-process observer of every record handed to the logger, before any level filter.
// Tests use it to read what a call logged; at most one observer is installed at a time.
using Observer = void (*)(void* context, const char* className, unsigned char level, const char* message);
void SetObserver(Observer observer, void* context) noexcept;
void NotifyObserver(const char* className, unsigned char level, const char* message) noexcept;

} // namespace TarnLog

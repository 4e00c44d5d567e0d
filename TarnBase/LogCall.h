#pragma once
// The base layer's log call. The libraries below the logger (TarnBase, TarnMT) must not
// link it, so they report through this small interface and the logger installs itself as
// the sink when it is linked in. Without a sink, records reach the in-process observer only.

#include <cstdarg>

namespace TarnBase {

// Levels: 0 error, 1 warning, 2 and above debug (smaller is more severe).
using LogSink = void (*)(const char* className, unsigned char level, const char* format, va_list args) noexcept;

// Installed once by the logger's log call; the last call wins.
void SetLogSink(LogSink sink) noexcept;

// Never throws and never changes the caller's last-error code (the sink keeps that promise).
void Log(const char* className, unsigned char level, const char* format, ...) noexcept;

// In-process observer of every record handed to the logger, before any level filter.
// Tests use it to read what a call logged; at most one observer is installed at a time.
using Observer = void (*)(void* context, const char* className, unsigned char level, const char* message);
void SetObserver(Observer observer, void* context) noexcept;
void NotifyObserver(const char* className, unsigned char level, const char* message) noexcept;

} // namespace TarnBase

#pragma once
// The threading library's own minimal log line. TarnMT cannot use the logger (the logger
// is built on TarnMT locks), so it writes straight to the debugger output.

#include "TarnBase/ResultLog.h"

#include <ctime>
#include <string>

namespace TarnMT {

const char* LevelTag(unsigned level);

std::string FormatDebugLine(unsigned level, const std::tm& local, unsigned long processId, unsigned long threadId,
                            const char* className, const char* message);

// Formats (cut at 2048 bytes) and sends one line to the debugger output.
void DebugLog(const char* className, unsigned level, const char* format, ...) noexcept;

} // namespace TarnMT

// Throw-site pattern inside TarnMT: the record goes to the debug line, not the logger.
#define TARN_MT_THROW(className, sourceName, ExceptionType)                                    \
    do {                                                                                       \
        ::TarnMT::DebugLog(className, 0, "Throwing %s exception type. File: %s Line: %d.",     \
                           #ExceptionType, sourceName, static_cast<int>(__LINE__));            \
        throw ExceptionType();                                                                 \
    } while (0)

// Failed-call pattern inside TarnMT: message, then the code in the debug line's suffix.
#define TARN_MT_LOG_WIN32_ERROR(className, level, error, message, ...)                         \
    TARN_LOG_CODE(::TarnMT::DebugLog, className, level, TARN_SUFFIX_LAST_ERROR_EQUALS, error, message, ##__VA_ARGS__)

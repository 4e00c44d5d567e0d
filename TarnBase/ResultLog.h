#pragma once
// One shape for every failed system or COM call in the log: the site's message (a format
// literal, its arguments after it), then the code in the house suffix:
//   TARN_LOG_HRESULT(TarnLog::Log, kClass, 2, hr, "Find: Failed to map URL to zone.");
//       -> "Find: Failed to map URL to zone. HRESULT = <0x80004005>"
// The code is taken before the arguments are evaluated, so they cannot change it. The log
// call is a parameter (TarnLog::Log above the logger, TarnMT::DebugLog below it); macros,
// so that the suffix joins the literal and the text is formatted once, as written.

#define TARN_SUFFIX_LAST_ERROR " GetLastError: %u."
// The threading library's debug lines have always spelled it this way.
#define TARN_SUFFIX_LAST_ERROR_EQUALS " GetLastError = %u."
#define TARN_SUFFIX_HRESULT " HRESULT = <0x%08.8X>"

#define TARN_LOG_CODE(logCall, className, level, suffix, code, message, ...)                   \
    do {                                                                                       \
        const unsigned tarnFailureCode = static_cast<unsigned>(code);                          \
        logCall(className, level, message suffix, ##__VA_ARGS__, tarnFailureCode);             \
    } while (0)

// Windows code only: reads the calling thread's last error.
#define TARN_LOG_LAST_ERROR(logCall, className, level, message, ...)                           \
    TARN_LOG_CODE(logCall, className, level, TARN_SUFFIX_LAST_ERROR, ::GetLastError(), message, ##__VA_ARGS__)

// A last error saved earlier, because calls since then may have changed the thread's.
#define TARN_LOG_WIN32_ERROR(logCall, className, level, error, message, ...)                   \
    TARN_LOG_CODE(logCall, className, level, TARN_SUFFIX_LAST_ERROR, error, message, ##__VA_ARGS__)

#define TARN_LOG_HRESULT(logCall, className, level, hr, message, ...)                          \
    TARN_LOG_CODE(logCall, className, level, TARN_SUFFIX_HRESULT, hr, message, ##__VA_ARGS__)

// A catch-all handler's record: the source that caught something it cannot name, and where.
#define TARN_LOG_UNKNOWN_EXCEPTION(logCall, className, sourceName, line)                       \
    logCall(className, 0, "Unhandled unknown exception detected. File: %s Line: %d.", sourceName, static_cast<int>(line))

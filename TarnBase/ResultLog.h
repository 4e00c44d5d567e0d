#pragma once
// One shape for every failed system or COM call in the log: the site's own message, then
// the failure code in the house suffix, e.g.
//   TARN_LOG_LAST_ERROR(TarnLog::Log, kClass, 1, "Open: Failure calling CreateFile.");
//       -> "Open: Failure calling CreateFile. GetLastError: 5."
//   TARN_LOG_HRESULT(TarnLog::Log, kClass, 2, hr, "Find: Failed to map URL to zone.");
//       -> "Find: Failed to map URL to zone. HRESULT = <0x80004005>"
// The message is a format literal; its arguments follow it. The code is taken before any of
// them is evaluated, so nothing done for the message can change the error that is reported.
// The log call is a parameter because the layers log differently: TarnLog::Log above the
// logger, TarnMT::DebugLog below it. Macros rather than functions: the suffix joins the
// literal at compile time, so the text goes through the log call's one formatting pass
// exactly as a hand-written format would.

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

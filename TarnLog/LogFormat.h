#pragma once
// Safe printf-style formatting for the log call.

#include <cstdarg>
#include <string>

namespace TarnLog {

extern const char kInvalidSequenceClass[];    // "TarnLogLib"
extern const char kInvalidSequenceMessage[];

// True when every conversion in the format is one the logger accepts. "%n" is refused:
// a log format must never write through an argument.
bool IsValidFormat(const char* format) noexcept;

// Formats into a growable string. On an invalid format or a formatting failure the result
// is empty and `invalid` is set; the log call then records the raw format instead.
std::string FormatMessageText(const char* format, va_list args, bool& invalid) noexcept;

} // namespace TarnLog

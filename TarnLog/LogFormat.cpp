#include "TarnLog/LogFormat.h"

#include <cstdio>
#include <cstring>

namespace TarnLog {

const char kInvalidSequenceClass[] = "TarnLogLib";
const char kInvalidSequenceMessage[] =
    "Invalid parameter handler invoked:  The original log text contained an invalid sequence.";

namespace {

bool IsFlag(char c) { return c == '-' || c == '+' || c == ' ' || c == '#' || c == '0' || c == '\''; }
bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Skips a length modifier, including the Microsoft forms I, I32, I64 and w.
const char* SkipLength(const char* p)
{
    if (p[0] == 'h' && p[1] == 'h') return p + 2;
    if (p[0] == 'l' && p[1] == 'l') return p + 2;
    if (p[0] == 'I' && p[1] == '3' && p[2] == '2') return p + 3;
    if (p[0] == 'I' && p[1] == '6' && p[2] == '4') return p + 3;
    if (std::strchr("hlLqjztIw", *p) != nullptr && *p != '\0') return p + 1;
    return p;
}

} // namespace

bool IsValidFormat(const char* format) noexcept
{
    if (format == nullptr)
        return false;
    for (const char* p = format; *p != '\0'; ++p) {
        if (*p != '%')
            continue;
        ++p;
        if (*p == '%')
            continue;
        while (IsFlag(*p)) ++p;
        if (*p == '*') ++p; else while (IsDigit(*p)) ++p;
        if (*p == '.') {
            ++p;
            if (*p == '*') ++p; else while (IsDigit(*p)) ++p;
        }
        p = SkipLength(p);
        if (*p == '\0' || std::strchr("diouxXeEfFgGaAcCsSp", *p) == nullptr)
            return false;
    }
    return true;
}

std::string FormatMessageText(const char* format, va_list args, bool& invalid) noexcept
{
    invalid = false;
    try {
        if (!IsValidFormat(format)) {
            invalid = true;
            return std::string();
        }
        char small[512];
        va_list copy;
        va_copy(copy, args);
        const int needed = std::vsnprintf(small, sizeof small, format, copy);
        va_end(copy);
        if (needed < 0) {
            invalid = true;  // e.g. a wide argument with no form in the code page
            return std::string();
        }
        if (static_cast<size_t>(needed) < sizeof small)
            return std::string(small, static_cast<size_t>(needed));
        std::string text(static_cast<size_t>(needed) + 1, '\0');
        va_copy(copy, args);
        const int written = std::vsnprintf(&text[0], text.size(), format, copy);
        va_end(copy);
        if (written < 0) {
            invalid = true;
            return std::string();
        }
        text.resize(static_cast<size_t>(written));
        return text;
    } catch (...) {
        return std::string();
    }
}

} // namespace TarnLog

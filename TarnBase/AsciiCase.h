#pragma once
// Case folding by ASCII rules only: names and prefixes must compare the same in every code
// page and C locale the host may have set (std::tolower follows the locale).

#include <string>

namespace TarnBase {

constexpr char ToLowerAscii(char c)
{
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

inline std::string ToLowerAscii(std::string text)
{
    for (char& c : text)
        c = ToLowerAscii(c);
    return text;
}

} // namespace TarnBase

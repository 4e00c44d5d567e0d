#include "Output.h"

#include "tools/common/Console.h"

#include <cstdio>

namespace TarnGrant {

void Out(const std::wstring& text)
{
    TarnTools::WriteStdout(text);
}

int Refuse(const std::wstring& text, int code)
{
    TarnTools::WriteStderr(L"tarngrant: " + text);
    return code;
}

// Text taken from the table (or computed from untrusted bytes) shown safely on one line.
std::wstring Printable(const std::wstring& text)
{
    std::wstring shown;
    for (wchar_t c : text) {
        if (c >= 0x20 && c != 0x7F && !(c >= 0xD800 && c <= 0xDFFF)) {
            shown += c;
        } else {
            wchar_t escape[8];
            std::swprintf(escape, 8, L"\\u%04x", static_cast<unsigned>(c));
            shown += escape;
        }
    }
    return shown;
}

std::wstring Hex(const std::wstring& units)
{
    static const wchar_t digits[] = L"0123456789abcdef";
    std::wstring hex;
    for (wchar_t unit : units) {
        const unsigned value = static_cast<unsigned>(unit);
        for (unsigned byte : {value & 0xFFu, (value >> 8) & 0xFFu}) {
            hex += digits[byte >> 4];
            hex += digits[byte & 0xF];
        }
    }
    return hex;
}

} // namespace TarnGrant

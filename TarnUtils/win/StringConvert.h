#pragma once
// Conversions between automation/wide strings and the ANSI code page. A conversion the
// system refuses throws StringConversionException: a silently empty string could turn
// into a wrong answer further on.

#include <windows.h>
#include <oleauto.h>

#include <string>

namespace TarnUtils {

std::string WideToAnsi(const wchar_t* text, size_t length);
std::string WideToAnsi(const std::wstring& text);
std::string BstrToAnsi(BSTR text);  // null gives ""
std::wstring AnsiToWide(const std::string& text);

} // namespace TarnUtils

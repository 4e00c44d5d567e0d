#pragma once
// Conversions between automation/wide strings and the ANSI code page. There is one rule for
// every narrow form the control decides with: a character the code page cannot hold exactly
// is never replaced by "?" or a best-fit look-alike, since that could turn one URL, signer
// or executable name into another. The throwing forms raise StringConversionException.

#include <windows.h>
#include <oleauto.h>

#include <string>

namespace TarnUtils {

// The exact form of `text` in `codePage` (CP_ACP: the system's ANSI code page); false, with
// `narrow` empty, when some character has no exact counterpart there. On a UTF-8 code page
// every well-formed character converts; a lone surrogate does not.
bool TryWideToCodePage(UINT codePage, const wchar_t* text, size_t length, std::string& narrow);
bool TryWideToAnsi(const wchar_t* text, size_t length, std::string& narrow);

std::string WideToAnsi(const wchar_t* text, size_t length);
std::string WideToAnsi(const std::wstring& text);
std::string BstrToAnsi(BSTR text);  // null gives ""
std::wstring AnsiToWide(const std::string& text);

// Text for a log record only: never throws; characters without a counterpart become '?'.
std::string WideToAnsiForLog(const wchar_t* text, size_t length);

} // namespace TarnUtils

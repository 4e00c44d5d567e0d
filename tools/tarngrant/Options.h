#pragma once
// tarngrant's command line: the usage text and the numbers its commands take.

#include <windows.h>

#include <optional>
#include <string>

namespace TarnGrant {

extern const wchar_t kUsage[];

// Decimal process identifier: digits only, within 32 bits.
std::optional<DWORD> ParsePid(const std::wstring& text);
// A --hold time: 0 to 86,400 seconds.
std::optional<DWORD> ParseSeconds(const std::wstring& text);

} // namespace TarnGrant

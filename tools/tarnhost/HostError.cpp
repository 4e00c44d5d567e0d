#include "HostError.h"

#include <cwchar>

namespace TarnHost {

HostError UsageError(const std::wstring& reason)
{
    return {ExitUsage, reason};
}

HostError ComError(const std::wstring& step, HRESULT hr)
{
    return {ExitComFailure, step + L" failed: " + HexResult(hr)};
}

std::wstring HexResult(HRESULT hr)
{
    wchar_t text[16];
    std::swprintf(text, 16, L"0x%08lX", static_cast<unsigned long>(hr));
    return text;
}

} // namespace TarnHost

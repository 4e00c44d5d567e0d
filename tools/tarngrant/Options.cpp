#include "Options.h"

namespace TarnGrant {

extern const wchar_t kUsage[] =
    L"usage: tarngrant.exe <command> [arguments]\r\n"
    L"  grant [--hold <seconds>] <pid> [path]\r\n"
    L"        grant process <pid> one-time container trust. The path defaults to the process's\r\n"
    L"        executable as the process itself sees it. When no other process keeps the table\r\n"
    L"        open, tarngrant keeps it open until the grant is used or revoked, the process\r\n"
    L"        ends (the grant is then revoked), or <seconds> pass (default 600; 0: do not wait).\r\n"
    L"  revoke <pid>      remove the grant of process <pid>\r\n"
    L"  list              the table's entries: entry number, process id, decrypted path\r\n"
    L"  encrypt <path>    the stored (encrypted) form of <path>, as hex bytes\r\n"
    L"exit codes: 0 done, 1 refused, 2 usage, 3 grant ended unused";

std::optional<DWORD> ParsePid(const std::wstring& text)
{
    if (text.empty() || text.size() > 10)
        return std::nullopt;
    unsigned long long value = 0;
    for (wchar_t c : text) {
        if (c < L'0' || c > L'9')
            return std::nullopt;
        value = value * 10 + static_cast<unsigned>(c - L'0');
    }
    if (value > 0xFFFFFFFFull)
        return std::nullopt;
    return static_cast<DWORD>(value);
}

std::optional<DWORD> ParseSeconds(const std::wstring& text)
{
    const auto value = ParsePid(text);
    if (!value || *value > 24u * 3600u)
        return std::nullopt;
    return value;
}

} // namespace TarnGrant

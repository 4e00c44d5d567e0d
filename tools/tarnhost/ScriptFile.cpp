#include "ScriptFile.h"

#include "HostError.h"
#include "TarnBase/win/Handle.h"

#include <windows.h>

namespace TarnHost {
namespace {

std::wstring SystemMessage(DWORD error)
{
    wchar_t* text = nullptr;
    const DWORD size = ::FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM |
                                            FORMAT_MESSAGE_IGNORE_INSERTS,
                                        nullptr, error, 0, reinterpret_cast<wchar_t*>(&text), 0, nullptr);
    TarnBase::UniqueLocal owner(text);
    std::wstring message = size ? std::wstring(text, size) : L"error " + std::to_wstring(error);
    while (!message.empty() && (message.back() == L'\n' || message.back() == L'\r' || message.back() == L' ' ||
                                message.back() == L'.'))
        message.pop_back();
    return message;
}

std::wstring Decode(UINT codePage, DWORD flags, const char* data, size_t size, bool* ok)
{
    *ok = true;
    if (size == 0)
        return {};
    const int chars = ::MultiByteToWideChar(codePage, flags, data, static_cast<int>(size), nullptr, 0);
    if (chars <= 0) {
        *ok = false;
        return {};
    }
    std::wstring text(static_cast<size_t>(chars), L'\0');
    ::MultiByteToWideChar(codePage, flags, data, static_cast<int>(size), text.data(), chars);
    return text;
}

} // namespace

std::wstring DecodeScriptBytes(const std::string& bytes)
{
    bool ok = false;
    if (bytes.size() >= 2 && static_cast<unsigned char>(bytes[0]) == 0xFF &&
        static_cast<unsigned char>(bytes[1]) == 0xFE)
        return std::wstring(reinterpret_cast<const wchar_t*>(bytes.data() + 2), (bytes.size() - 2) / 2);
    if (bytes.size() >= 3 && bytes.compare(0, 3, "\xEF\xBB\xBF") == 0)
        return Decode(CP_UTF8, 0, bytes.data() + 3, bytes.size() - 3, &ok);
    std::wstring text = Decode(CP_UTF8, MB_ERR_INVALID_CHARS, bytes.data(), bytes.size(), &ok);
    if (ok)
        return text;
    return Decode(CP_ACP, 0, bytes.data(), bytes.size(), &ok);
}

std::wstring ReadScriptFile(const std::wstring& path)
{
    TarnBase::UniqueFile file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                            FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file)
        throw UsageError(L"cannot open script file '" + path + L"': " + SystemMessage(::GetLastError()));
    LARGE_INTEGER size{};
    if (!::GetFileSizeEx(file.Get(), &size))
        throw UsageError(L"cannot read script file '" + path + L"': " + SystemMessage(::GetLastError()));
    if (size.QuadPart > 64 * 1024 * 1024)
        throw UsageError(L"script file '" + path + L"' is too large");
    std::string bytes(static_cast<size_t>(size.QuadPart), '\0');
    DWORD read = 0;
    if (!bytes.empty() && (!::ReadFile(file.Get(), bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr) ||
                           read != bytes.size()))
        throw UsageError(L"cannot read script file '" + path + L"': " + SystemMessage(::GetLastError()));
    return DecodeScriptBytes(bytes);
}

} // namespace TarnHost

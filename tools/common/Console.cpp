#include "tools/common/Console.h"

#include <windows.h>

namespace TarnTools {
namespace {

void WriteLine(DWORD which, const std::wstring& text)
{
    HANDLE out = ::GetStdHandle(which);
    if (out == nullptr || out == INVALID_HANDLE_VALUE)
        return;
    const std::wstring line = text + L"\r\n";
    DWORD mode = 0;
    DWORD written = 0;
    if (::GetConsoleMode(out, &mode)) {
        ::WriteConsoleW(out, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
        return;
    }
    const std::string bytes = ToUtf8(line);
    ::WriteFile(out, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr);
}

} // namespace

void WriteStdout(const std::wstring& text)
{
    WriteLine(STD_OUTPUT_HANDLE, text);
}

void WriteStderr(const std::wstring& text)
{
    WriteLine(STD_ERROR_HANDLE, text);
}

std::string ToUtf8(const std::wstring& text)
{
    if (text.empty())
        return {};
    const int size = ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0,
                                           nullptr, nullptr);
    std::string bytes(static_cast<size_t>(size), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), bytes.data(), size, nullptr,
                          nullptr);
    return bytes;
}

std::wstring FromUtf8(const std::string& text)
{
    if (text.empty())
        return {};
    const int size = ::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
    std::wstring wide(static_cast<size_t>(size), L'\0');
    ::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(), size);
    return wide;
}

} // namespace TarnTools

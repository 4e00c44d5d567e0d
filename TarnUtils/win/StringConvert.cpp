#include "TarnUtils/win/StringConvert.h"

#include "TarnBase/Throw.h"

#include <climits>

namespace TarnUtils {
namespace {
const char kClass[] = "TarnUtils::StringConvert";
const char kSource[] = "StringConvert";
} // namespace

bool TryWideToCodePage(UINT codePage, const wchar_t* text, size_t length, std::string& narrow)
{
    narrow.clear();
    if (text == nullptr || length == 0)
        return true;
    if (length > INT_MAX)
        return false;
    if (codePage == CP_ACP)
        codePage = ::GetACP();
    const int wideLength = static_cast<int>(length);
    // UTF-8 and UTF-7 hold every character and refuse the "default used" report; UTF-8 is
    // told to fail on a lone surrogate instead of writing U+FFFD for it.
    const bool unicode = codePage == CP_UTF8 || codePage == CP_UTF7;
    const DWORD flags = codePage == CP_UTF8 ? WC_ERR_INVALID_CHARS : unicode ? 0 : WC_NO_BEST_FIT_CHARS;
    BOOL usedDefault = FALSE;
    BOOL* usedDefaultOut = unicode ? nullptr : &usedDefault;
    const int needed = ::WideCharToMultiByte(codePage, flags, text, wideLength, nullptr, 0, nullptr, usedDefaultOut);
    if (needed <= 0 || usedDefault)
        return false;
    std::string result(static_cast<size_t>(needed), '\0');
    if (::WideCharToMultiByte(codePage, flags, text, wideLength, &result[0], needed, nullptr, usedDefaultOut) !=
            needed ||
        usedDefault)
        return false;
    narrow.swap(result);
    return true;
}

bool TryWideToAnsi(const wchar_t* text, size_t length, std::string& narrow)
{
    return TryWideToCodePage(CP_ACP, text, length, narrow);
}

std::string WideToAnsi(const wchar_t* text, size_t length)
{
    std::string narrow;
    if (!TryWideToAnsi(text, length, narrow))
        TARN_THROW(kClass, kSource, TarnBase::StringConversionException);
    return narrow;
}

std::string WideToAnsi(const std::wstring& text)
{
    return WideToAnsi(text.c_str(), text.size());
}

std::string BstrToAnsi(BSTR text)
{
    return text == nullptr ? std::string() : WideToAnsi(text, ::SysStringLen(text));
}

std::wstring AnsiToWide(const std::string& text)
{
    if (text.empty())
        return std::wstring();
    if (text.size() > INT_MAX)
        TARN_THROW(kClass, kSource, TarnBase::StringConversionException);
    const int length = static_cast<int>(text.size());
    const int needed = ::MultiByteToWideChar(CP_ACP, 0, text.data(), length, nullptr, 0);
    if (needed <= 0)
        TARN_THROW(kClass, kSource, TarnBase::StringConversionException);
    std::wstring result(static_cast<size_t>(needed), L'\0');
    if (::MultiByteToWideChar(CP_ACP, 0, text.data(), length, &result[0], needed) != needed)
        TARN_THROW(kClass, kSource, TarnBase::StringConversionException);
    return result;
}

std::string WideToAnsiForLog(const wchar_t* text, size_t length)
{
    if (text == nullptr || length == 0 || length > INT_MAX)
        return std::string();
    const int wideLength = static_cast<int>(length);
    // No best fit here either: a log that shows a look-alike as the plain name misleads.
    const UINT codePage = ::GetACP();
    const DWORD flags = codePage == CP_UTF8 || codePage == CP_UTF7 ? 0 : WC_NO_BEST_FIT_CHARS;
    const int needed = ::WideCharToMultiByte(CP_ACP, flags, text, wideLength, nullptr, 0, nullptr, nullptr);
    if (needed <= 0)
        return std::string();
    std::string narrow(static_cast<size_t>(needed), '\0');
    ::WideCharToMultiByte(CP_ACP, flags, text, wideLength, &narrow[0], needed, nullptr, nullptr);
    return narrow;
}

} // namespace TarnUtils

#include "TarnUtils/win/StringConvert.h"

#include "TarnBase/Throw.h"

#include <climits>

namespace TarnUtils {
namespace {
const char kClass[] = "TarnUtils::StringConvert";
const char kSource[] = "StringConvert";
} // namespace

std::string WideToAnsi(const wchar_t* text, size_t length)
{
    if (text == nullptr || length == 0)
        return std::string();
    if (length > INT_MAX)
        TARN_THROW(kClass, kSource, TarnBase::StringConversionException);
    const int wideLength = static_cast<int>(length);
    // A character the code page cannot hold would otherwise become "?" or a look-alike,
    // quietly turning one URL or path into another; refuse the conversion instead.
    const bool utf8 = ::GetACP() == CP_UTF8;
    const DWORD flags = utf8 ? 0 : WC_NO_BEST_FIT_CHARS;
    BOOL usedDefault = FALSE;
    BOOL* usedDefaultOut = utf8 ? nullptr : &usedDefault;
    const int needed = ::WideCharToMultiByte(CP_ACP, flags, text, wideLength, nullptr, 0, nullptr, usedDefaultOut);
    if (needed <= 0 || usedDefault)
        TARN_THROW(kClass, kSource, TarnBase::StringConversionException);
    std::string result(static_cast<size_t>(needed), '\0');
    if (::WideCharToMultiByte(CP_ACP, flags, text, wideLength, &result[0], needed, nullptr, usedDefaultOut) != needed ||
        usedDefault)
        TARN_THROW(kClass, kSource, TarnBase::StringConversionException);
    return result;
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

} // namespace TarnUtils

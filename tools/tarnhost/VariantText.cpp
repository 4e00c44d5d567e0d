#include "VariantText.h"

#include "TarnBase/win/Owners.h"

#include <charconv>
#include <cmath>
#include <cstdlib>

namespace TarnHost {

std::wstring NumberToText(double value)
{
    if (std::isnan(value))
        return L"NaN";
    if (std::isinf(value))
        return value < 0 ? L"-Infinity" : L"Infinity";
    if (value == 0)
        return L"0"; // also -0, as JavaScript prints it

    std::wstring sign = value < 0 ? L"-" : L"";
    // Shortest round-trip digits in the form d[.ddd]e[+-]x.
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, std::fabs(value), std::chars_format::scientific);
    const std::string scientific(buffer, result.ptr);
    const size_t e = scientific.find('e');
    std::string digits;
    for (size_t i = 0; i < e; ++i)
        if (scientific[i] != '.')
            digits += scientific[i];
    const int exponent = std::atoi(scientific.c_str() + e + 1);
    const int k = static_cast<int>(digits.size());
    const int n = exponent + 1; // position of the decimal point relative to the digits

    std::string text;
    if (k <= n && n <= 21) {
        text = digits + std::string(static_cast<size_t>(n - k), '0');
    } else if (0 < n && n <= 21) {
        text = digits.substr(0, static_cast<size_t>(n)) + "." + digits.substr(static_cast<size_t>(n));
    } else if (-6 < n && n <= 0) {
        text = "0." + std::string(static_cast<size_t>(-n), '0') + digits;
    } else {
        text = digits.substr(0, 1);
        if (k > 1)
            text += "." + digits.substr(1);
        text += (n - 1 >= 0 ? "e+" : "e-") + std::to_string(std::abs(n - 1));
    }
    return sign + std::wstring(text.begin(), text.end());
}

HRESULT VariantToText(const VARIANT& value, const wchar_t* emptyText, std::wstring* text)
{
    // VBScript hands variables over by reference; look through to the value.
    TarnBase::UniqueVariant plain;
    HRESULT hr = ::VariantCopyInd(plain.Get(), const_cast<VARIANT*>(&value));
    if (FAILED(hr))
        return hr;

    hr = S_OK;
    switch (V_VT(plain.Get())) {
    case VT_EMPTY:
        *text = emptyText;
        break;
    case VT_NULL:
        *text = L"null";
        break;
    case VT_BOOL:
        *text = V_BOOL(plain.Get()) ? L"true" : L"false";
        break;
    case VT_BSTR:
        *text = V_BSTR(plain.Get()) ? std::wstring(V_BSTR(plain.Get()), ::SysStringLen(V_BSTR(plain.Get()))) : std::wstring();
        break;
    case VT_R8:
        *text = NumberToText(V_R8(plain.Get()));
        break;
    case VT_R4:
        *text = NumberToText(V_R4(plain.Get()));
        break;
    case VT_DISPATCH:
    case VT_UNKNOWN:
        if (!V_UNKNOWN(plain.Get())) {
            *text = L"null";
            break;
        }
        [[fallthrough]];
    default: {
        // Integers, dates, currency, and objects through their default property.
        TarnBase::UniqueVariant converted;
        hr = ::VariantChangeTypeEx(converted.Get(), plain.Get(), kInvariantLcid, VARIANT_ALPHABOOL, VT_BSTR);
        if (SUCCEEDED(hr)) {
            const BSTR convertedText = V_BSTR(converted.Get());
            *text = convertedText ? std::wstring(convertedText, ::SysStringLen(convertedText)) : std::wstring();
        } else if (V_VT(plain.Get()) == VT_DISPATCH || V_VT(plain.Get()) == VT_UNKNOWN) {
            *text = L"[object]";
            hr = S_OK;
        }
        break;
    }
    }
    return hr;
}

} // namespace TarnHost

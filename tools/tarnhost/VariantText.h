#pragma once
// How script values read as text: for host.Echo and for values written into a property bag.

#include <windows.h>
#include <oaidl.h>

#include <string>

namespace TarnHost {

// Conversions that must not follow the user's locale (decimal point, boolean names).
constexpr LCID kInvariantLcid = MAKELCID(MAKELANGID(LANG_ENGLISH, SUBLANG_ENGLISH_US), SORT_DEFAULT);

// Booleans read "true"/"false", null "null", numbers as JavaScript prints them, objects
// through their default value. `emptyText` is what an empty variant (JScript's undefined)
// reads as.
HRESULT VariantToText(const VARIANT& value, const wchar_t* emptyText, std::wstring* text);

// JavaScript's Number-to-String: 0.1 -> "0.1", 1e21 -> "1e+21", 1e-7 -> "1e-7", 5 -> "5".
std::wstring NumberToText(double value);

} // namespace TarnHost

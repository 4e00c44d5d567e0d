#pragma once

#include <string>

namespace TarnSMX {

// The VendorID property is one value for the whole process: the last control to set it
// decides for every control (pages rely on setting it once).
struct VendorId {
    std::string name;   // narrow: registry paths and log records
    bool exact = true;  // false: the page's text has no exact ANSI form and names no key
};

VendorId GetVendor();
std::string GetVendorId();
std::wstring GetVendorIdText();  // as the page gave it, for reading the property back
void SetVendorId(const std::string& vendorId);
// From a page: text without an exact ANSI form is kept as a vendor that names no key.
void SetVendorIdText(const std::wstring& text);

// A name that can stand as one key below the vendor root: not empty, and no zero or
// backslash that would cut the path short or lead it into another key.
bool IsVendorKeyName(const std::string& vendorId);

// True when the vendor identifier is a key name and its configuration key
// HKLM "Software\Ostrum\Kestrel\Config\<id>" opens for reading.
bool IsValidVendorID();
bool IsValidVendorID(const std::string& vendorId);
bool IsValidVendorID(const VendorId& vendor);

} // namespace TarnSMX

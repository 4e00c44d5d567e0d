#pragma once

#include <string>

namespace TarnSMX {

// The VendorID property is one value for the whole process: the last control to set it
// decides for every control (pages rely on setting it once).
std::string GetVendorId();
void SetVendorId(const std::string& vendorId);

// True when the vendor identifier is set and its configuration key
// HKLM "Software\Ostrum\Kestrel\Config\<id>" opens for reading.
bool IsValidVendorID();
bool IsValidVendorID(const std::string& vendorId);

} // namespace TarnSMX

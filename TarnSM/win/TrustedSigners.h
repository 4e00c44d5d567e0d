#pragma once
// Who may sign a trust data file: the build's default list (string 101 of this module),
// a vendor's list from the registry, or a data file's own list (its string 103).

#include <windows.h>

#include <string>
#include <vector>

namespace TarnSMX {

using NameList = std::vector<std::string>;

// Reads one string resource of `module` as ANSI text; false when missing or empty.
bool LoadResourceString(HMODULE module, UINT id, std::string& text);

bool LoadTrustedSigners(HMODULE module, UINT id, const char* separators, NameList& signers);
bool LoadDefaultTrustedSigners();
NameList DefaultTrustedSigners();  // a copy, under the cache lock
bool LoadVendorTrustedSigners(const std::string& vendorId, NameList& signers);

} // namespace TarnSMX

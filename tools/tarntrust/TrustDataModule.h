#pragma once
// Trust data modules: the resource-only DLLs whose string table carries a publisher's site
// lists. The builder lets tools and tests make one without a resource compiler or linker.
// (Readers load the module with the platform loader, as the control does.)

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace TarnTrust {

// Longest string the builder accepts, in UTF-16 units. The length prefix of a string table
// entry is 16 bits; staying within its signed range keeps tools that read it as signed safe.
constexpr size_t kMaxTrustDataStringUnits = 32767;

// An x64 resource-only DLL image (no code, no imports, entry point 0) whose RT_STRING table
// holds the given ids. Text is taken as Latin-1 bytes, one UTF-16 unit per byte. The image is
// a whole number of file-alignment units long, so a signing tool can append its certificate
// table directly. Throws TarnBase::InvalidParameterException for a string longer than
// kMaxTrustDataStringUnits.
std::vector<uint8_t> BuildTrustDataModule(const std::map<uint16_t, std::string>& strings);

} // namespace TarnTrust

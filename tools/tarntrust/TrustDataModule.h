#pragma once
// Trust data modules: the resource-only DLLs whose string table carries a publisher's site
// lists. The builder lets tools and tests make one without a resource compiler or linker;
// the reader inspects one without loading it, so it treats every byte as hostile.

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace TarnSMX {

// Longest string either side accepts, in UTF-16 units. The length prefix of a string table
// entry is 16 bits; staying within its signed range keeps tools that read it as signed safe.
constexpr size_t kMaxTrustDataStringUnits = 32767;

// An x64 resource-only DLL image (no code, no imports, entry point 0) whose RT_STRING table
// holds the given ids. Text is taken as Latin-1 bytes, one UTF-16 unit per byte. The image is
// a whole number of file-alignment units long, so a signing tool can append its certificate
// table directly. Throws TarnBase::InvalidParameterException for a string longer than
// kMaxTrustDataStringUnits.
std::vector<uint8_t> BuildTrustDataModule(const std::map<uint16_t, std::string>& strings);

// Reads every non-empty string of a PE32 or PE32+ image's RT_STRING table. Units above 0xFF
// become '?'. When a block holds several languages, neutral wins, then US English, then the
// first one listed. On failure returns false with a reason in `error` and `strings` empty.
bool ReadTrustDataStrings(const uint8_t* data, size_t size, std::map<uint16_t, std::string>& strings,
                          std::string& error);

} // namespace TarnSMX

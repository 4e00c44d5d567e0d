#pragma once
// Reads a verified trust data file: its site list for the page's scheme and its own
// signer list, from the string table of the module loaded as data.

#include <cstdint>
#include <string>
#include <vector>

namespace TarnSMX {

using NameList = std::vector<std::string>;

bool ReadTrustDataFile(uint32_t schemeCode, const std::string& filePath, const std::string& downloadUrl,
                       NameList& signers, NameList& trusted, NameList& denied);
bool ReadTrustDataDLL(uint32_t schemeCode, const std::string& filePath, NameList& signers, NameList& trusted,
                      NameList& denied);

} // namespace TarnSMX

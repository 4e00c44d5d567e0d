#pragma once
// The publisher's plain-text site file: sections of the same "+"/"-" lines the control
// reads, turned into the strings of a trust data module.
//
//   [https]          site list for https pages
//   [http]           site list for http pages (file pages use it too)
//   [signers]        certificate common names, one per line, that may sign for the site

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace TarnTrust {

struct Warning {
    int line;  // 1-based line of the site file, 0 for the file as a whole
    std::string text;
};

struct SiteFile {
    std::map<uint16_t, std::string> strings;  // 101 https, 102 http, 103 signers
    std::vector<Warning> warnings;
    std::vector<Warning> errors;  // the module is not built when there are any
};

SiteFile ParseSiteFile(const std::string& text);

} // namespace TarnTrust

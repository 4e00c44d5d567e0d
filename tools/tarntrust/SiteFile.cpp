#include "SiteFile.h"

#include "TarnSM/SiteList.h"
#include "tools/tarntrust/SiteListLint.h"
#include "tools/tarntrust/TrustDataModule.h"

#include <sstream>

namespace TarnTrust {
namespace {

// The longest string a trust data module can carry (a string table entry's length field
// allows more, but the module writer keeps to the loader's safe limit).
constexpr size_t kMaxStringLength = TarnTrust::kMaxTrustDataStringUnits;

std::string Trim(const std::string& s)
{
    const size_t begin = s.find_first_not_of(" \t");
    if (begin == std::string::npos)
        return std::string();
    return s.substr(begin, s.find_last_not_of(" \t") - begin + 1);
}

} // namespace

SiteFile ParseSiteFile(const std::string& text)
{
    SiteFile result;
    std::map<std::string, uint16_t> sections = {{"https", 101}, {"http", 102}, {"signers", 103}};
    std::map<uint16_t, std::vector<std::pair<int, std::string>>> lines;
    std::map<uint16_t, bool> seen;
    uint16_t current = 0;

    std::istringstream in(text);
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        const std::string trimmed = Trim(line);
        if (!trimmed.empty() && trimmed.front() == '[' && trimmed.back() == ']') {
            const std::string name = trimmed.substr(1, trimmed.size() - 2);
            const auto found = sections.find(name);
            if (found == sections.end()) {
                result.errors.push_back({number, "unknown section [" + name + "] (expected [https], [http] or [signers])"});
                current = 0;
            } else {
                current = found->second;
                seen[current] = true;
            }
            continue;
        }
        if (trimmed.empty() || trimmed.front() == '#')
            continue;  // comments stay in the source file, not in the published module
        if (current == 0) {
            result.errors.push_back({number, "line outside any section: " + line});
            continue;
        }
        if (current == 103 && line != trimmed)
            result.warnings.push_back({number, "signer name has leading or trailing blanks, which are part of the name: '" + line + "'"});
        lines[current].push_back({number, line});
    }

    for (uint16_t id : {uint16_t(101), uint16_t(102)}) {
        if (!seen[id])
            result.warnings.push_back({0, std::string("missing section [") + (id == 101 ? "https" : "http") +
                                              "]: pages of that scheme will never be trusted"});
        std::string joined;
        for (const auto& [lineNumber, entry] : lines[id]) {
            for (const TarnTrust::SiteListWarning& w : TarnTrust::LintSiteList(entry))
                result.warnings.push_back({lineNumber, w.text});
            joined += entry + "\r\n";
        }
        if (joined.size() > kMaxStringLength)
            result.errors.push_back({0, std::string("the [") + (id == 101 ? "https" : "http") + "] list is " +
                                            std::to_string(joined.size()) + " characters; the loader reads at most " +
                                            std::to_string(kMaxStringLength)});
        if (seen[id])
            result.strings[id] = joined;
    }
    std::string signers;
    for (const auto& [lineNumber, name] : lines[103])
        signers += name + "\n";
    if (signers.size() > kMaxStringLength)
        result.errors.push_back({0, "the [signers] list is over the loader's limit"});
    if (!signers.empty())
        result.strings[103] = signers;
    return result;
}

} // namespace TarnTrust

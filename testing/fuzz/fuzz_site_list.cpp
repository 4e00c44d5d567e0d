// A trust data file's site list is the publisher's text: parse it, lint it, and match
// domains against it. A domain that matches must really end with the entry.
#include "TarnSM/SiteList.h"
#include "tools/tarntrust/SiteListLint.h"

#include <algorithm>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // First line: the domain; the rest: the list.
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t split = std::min(input.find('\n'), input.size());
    const std::string domain = input.substr(0, split), list = input.substr(std::min(split + 1, input.size()));

    std::vector<std::string> trusted, denied;
    TarnSMX::ParseSiteInfo(list, trusted, denied);
    (void)TarnTrust::LintSiteList(list);
    for (const auto& entry : trusted) {
        if (!TarnSMX::MatchSite(entry, domain))
            continue;
        // Whatever the entry form, a match means the domain ends with its pattern.
        std::string pattern = entry;
        if (pattern.size() >= 3 && pattern.compare(0, 2, "*.") == 0)
            pattern.erase(0, 2);
        else if (pattern.size() >= 2 && pattern[0] == '=')
            pattern.erase(0, 1);
        if (pattern.size() > domain.size() || domain.compare(domain.size() - pattern.size(), pattern.size(), pattern) != 0)
            std::abort();
    }
    (void)TarnSMX::GetTrust(trusted, denied, domain);
    (void)TarnSMX::SchemeCode(domain);
    (void)TarnSMX::HasDllExtension(domain);
    return 0;
}

#pragma once
// The publisher's check of a site list text. The control never lints: it reads what the
// publisher signed; the tool warns before the file is signed.

#include <cstddef>
#include <string>
#include <vector>

namespace TarnTrust {

// Publisher-side check of a site list text: things the loader accepts silently but that
// are almost certainly mistakes.
struct SiteListWarning {
    size_t line;  // 1-based
    std::string text;
};
std::vector<SiteListWarning> LintSiteList(const std::string& raw);

} // namespace TarnTrust

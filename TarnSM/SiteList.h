#pragma once
// Site lists of a trust data file: reading the list text and deciding whether a page's
// domain is trusted. Portable; the Win32 layer loads the strings and hands them over.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace TarnSMX {

// Scheme codes of a page URL.
constexpr uint32_t kSchemeHttp = 0;
constexpr uint32_t kSchemeHttps = 1;
constexpr uint32_t kSchemeFile = 2;
constexpr uint32_t kSchemeOther = 3;

// Appends the "+" lines of `raw` to `trusted` and the "-" lines to `denied`, in text order,
// nothing trimmed. Lines end at any run of CR followed by any run of LF; other lines are
// comments. False only when memory ran out (the lists are then left as they were).
bool ParseSiteInfo(const std::string& raw, std::vector<std::string>& trusted, std::vector<std::string>& denied);

// One list entry against one domain, case-sensitive:
//   example.com    the domain itself and any subdomain of it
//   *.example.com  subdomains only
//   =example.com   the domain itself only
bool MatchSite(const std::string& entry, const std::string& domain);

// Denied entries are consulted first, so a denied entry always wins.
bool GetTrust(const std::vector<std::string>& trusted, const std::vector<std::string>& denied, const std::string& domain);

// kSchemeHttp, kSchemeHttps, kSchemeFile or kSchemeOther; letter case does not matter.
uint32_t SchemeCode(const std::string& scheme);

// Only modules are accepted as trust data files: the URL must end in "dll", any case.
bool HasDllExtension(const std::string& downloadUrl);

// String id of the site list for a scheme code (file pages share the http list); 0 when
// the scheme has no list.
int SiteListStringId(uint32_t schemeCode);

} // namespace TarnSMX

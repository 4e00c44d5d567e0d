#pragma once
// Process-wide tables shared by every control, under one lock: which data file each page
// uses, and the site lists already read from each verified data file. Never evicted.

#include "TarnMT/win/CriticalSection.h"

#include <cstdint>
#include <string>
#include <vector>

namespace TarnSMX {

class CTarnSM;
using NameList = std::vector<std::string>;

// The one lock of the tables; also serialises the data file name choice and the default
// signer list's first load.
TarnMT::CriticalSection& CacheLock();

// Publishes the control's TrustedSiteDataFileURL for its page. Without `overwrite`, a
// value another control already published for the page stays.
void CacheTrustDataFileURL(const CTarnSM& control, const std::string& pageUrl, bool overwrite);

// The data file URL a control on this page published, if any. Caller holds CacheLock().
bool LookupTrustDataFileURL(const std::string& pageUrl, std::wstring& dataFileUrl);

bool GetCachedSiteInfo(const std::string& downloadUrl, uint32_t schemeCode, NameList& trusted, NameList& denied,
                       NameList& signers);
void CacheSiteInfo(const std::string& downloadUrl, const NameList& signers, const NameList& trusted,
                   const NameList& denied, uint32_t schemeCode);

} // namespace TarnSMX

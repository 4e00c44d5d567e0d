// Is the page's domain trusted? Discover the page, fetch its signed trust data file,
// believe it only when a trusted signer signed it, then match the domain.
#include "TarnSM/win/CTarnSM.h"
#include "TarnSM/win/FailedDownloads.h"

#include "TarnBase/ResultLog.h"
#include "TarnSM/SiteList.h"
#include "TarnSM/win/ScriptBoundary.h"
#include "TarnSM/win/SiteCache.h"
#include "TarnUtils/win/TempFile.h"
#include "TarnSM/win/TrustDataDownload.h"
#include "TarnSM/win/TrustDataFile.h"
#include "TarnSM/win/TrustedSigners.h"
#include "TarnSM/win/VendorId.h"
#include "TarnUtils/win/Authenticode.h"
#include "TarnUtils/win/StringConvert.h"

namespace TarnSMX {

namespace {

#define FAIL(level, message)                                  \
    do {                                                      \
        TarnLog::Log(kControlClass, level, "%s", message);    \
        return false;                                         \
    } while (0)

// Chooses the signers for this evaluation: a valid vendor's own list replaces the
// build's default; a vendor without signers, or an unknown vendor, gets the default.
bool ChooseSigners(NameList& signers)
{
    signers.clear();
    const VendorId vendor = GetVendor();
    const std::string& vendorId = vendor.name;
    if (!vendorId.empty()) {
        if (IsValidVendorID(vendor)) {
            if (!LoadVendorTrustedSigners(vendorId, signers)) {
                TarnLog::Log(kControlClass, 2, "IsCurrentSiteTrustedInternal: Failed to load trusted signer list for Vendor: %s.",
                             vendorId.c_str());
                return false;
            }
            if (!signers.empty())
                return true;
        } else {
            TarnLog::Log(kControlClass, 2,
                         "IsCurrentSiteTrustedInternal: Invalid VendorID parameter provided. Failling back to defaults. VendorID: %s.",
                         vendorId.c_str());
        }
    }
    if (LoadDefaultTrustedSigners())
        signers = DefaultTrustedSigners();
    // An empty default list would accept any validly signed file; it trusts no file instead.
    if (signers.empty())
        FAIL(1, "IsCurrentSiteTrustedInternal: Failed to determine list of Root Trusted Signers, which are required to verify that we can trust the data file, and therefore we cannot trust any site.");
    return true;
}

} // namespace

bool CTarnSM::IsCurrentSiteTrustedInternal()
{
    TarnLog::Log(kControlClass, 3, "IsCurrentSiteTrustedInternal: Begin.");
    if (!m_site)
        FAIL(1, "IsCurrentSiteTrustedInternal: Cannot determine if current site is trusted - IObjectWithSite::SetSite must be called first.");

    std::string pageUrl;
    DWORD zone = 0;
    if (!GetCurrentSiteURLAndZone(pageUrl, zone))
        FAIL(2, "IsCurrentSiteTrustedInternal: Failed to get current site URL (and zone). Trust cannot be determined.");

    const std::string downloadUrl = GetTrustedSiteDownloadURL(*this, pageUrl);
    if (downloadUrl.empty())
        FAIL(1, "IsCurrentSiteTrustedInternal: Cannot determine if current site is trusted - failed to determine full path to trusted site data file.");

    std::string domain;
    std::string scheme;
    if (!GetCurrentSiteDomainAndScheme(domain, scheme))
        FAIL(1, "IsCurrentSiteTrustedInternal: Failed to get current domain (site) and URL scheme which are required to determine site trust.");

    NameList siteSigners, trusted, denied;
    const uint32_t schemeCode = SchemeCode(scheme);
    const bool cached = GetCachedSiteInfo(downloadUrl, schemeCode, trusted, denied, siteSigners) && !trusted.empty();
    if (!cached) {
        trusted.clear();
        denied.clear();
        siteSigners.clear();

        PruneFailedDownloads(L"PTI");
        const std::wstring tempPath = TarnUtils::CreateUniqueTempFile(L"PTI");
        const std::string narrowTempPath = tempPath.empty() ? std::string() : TarnUtils::WideToAnsi(tempPath);
        if (narrowTempPath.empty())
            FAIL(1, "IsCurrentSiteTrustedInternal: Failed to build up temp file path to store trusted data file.");

        // On every failure below the downloaded copy stays where it is, for a support
        // engineer to look at; only a file that was read successfully is removed.
        if (!DownloadFile(downloadUrl, narrowTempPath))
            FAIL(1, "IsCurrentSiteTrustedInternal: Failed to download Trusted Site Data File.");

        // Held from before the signature check until the lists are read: the temporary
        // folder is writable by the page's own processes, and a file swapped between the
        // check and the read would have unsigned lists believed and cached.
        TarnBase::UniqueFile held = TarnUtils::HoldForReading(tempPath);
        if (!held) {
            TARN_LOG_LAST_ERROR(TarnLog::Log, kControlClass, 1,
                                "IsCurrentSiteTrustedInternal: Failed to hold the downloaded Trusted Site Data File for checking.");
            return false;
        }

        NameList signers;
        if (!ChooseSigners(signers))
            return false;

        std::string signerName;
        if (!TarnUtils::Authenticode::VerifyAuthenticodeSignatureAndTrustedSigner(tempPath, signers, signerName))
            FAIL(1, "IsCurrentSiteTrustedInternal: Failed to verify signature on Trusted Site Data File, or failed to verify is signed by a trusted entity. Cannot trust site.");
        TarnLog::Log(kControlClass, 3, "IsCurrentSiteTrustedInternal: Verified Trusted Site Data File itself can be trusted.");

        if (!ReadTrustDataFile(SchemeCode(scheme), narrowTempPath, downloadUrl, siteSigners, trusted, denied))
            FAIL(1, "IsCurrentSiteTrustedInternal: Failed to read trust data file. Cannot determine trust.");

        held.Reset();
        ::DeleteFileA(narrowTempPath.c_str());
        if (!trusted.empty() || !denied.empty() || !siteSigners.empty())
            CacheSiteInfo(downloadUrl, siteSigners, trusted, denied, schemeCode);
    }

    if (trusted.empty()) {
        TarnLog::Log(kControlClass, 3, "IsCurrentSiteTrustedInternal: No sites are trusted. Current site is NOT TRUSTED.");
        return false;
    }
    const bool answer = GetTrust(trusted, denied, domain);
    TarnLog::Log(kControlClass, 3,
                 answer ? "IsCurrentSiteTrustedInternal: Our site's current domain is TRUSTED. Domain: %s"
                        : "IsCurrentSiteTrustedInternal: Our site's current domain is NOT TRUSTED. Domain: %s",
                 domain.c_str());
    return answer;
}

#undef FAIL

} // namespace TarnSMX

#include "TarnSM/win/TrustDataFile.h"

#include "TarnBase/ResultLog.h"
#include "TarnBase/win/Handle.h"
#include "TarnSM/SiteList.h"
#include "TarnSM/win/ScriptBoundary.h"
#include "TarnSM/win/TrustedSigners.h"

namespace TarnSMX {

bool ReadTrustDataFile(uint32_t schemeCode, const std::string& filePath, const std::string& downloadUrl,
                       NameList& signers, NameList& trusted, NameList& denied)
{
    if (!HasDllExtension(downloadUrl)) {
        TarnLog::Log(kControlClass, 1, "ReadTrustDataFile: Unsupported file type. File: %s.", filePath.c_str());
        return false;
    }
    return ReadTrustDataDLL(schemeCode, filePath, signers, trusted, denied);
}

bool ReadTrustDataDLL(uint32_t schemeCode, const std::string& filePath, NameList& signers, NameList& trusted,
                      NameList& denied)
{
    // Loaded as data only: the module's code is never run.
    TarnBase::UniqueModule module(::LoadLibraryExA(filePath.c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE));
    if (!module) {
        TARN_LOG_LAST_ERROR(TarnLog::Log, kControlClass, 1,
                            "ReadTrustDataDLL: Failed to load Trusted Site Data File. File: %s.", filePath.c_str());
        return false;
    }
    if (!LoadTrustedSigners(module.Get(), 103, "\n", signers))
        TarnLog::Log(kControlClass, 3,
                     "ReadTrustDataDLL: Failed to load site-specific trusted signers list from data file. Continuing and ignoring.");

    const int stringId = SiteListStringId(schemeCode);
    if (stringId == 0) {
        TarnLog::Log(kControlClass, 1, "ReadTrustDataDLL: Current site's scheme is unsupported. Scheme: %u.",
                     static_cast<unsigned>(schemeCode));
        return false;
    }
    std::string raw;
    if (!LoadResourceString(module.Get(), static_cast<UINT>(stringId), raw)) {
        static const char* const kMissing[] = {
            "ReadTrustDataDLL: Failed to load HTTP URL Trusted Site list from data file.",
            "ReadTrustDataDLL: Failed to load HTTPS URL Trusted Site list from data file.",
            "ReadTrustDataDLL: Failed to load FILE URL Trusted Site list from data file.",
        };
        TarnLog::Log(kControlClass, 1, "%s", kMissing[schemeCode]);
        return false;
    }
    module.Reset();
    TarnLog::Log(kControlClass, 3, "ReadTrustDataDLL: List of trusted sites from data file: %s", raw.c_str());
    if (!ParseSiteInfo(raw, trusted, denied)) {
        TarnLog::Log(kControlClass, 1,
                     "ReadTrustDataDLL: Failed to parse raw trusted and denied site data. Trust cannot be determined.");
        return false;
    }
    return true;
}

} // namespace TarnSMX

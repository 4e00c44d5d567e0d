#include "TarnSM/win/SiteCache.h"

#include "TarnSM/win/CTarnSM.h"
#include "TarnSM/win/ScriptBoundary.h"

#include <list>
#include <new>
#include <unordered_map>

namespace TarnSMX {
namespace {

struct SchemeLists {
    NameList trusted;
    NameList denied;
};

struct SiteInfoRecord {
    std::string downloadUrl;
    NameList signers;
    SchemeLists schemes[3];  // http, https, file
};

std::unordered_map<std::string, std::wstring>& PageMap()
{
    static auto* map = new std::unordered_map<std::string, std::wstring>();
    return *map;
}

std::list<SiteInfoRecord>& Records()
{
    static auto* records = new std::list<SiteInfoRecord>();
    return *records;
}

bool EqualsNoCase(const std::string& a, const std::string& b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i) {
        char x = a[i], y = b[i];
        if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
        if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
        if (x != y)
            return false;
    }
    return true;
}

SiteInfoRecord* FindRecord(const std::string& downloadUrl)
{
    for (auto& record : Records())
        if (EqualsNoCase(record.downloadUrl, downloadUrl))
            return &record;
    return nullptr;
}

} // namespace

TarnMT::CriticalSection& CacheLock()
{
    static auto* lock = new TarnMT::CriticalSection();
    return *lock;
}

void CacheTrustDataFileURL(const CTarnSM& control, const std::string& pageUrl, bool overwrite)
{
    TarnMT::AutoCriticalSection guard(&CacheLock());
    BSTR value = control.TrustDataFileURL();
    if (value == nullptr)
        return;
    auto& map = PageMap();
    if (!overwrite && map.find(pageUrl) != map.end())
        return;
    map[pageUrl] = std::wstring(value, ::SysStringLen(value));
}

bool LookupTrustDataFileURL(const std::string& pageUrl, std::wstring& dataFileUrl)
{
    auto& map = PageMap();
    const auto found = map.find(pageUrl);
    if (found == map.end())
        return false;
    dataFileUrl = found->second;
    return true;
}

bool GetCachedSiteInfo(const std::string& downloadUrl, uint32_t schemeCode, NameList& trusted, NameList& denied,
                       NameList& signers)
{
    trusted.clear();
    denied.clear();
    signers.clear();
    TarnMT::AutoCriticalSection guard(&CacheLock());
    const SiteInfoRecord* record = FindRecord(downloadUrl);
    if (record == nullptr)
        return false;
    signers = record->signers;
    if (schemeCode < 3) {
        trusted = record->schemes[schemeCode].trusted;
        denied = record->schemes[schemeCode].denied;
    }
    return !trusted.empty() || !denied.empty() || !signers.empty();
}

void CacheSiteInfo(const std::string& downloadUrl, const NameList& signers, const NameList& trusted,
                   const NameList& denied, uint32_t schemeCode)
{
    TarnMT::AutoCriticalSection guard(&CacheLock());
    SiteInfoRecord* existing = FindRecord(downloadUrl);
    if (existing != nullptr) {
        existing->signers = signers;
        if (schemeCode < 3)
            existing->schemes[schemeCode] = SchemeLists{trusted, denied};
        return;
    }
    try {
        SiteInfoRecord record;
        record.downloadUrl = downloadUrl;
        record.signers = signers;
        if (schemeCode < 3)
            record.schemes[schemeCode] = SchemeLists{trusted, denied};
        Records().push_back(std::move(record));
    } catch (const std::bad_alloc&) {
        TarnLog::Log(kControlClass, 0, "CacheSiteInfo: Memory allocation failure. Can't load cache data.");
    }
}

} // namespace TarnSMX

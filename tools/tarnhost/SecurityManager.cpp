#include "SecurityManager.h"

#include <utility>

namespace TarnHost {
namespace {

bool SameText(const std::wstring& a, const std::wstring& b)
{
    return ::CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b.c_str(), static_cast<int>(b.size()),
                                  TRUE) == CSTR_EQUAL;
}

} // namespace

std::wstring UrlHost(const std::wstring& url)
{
    const size_t scheme = url.find(L"://");
    if (scheme == std::wstring::npos)
        return {};
    const size_t start = scheme + 3;
    const size_t end = url.find_first_of(L"/?#", start);
    std::wstring authority = url.substr(start, end == std::wstring::npos ? std::wstring::npos : end - start);
    const size_t at = authority.rfind(L'@');
    if (at != std::wstring::npos)
        authority = authority.substr(at + 1);
    if (!authority.empty() && authority[0] == L'[') { // IPv6 literal keeps its colons
        const size_t close = authority.find(L']');
        return close == std::wstring::npos ? authority : authority.substr(0, close + 1);
    }
    return authority.substr(0, authority.find(L':'));
}

SecurityManager::SecurityManager(std::vector<ZoneRule> rules) : m_rules(std::move(rules)) {}

DWORD SecurityManager::ZoneFor(const std::wstring& url) const
{
    for (const ZoneRule& rule : m_rules)
        if (SameText(rule.pattern, url))
            return rule.zone;
    const std::wstring host = UrlHost(url);
    if (!host.empty())
        for (const ZoneRule& rule : m_rules)
            if (SameText(rule.pattern, host))
                return rule.zone;
    return URLZONE_INTERNET;
}

HRESULT STDMETHODCALLTYPE SecurityManager::QueryInterface(REFIID riid, void** ppv)
{
    if (!ppv)
        return E_POINTER;
    *ppv = nullptr;
    if (riid == IID_IUnknown || riid == IID_IInternetSecurityManager) {
        *ppv = static_cast<IInternetSecurityManager*>(this);
        AddRef();
        return S_OK;
    }
    return E_NOINTERFACE;
}

HRESULT STDMETHODCALLTYPE SecurityManager::MapUrlToZone(LPCWSTR pwszUrl, DWORD* pdwZone, DWORD)
{
    if (!pwszUrl || !pdwZone)
        return E_INVALIDARG;
    *pdwZone = ZoneFor(pwszUrl);
    return S_OK;
}

HRESULT STDMETHODCALLTYPE SecurityManager::SetSecuritySite(IInternetSecurityMgrSite*)
{
    return INET_E_DEFAULT_ACTION;
}

HRESULT STDMETHODCALLTYPE SecurityManager::GetSecuritySite(IInternetSecurityMgrSite** ppSite)
{
    if (ppSite)
        *ppSite = nullptr;
    return INET_E_DEFAULT_ACTION;
}

HRESULT STDMETHODCALLTYPE SecurityManager::GetSecurityId(LPCWSTR, BYTE*, DWORD*, DWORD_PTR)
{
    return INET_E_DEFAULT_ACTION;
}

HRESULT STDMETHODCALLTYPE SecurityManager::ProcessUrlAction(LPCWSTR, DWORD, BYTE*, DWORD, BYTE*, DWORD, DWORD, DWORD)
{
    return INET_E_DEFAULT_ACTION;
}

HRESULT STDMETHODCALLTYPE SecurityManager::QueryCustomPolicy(LPCWSTR, REFGUID, BYTE** ppPolicy, DWORD* pcbPolicy,
                                                             BYTE*, DWORD, DWORD)
{
    if (ppPolicy)
        *ppPolicy = nullptr;
    if (pcbPolicy)
        *pcbPolicy = 0;
    return INET_E_DEFAULT_ACTION;
}

HRESULT STDMETHODCALLTYPE SecurityManager::SetZoneMapping(DWORD, LPCWSTR, DWORD)
{
    return INET_E_DEFAULT_ACTION;
}

HRESULT STDMETHODCALLTYPE SecurityManager::GetZoneMappings(DWORD, IEnumString** ppenumString, DWORD)
{
    if (ppenumString)
        *ppenumString = nullptr;
    return INET_E_DEFAULT_ACTION;
}

} // namespace TarnHost

#pragma once
// The page's own security manager, offered through QueryService when the command line
// maps zones. A browser's manager is what a control should ask first; giving ours fixed
// answers lets a test put a page in any zone without touching the registry.

#include "TarnBase/win/ComObject.h"
#include "Options.h"

#include <urlmon.h>

#include <string>
#include <vector>

namespace TarnHost {

class SecurityManager final : public TarnBase::ComObject<IInternetSecurityManager> {
public:
    explicit SecurityManager(std::vector<ZoneRule> rules);

    // The zone for `url`: a rule naming the whole URL wins over one naming its host; the
    // first such rule counts. Unmapped URLs are in the Internet zone.
    DWORD ZoneFor(const std::wstring& url) const;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;

    HRESULT STDMETHODCALLTYPE MapUrlToZone(LPCWSTR pwszUrl, DWORD* pdwZone, DWORD dwFlags) override;

    // Everything else defers to the system's default behaviour.
    HRESULT STDMETHODCALLTYPE SetSecuritySite(IInternetSecurityMgrSite* pSite) override;
    HRESULT STDMETHODCALLTYPE GetSecuritySite(IInternetSecurityMgrSite** ppSite) override;
    HRESULT STDMETHODCALLTYPE GetSecurityId(LPCWSTR pwszUrl, BYTE* pbSecurityId, DWORD* pcbSecurityId,
                                            DWORD_PTR dwReserved) override;
    HRESULT STDMETHODCALLTYPE ProcessUrlAction(LPCWSTR pwszUrl, DWORD dwAction, BYTE* pPolicy, DWORD cbPolicy,
                                               BYTE* pContext, DWORD cbContext, DWORD dwFlags,
                                               DWORD dwReserved) override;
    HRESULT STDMETHODCALLTYPE QueryCustomPolicy(LPCWSTR pwszUrl, REFGUID guidKey, BYTE** ppPolicy, DWORD* pcbPolicy,
                                                BYTE* pContext, DWORD cbContext, DWORD dwReserved) override;
    HRESULT STDMETHODCALLTYPE SetZoneMapping(DWORD dwZone, LPCWSTR lpszPattern, DWORD dwFlags) override;
    HRESULT STDMETHODCALLTYPE GetZoneMappings(DWORD dwZone, IEnumString** ppenumString, DWORD dwFlags) override;

private:
    std::vector<ZoneRule> m_rules;
};

// The host name of a URL ("http://user@Host:81/x" -> "Host"); empty when it has none.
std::wstring UrlHost(const std::wstring& url);

} // namespace TarnHost

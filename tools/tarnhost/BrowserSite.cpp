#include "BrowserSite.h"

#include <shlguid.h>
#include <utility>

namespace TarnHost {

BrowserSite::BrowserSite(SiteMode mode, const std::wstring& locationUrl,
                         Microsoft::WRL::ComPtr<SecurityManager> securityManager)
    : m_mode(mode),
      m_browser(TarnBase::MakeCom<WebBrowser>(locationUrl, mode == SiteMode::LocationFails)),
      m_securityManager(std::move(securityManager))
{
}

HRESULT STDMETHODCALLTYPE BrowserSite::QueryInterface(REFIID riid, void** ppv)
{
    if (!ppv)
        return E_POINTER;
    *ppv = nullptr;
    const bool serves = m_mode != SiteMode::NoServiceProvider;
    if (riid == IID_IUnknown || (serves && riid == IID_IServiceProvider)) {
        *ppv = static_cast<IServiceProvider*>(this);
        AddRef();
        return S_OK;
    }
    return E_NOINTERFACE;
}

HRESULT STDMETHODCALLTYPE BrowserSite::QueryService(REFGUID guidService, REFIID riid, void** ppv)
{
    if (!ppv)
        return E_POINTER;
    *ppv = nullptr;
    if (guidService == SID_SWebBrowserApp) {
        if (m_mode == SiteMode::NoBrowser)
            return E_NOINTERFACE;
        return m_browser->QueryInterface(riid, ppv);
    }
    if (guidService == SID_SInternetSecurityManager && m_securityManager)
        return m_securityManager->QueryInterface(riid, ppv);
    return E_NOINTERFACE;
}

} // namespace TarnHost

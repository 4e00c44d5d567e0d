#pragma once
// A control made in process and the page site it is put on: tarnhost's browser site without
// a security manager of its own, so that zones come from the platform's manager, as in a
// browser, and the floors pay for the same platform calls as the control. With them, the
// bare site discovery every page floor starts with.

#include "BrowserSite.h"

#include <exdisp.h>
#include <servprov.h>
#include <shlguid.h>
#include <urlmon.h>
#include "TarnSM/win/CTarnSM.h"
#include "testing/support/PageHost.h"

#include <string>

namespace BenchPage {

inline Microsoft::WRL::ComPtr<TarnHost::BrowserSite> Site(const std::wstring& url)
{
    return TarnBase::MakeCom<TarnHost::BrowserSite>(TarnHost::SiteMode::Normal, url, nullptr);
}

inline IUnknown* Unknown(const Microsoft::WRL::ComPtr<TarnHost::BrowserSite>& site)
{
    return static_cast<IServiceProvider*>(site.Get());
}

inline Microsoft::WRL::ComPtr<TarnSMX::CTarnSM> NewControl()
{
    Microsoft::WRL::ComPtr<TarnSMX::CTarnSM> control;
    control.Attach(new TarnSMX::CTarnSM());
    return control;
}

// What the control asks its site for the page's URL and zone, as bare calls: the site's
// IServiceProvider, the browser and its location, the site's security manager (the bench
// page offers none, so one is created) and MapUrlToZone.
inline bool BareDiscovery(IUnknown* site, std::wstring& location, DWORD& zone)
{
    Microsoft::WRL::ComPtr<IServiceProvider> provider;
    site->QueryInterface(IID_PPV_ARGS(&provider));
    Microsoft::WRL::ComPtr<IWebBrowser2> browser;
    if (!provider || FAILED(provider->QueryService(SID_SWebBrowserApp, IID_PPV_ARGS(&browser))) || !browser)
        return false;
    BSTR url = nullptr;
    if (FAILED(browser->get_LocationURL(&url)))
        return false;
    Microsoft::WRL::ComPtr<IInternetSecurityManager> manager;
    HRESULT hr = provider->QueryService(IID_IInternetSecurityManager, IID_PPV_ARGS(&manager));
    if (FAILED(hr))
        hr = ::CoCreateInstance(CLSID_InternetSecurityManager, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&manager));
    if (SUCCEEDED(hr))
        hr = manager->MapUrlToZone(url, &zone, 0);
    location.assign(url, ::SysStringLen(url));
    ::SysFreeString(url);  // a floor frees by hand: it is the bare calls, without our owners
    return SUCCEEDED(hr);
}

} // namespace BenchPage

#pragma once
// A control made in process and the page site it is put on: tarnhost's browser site without
// a security manager of its own, so that zones come from the platform's manager, as in a
// browser, and the floors pay for the same platform calls as the control.

#include "BrowserSite.h"

#include <shlguid.h>
#include "TarnSM/win/CTarnSM.h"
#include "testing/support/PageHost.h"

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

} // namespace BenchPage

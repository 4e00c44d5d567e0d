#pragma once
// The site a browser gives a control on its page: the way for the control to reach the
// browser (SID_SWebBrowserApp) and, when the page has one, its security manager.
// The site modes reproduce containers that fall short in one way each.

#include "TarnBase/win/ComObject.h"
#include "Options.h"
#include "SecurityManager.h"
#include "WebBrowser.h"

#include <servprov.h>

#include <string>

namespace TarnHost {

class BrowserSite final : public TarnBase::ComObject<IServiceProvider> {
public:
    // `securityManager` may be null: the page then offers none.
    BrowserSite(SiteMode mode, const std::wstring& locationUrl,
                Microsoft::WRL::ComPtr<SecurityManager> securityManager);

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override;
    HRESULT STDMETHODCALLTYPE QueryService(REFGUID guidService, REFIID riid, void** ppv) override;

private:
    SiteMode m_mode;
    Microsoft::WRL::ComPtr<WebBrowser> m_browser;
    Microsoft::WRL::ComPtr<SecurityManager> m_securityManager;
};

} // namespace TarnHost

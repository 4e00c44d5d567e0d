// What the hosting browser says about the page: its URL, zone, scheme and domain.
#include "TarnSM/win/CTarnSM.h"

#include "TarnBase/ResultLog.h"
#include "TarnSM/win/ScriptBoundary.h"
#include "TarnUtils/win/StringConvert.h"

#include <exdisp.h>
#include <servprov.h>
#include <shlguid.h>
#include <urlmon.h>

namespace TarnSMX {
namespace {

using Microsoft::WRL::ComPtr;

constexpr DWORD kParseBufferLength = 2086;
constexpr DWORD kParseFlags = 0x10000000;  // URL_UNESCAPE

// Parses with one CoInternetParseUrl action into the fixed-size buffer.
HRESULT ParseUrl(const std::wstring& url, PARSEACTION action, std::wstring& out)
{
    std::wstring buffer(kParseBufferLength, L'\0');
    DWORD length = 0;
    const HRESULT hr = ::CoInternetParseUrl(url.c_str(), action, kParseFlags, &buffer[0], kParseBufferLength, &length, 0);
    if (hr != S_OK)
        return FAILED(hr) ? hr : E_POINTER;  // S_FALSE: the result did not fit the buffer
    buffer.resize(wcsnlen(buffer.c_str(), kParseBufferLength));
    out = buffer;
    return hr;
}

} // namespace

bool CTarnSM::GetCurrentSiteURLAndZone(std::string& url, DWORD& zone, bool* unreadable)
{
    url.clear();
    bool ignored = false;
    bool& pageUnreadable = unreadable != nullptr ? *unreadable : ignored;
    pageUnreadable = false;
    ComPtr<IServiceProvider> provider;
    if (m_site)
        m_site->QueryInterface(IID_PPV_ARGS(&provider));
    if (!provider) {
        TarnLog::Log(kControlClass, 2, "GetCurrentSiteURLAndZone: Failed to QI to IServiceProvider from our site.");
        return false;
    }

    ComPtr<IWebBrowser2> browser;
    HRESULT hr = provider->QueryService(SID_SWebBrowserApp, IID_PPV_ARGS(&browser));
    if (FAILED(hr) || !browser) {
        TARN_LOG_HRESULT(TarnLog::Log, kControlClass, 2, hr,
                         "GetCurrentSiteURLAndZone: Failed retrieve IWebBrowser2 from container.");
        return false;
    }

    TarnBase::UniqueBstr location;
    hr = browser->get_LocationURL(location.Put());
    if (FAILED(hr)) {
        TARN_LOG_HRESULT(TarnLog::Log, kControlClass, 2, hr,
                         "GetCurrentSiteURLAndZone: Failed get location URL from IWebBrowser2.");
        return false;
    }
    // From here on the browser has named a page: a failure below means a page the control
    // cannot judge, which must never pass for "no page". (An empty location names none.)
    pageUnreadable = ::SysStringLen(location.Get()) > 0;
    try {
        url = TarnUtils::BstrToAnsi(location.Get());
    } catch (const TarnBase::StringConversionException&) {
        TarnLog::Log(kControlClass, 2,
                     "GetCurrentSiteURLAndZone: Location URL has characters outside the ANSI code page. Site is not used.");
        return false;
    }
    TarnLog::Log(kControlClass, 4, "GetCurrentSiteURLAndZone: Found current IE site URL: %s.", url.c_str());

    ComPtr<IInternetSecurityManager> securityManager;
    hr = provider->QueryService(IID_IInternetSecurityManager, IID_PPV_ARGS(&securityManager));
    if (FAILED(hr)) {
        TARN_LOG_HRESULT(TarnLog::Log, kControlClass, 4, hr,
                         "GetCurrentSiteURLAndZone: Failed to retrieve security manager from container. Will attempt CoCreate directly.");
        securityManager.Reset();
        hr = ::CoCreateInstance(CLSID_InternetSecurityManager, nullptr, CLSCTX_INPROC_SERVER,
                                IID_PPV_ARGS(&securityManager));
        if (FAILED(hr)) {
            TARN_LOG_HRESULT(TarnLog::Log, kControlClass, 2, hr,
                             "GetCurrentSiteURLAndZone: Failed to retrieve and CoCreate IE security manager.");
            return false;
        }
    }
    if (!securityManager) {
        TarnLog::Log(kControlClass, 2,
                     "GetCurrentSiteURLAndZone: IE security manager CoCreate succeeded, however our IE security manager pointer is invalid.");
        return false;
    }

    // A null location is mapped as an empty URL: the security manager refuses it cleanly.
    hr = securityManager->MapUrlToZone(location.Get() ? location.Get() : L"", &zone, 0);
    if (FAILED(hr)) {
        TARN_LOG_HRESULT(TarnLog::Log, kControlClass, 2, hr, "GetCurrentSiteURLAndZone: Failed to map URL to zone.");
        return false;
    }
    pageUnreadable = false;
    return true;
}

bool CTarnSM::IsCurrentSiteAvailableInternal()
{
    std::string url;
    DWORD zone = 0;
    bool unreadable = false;
    if (GetCurrentSiteURLAndZone(url, zone, &unreadable)) {
        TarnLog::Log(kControlClass, 3, "IsCurrentSiteAvailableInternal: Found current site: %s.", url.c_str());
        return true;
    }
    if (unreadable) {
        TarnLog::Log(kControlClass, 3,
                     "IsCurrentSiteAvailableInternal: Current site is present, but its URL or security zone cannot be read.");
        return true;
    }
    TarnLog::Log(kControlClass, 3, "IsCurrentSiteAvailableInternal: Failed to get current site URL.");
    return false;
}

bool CTarnSM::IsCurrentSiteLocalInternal()
{
    std::string url;
    DWORD zone = 0;
    if (GetCurrentSiteURLAndZone(url, zone)) {
        TarnLog::Log(kControlClass, 3, "IsCurrentSiteLocalInternal: Found current site: %s.", url.c_str());
        TarnLog::Log(kControlClass, 3, "IsCurrentSiteLocalInternal: Found current site's security zone: %u.",
                     static_cast<unsigned>(zone));
        return zone == URLZONE_LOCAL_MACHINE;
    }
    TarnLog::Log(kControlClass, 3, "IsCurrentSiteLocalInternal: Failed to get current site URL and zone.");
    return false;
}

bool CTarnSM::GetCurrentSiteAvailableAndLocal(bool& available, bool& local, bool& unreadable)
{
    std::string url;
    DWORD zone = 0;
    available = false;
    local = false;
    if (!GetCurrentSiteURLAndZone(url, zone, &unreadable)) {
        available = unreadable;
        TarnLog::Log(kControlClass, 3, "GetCurrentSiteAvailableAndLocal: Failed to get current site URL and zone.");
        return false;
    }
    TarnLog::Log(kControlClass, 3, "GetCurrentSiteAvailableAndLocal: Found current site: %s.", url.c_str());
    TarnLog::Log(kControlClass, 3, "GetCurrentSiteAvailableAndLocal: Found current site's security zone: %u.",
                 static_cast<unsigned>(zone));
    available = true;
    local = zone == URLZONE_LOCAL_MACHINE;
    return true;
}

bool CTarnSM::GetCurrentSiteDomainAndScheme(std::string& domain, std::string& scheme)
{
    domain.clear();
    scheme.clear();
    std::string url;
    DWORD zone = 0;
    if (!GetCurrentSiteURLAndZone(url, zone)) {
        TarnLog::Log(kControlClass, 2, "GetCurrentSiteDomainAndScheme: Failed to get current site URL and zone.");
        return false;
    }

    // Canonicalising is only a validity gate; the parses after it use the URL as the
    // browser gave it.
    const std::wstring wideUrl = TarnUtils::AnsiToWide(url);
    std::wstring canonical, wideScheme, wideDomain;
    const struct {
        PARSEACTION action;
        std::wstring* out;
        const char* failure;
    } parses[] = {{PARSE_CANONICALIZE, &canonical, "canonicalize"},
                  {PARSE_SCHEMA, &wideScheme, "parse scheme from"},
                  {PARSE_DOMAIN, &wideDomain, "parse domain from"}};
    for (const auto& parse : parses) {
        const HRESULT hr = ParseUrl(wideUrl, parse.action, *parse.out);
        if (FAILED(hr)) {
            TARN_LOG_HRESULT(TarnLog::Log, kControlClass, 1, hr,
                             "GetCurrentSiteDomainAndScheme: Failed to %s current site URL.", parse.failure);
            return false;
        }
    }
    scheme = TarnUtils::WideToAnsi(wideScheme);
    domain = TarnUtils::WideToAnsi(wideDomain);
    TarnLog::Log(kControlClass, 3, "GetCurrentSiteDomainAndScheme: Parsed scheme: %s.", scheme.c_str());
    TarnLog::Log(kControlClass, 3, "GetCurrentSiteDomainAndScheme: Parsed domain: %s.", domain.c_str());
    return true;
}

} // namespace TarnSMX

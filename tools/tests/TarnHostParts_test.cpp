// tarnhost's pieces driven directly: the command line, the property bag, the browser's
// site and security manager, the `host` object and the browser-like control set-up.

#include "BrowserSite.h"
#include "Control.h"
#include "HostError.h"
#include "Options.h"
#include "PropertyBag.h"
#include "ScriptFile.h"
#include "ScriptHost.h"
#include "SecurityManager.h"
#include "VariantText.h"

#include <objsafe.h>
#include <shlguid.h>

#include <doctest.h>

#include <limits>
#include <string>
#include <vector>

using namespace TarnHost;
using Microsoft::WRL::ComPtr;

namespace {

std::string Narrow(const std::wstring& text)
{
    std::string narrow;
    for (wchar_t c : text)
        narrow += c < 128 ? static_cast<char>(c) : '?';
    return narrow;
}

int UsageExitCode(const std::vector<std::wstring>& args)
{
    try {
        ParseOptions(args);
    } catch (const HostError& error) {
        return error.exitCode;
    }
    return 0;
}

std::wstring BstrText(BSTR text)
{
    std::wstring result = text ? std::wstring(text, ::SysStringLen(text)) : std::wstring();
    ::SysFreeString(text);
    return result;
}

// Records what a browser-like host does to a control, in order.
class ProbeControl final
    : public TarnBase::ComObject<IDispatch, IObjectSafety, IPersistPropertyBag, IObjectWithSite> {
public:
    DWORD supported = INTERFACESAFE_FOR_UNTRUSTED_CALLER | INTERFACESAFE_FOR_UNTRUSTED_DATA;
    HRESULT setSafetyResult = S_OK;
    bool persists = true;
    std::vector<std::string> calls;
    IUnknown* site = nullptr;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override
    {
        *ppv = nullptr;
        if (riid == IID_IUnknown || riid == IID_IDispatch)
            *ppv = static_cast<IDispatch*>(this);
        else if (riid == IID_IObjectSafety)
            *ppv = static_cast<IObjectSafety*>(this);
        else if ((riid == IID_IPersistPropertyBag || riid == IID_IPersist) && persists)
            *ppv = static_cast<IPersistPropertyBag*>(this);
        else if (riid == IID_IObjectWithSite)
            *ppv = static_cast<IObjectWithSite*>(this);
        else
            return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }

    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override
    {
        *count = 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override
    {
        return E_NOTIMPL;
    }

    HRESULT STDMETHODCALLTYPE GetInterfaceSafetyOptions(REFIID riid, DWORD* pSupported, DWORD* pEnabled) override
    {
        calls.push_back("GetInterfaceSafetyOptions " + Name(riid));
        *pSupported = supported;
        *pEnabled = 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE SetInterfaceSafetyOptions(REFIID riid, DWORD mask, DWORD enabled) override
    {
        calls.push_back("SetInterfaceSafetyOptions " + Name(riid) + " " + std::to_string(mask) + " " +
                        std::to_string(enabled));
        return setSafetyResult;
    }

    HRESULT STDMETHODCALLTYPE GetClassID(CLSID* clsid) override
    {
        *clsid = CLSID_NULL;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE InitNew() override
    {
        calls.push_back("InitNew");
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Load(IPropertyBag* bag, IErrorLog*) override
    {
        std::string call = "Load";
        for (const wchar_t* name : {L"TrustedSiteDataFileURL", L"VendorID"}) {
            VARIANT value;
            ::VariantInit(&value);
            const HRESULT hr = bag->Read(name, &value, nullptr);
            if (SUCCEEDED(hr) && V_VT(&value) == VT_BSTR)
                call += " " + Narrow(name) + "=" + Narrow(V_BSTR(&value));
            else if (hr != E_INVALIDARG)
                call += " bad-read";
            ::VariantClear(&value);
        }
        calls.push_back(call);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Save(IPropertyBag*, BOOL, BOOL) override { return E_NOTIMPL; }

    HRESULT STDMETHODCALLTYPE SetSite(IUnknown* newSite) override
    {
        calls.push_back(newSite ? "SetSite" : "SetSite null");
        site = newSite;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetSite(REFIID, void** ppv) override
    {
        *ppv = nullptr;
        return E_FAIL;
    }

private:
    static std::string Name(REFIID riid)
    {
        if (riid == IID_IDispatch)
            return "IDispatch";
        if (riid == IID_IPersistPropertyBag)
            return "IPersistPropertyBag";
        return "other";
    }
};

} // namespace

TEST_SUITE("tarnhost parts: command line")
{
    TEST_CASE("defaults, and everything after the script path belongs to the script")
    {
        const Options o = ParseOptions({L"page.js", L"--url", L"x"});
        CHECK(o.scriptPath == L"page.js");
        CHECK(o.scriptArgs == std::vector<std::wstring>{L"--url", L"x"});
        CHECK(o.language == Language::JScript);
        CHECK_FALSE(o.url.has_value());
        CHECK(o.controls == 1);
        CHECK(o.progId == L"TarnSM.TarnSM");
        CHECK(o.siteMode == SiteMode::Normal);
        CHECK_FALSE(o.noSecurityManager);

        const Options dashed = ParseOptions({L"--controls", L"0", L"--", L"--odd-name.vbs"});
        CHECK(dashed.scriptPath == L"--odd-name.vbs");
        CHECK(dashed.language == Language::VBScript);
        CHECK(dashed.controls == 0);
    }

    TEST_CASE("parameters pick their control by an optional number")
    {
        const Options o = ParseOptions({L"--controls", L"3", L"--param", L"VendorID=acme", L"--param",
                                        L"3:TrustedSiteDataFileURL=http://h/a=b:c", L"--param", L"Empty=",
                                        L"page.js"});
        REQUIRE(o.params.size() == 3);
        CHECK(o.params[0].control == 1);
        CHECK(o.params[0].name == L"VendorID");
        CHECK(o.params[0].value == L"acme");
        CHECK(o.params[1].control == 3);
        CHECK(o.params[1].name == L"TrustedSiteDataFileURL");
        CHECK(o.params[1].value == L"http://h/a=b:c");
        CHECK(o.params[2].value.empty());
        // A colon after the '=' belongs to the value, not to a control number.
        const Options value = ParseOptions({L"--param", L"Url=file:x", L"page.js"});
        CHECK(value.params[0].control == 1);
        CHECK(value.params[0].value == L"file:x");

        CHECK(UsageExitCode({L"--param", L"=x", L"page.js"}) == ExitUsage);
        CHECK(UsageExitCode({L"--param", L"a:Name=x", L"page.js"}) == ExitUsage);
        CHECK(UsageExitCode({L"--param", L"2:Name=x", L"page.js"}) == ExitUsage);
    }

    TEST_CASE("zones split at the last '=' and need a page")
    {
        const Options o = ParseOptions({L"--url", L"http://h/p?q=1", L"--zone", L"http://h/p?q=1=2", L"--zone",
                                        L"h=0", L"--site-mode", L"location-fails", L"page.js"});
        REQUIRE(o.zones.size() == 2);
        CHECK(o.zones[0].pattern == L"http://h/p?q=1");
        CHECK(o.zones[0].zone == 2);
        CHECK(o.zones[1].zone == 0);
        CHECK(o.siteMode == SiteMode::LocationFails);
        CHECK(UsageExitCode({L"--url", L"u", L"--zone", L"h=-1", L"page.js"}) == ExitUsage);
        CHECK(UsageExitCode({L"--url", L"u", L"--zone", L"h=12", L"page.js"}) == ExitUsage);
        CHECK(UsageExitCode({L"--no-secmgr", L"page.js"}) == ExitUsage);
        CHECK(UsageExitCode({L"--url", L"u", L"--no-secmgr", L"page.js"}) == 0);
    }
}

TEST_SUITE("tarnhost parts: property bag")
{
    TEST_CASE("Read gives strings, ignores the case of names and refuses missing ones")
    {
        auto bag = TarnBase::MakeCom<PropertyBag>();
        bag->Set(L"VendorID", L"acme");
        VARIANT value;
        ::VariantInit(&value);
        REQUIRE(bag->Read(L"vendorid", &value, nullptr) == S_OK);
        CHECK(V_VT(&value) == VT_BSTR);
        CHECK(BstrText(V_BSTR(&value)) == L"acme");

        ::VariantInit(&value);
        V_VT(&value) = VT_I4;
        V_I4(&value) = 77;
        CHECK(bag->Read(L"TrustedSiteDataFileURL", &value, nullptr) == E_INVALIDARG);
        CHECK(V_VT(&value) == VT_I4); // untouched
        CHECK(V_I4(&value) == 77);
        CHECK(bag->Read(nullptr, &value, nullptr) == E_POINTER);
        CHECK(bag->Read(L"VendorID", nullptr, nullptr) == E_POINTER);
    }

    TEST_CASE("Read converts to a type the caller asks for")
    {
        auto bag = TarnBase::MakeCom<PropertyBag>();
        bag->Set(L"Count", L"42");
        bag->Set(L"Name", L"forty-two");
        VARIANT value;
        ::VariantInit(&value);
        V_VT(&value) = VT_I4;
        REQUIRE(bag->Read(L"Count", &value, nullptr) == S_OK);
        CHECK(V_VT(&value) == VT_I4);
        CHECK(V_I4(&value) == 42);
        ::VariantInit(&value);
        V_VT(&value) = VT_I4;
        CHECK(FAILED(bag->Read(L"Name", &value, nullptr)));
    }

    TEST_CASE("Write stores text that reads back, replacing by name")
    {
        auto bag = TarnBase::MakeCom<PropertyBag>();
        VARIANT value;
        ::VariantInit(&value);
        V_VT(&value) = VT_BSTR;
        V_BSTR(&value) = ::SysAllocString(L"first");
        CHECK(bag->Write(L"VendorID", &value) == S_OK);
        ::VariantClear(&value);
        V_VT(&value) = VT_BOOL;
        V_BOOL(&value) = VARIANT_TRUE;
        CHECK(bag->Write(L"VENDORID", &value) == S_OK);
        V_VT(&value) = VT_R8;
        V_R8(&value) = 2.5;
        CHECK(bag->Write(L"Ratio", &value) == S_OK);
        CHECK(bag->Values().size() == 2);
        REQUIRE(bag->Find(L"vendorid"));
        CHECK(*bag->Find(L"vendorid") == L"true");
        CHECK(*bag->Find(L"Ratio") == L"2.5");
        CHECK(bag->Write(L"x", nullptr) == E_POINTER);
    }
}

TEST_SUITE("tarnhost parts: values as text")
{
    TEST_CASE("numbers print as JavaScript prints them")
    {
        CHECK(NumberToText(5) == L"5");
        CHECK(NumberToText(-1.5) == L"-1.5");
        CHECK(NumberToText(0.1) == L"0.1");
        CHECK(NumberToText(0.1 + 0.2) == L"0.30000000000000004");
        CHECK(NumberToText(1e21) == L"1e+21");
        CHECK(NumberToText(1e20) == L"100000000000000000000");
        CHECK(NumberToText(1e-7) == L"1e-7");
        CHECK(NumberToText(0.000001) == L"0.000001");
        CHECK(NumberToText(123.456e-10) == L"1.23456e-8");
        CHECK(NumberToText(-0.0) == L"0");
        CHECK(NumberToText(std::numeric_limits<double>::quiet_NaN()) == L"NaN");
        CHECK(NumberToText(-std::numeric_limits<double>::infinity()) == L"-Infinity");
    }

    TEST_CASE("references are followed and empty objects read as null")
    {
        VARIANT inner;
        ::VariantInit(&inner);
        V_VT(&inner) = VT_I4;
        V_I4(&inner) = -12;
        VARIANT byRef;
        ::VariantInit(&byRef);
        V_VT(&byRef) = VT_BYREF | VT_VARIANT;
        V_VARIANTREF(&byRef) = &inner;
        std::wstring text;
        CHECK(VariantToText(byRef, L"", &text) == S_OK);
        CHECK(text == L"-12");

        VARIANT nothing;
        ::VariantInit(&nothing);
        V_VT(&nothing) = VT_DISPATCH;
        V_DISPATCH(&nothing) = nullptr;
        CHECK(VariantToText(nothing, L"", &text) == S_OK);
        CHECK(text == L"null");

        ::VariantInit(&nothing);
        CHECK(VariantToText(nothing, L"undefined", &text) == S_OK);
        CHECK(text == L"undefined");
    }

    TEST_CASE("script files: byte order marks and the ANSI fallback")
    {
        CHECK(DecodeScriptBytes("plain") == L"plain");
        CHECK(DecodeScriptBytes("\xEF\xBB\xBF\xC3\xA9") == L"\u00e9");
        CHECK(DecodeScriptBytes(std::string("\xFF\xFE" "a\0b\0", 6)) == L"ab");
        // Not UTF-8: read in the ANSI code page instead of turning into replacement marks.
        const std::wstring ansi = DecodeScriptBytes("caf\xE9");
        CHECK(ansi.size() == 4);
        CHECK(ansi.find(L'\uFFFD') == std::wstring::npos);
    }
}

TEST_SUITE("tarnhost parts: the page's browser")
{
    TEST_CASE("the host name of a URL")
    {
        CHECK(UrlHost(L"http://127.0.0.1/page.html") == L"127.0.0.1");
        CHECK(UrlHost(L"https://user:pw@Example.COM:8443/a?b#c") == L"Example.COM");
        CHECK(UrlHost(L"http://[::1]:80/") == L"[::1]");
        CHECK(UrlHost(L"http://host?q") == L"host");
        CHECK(UrlHost(L"about:blank").empty());
        CHECK(UrlHost(L"file:///C:/x.html").empty());
    }

    TEST_CASE("zone answers: whole URL before host, Internet when unmapped")
    {
        auto manager = TarnBase::MakeCom<SecurityManager>(std::vector<ZoneRule>{
            {L"example.com", 2}, {L"http://example.com/local.html", 0}, {L"EXAMPLE.com", 4}});
        CHECK(manager->ZoneFor(L"http://example.com/local.html") == 0);
        CHECK(manager->ZoneFor(L"HTTP://EXAMPLE.COM/LOCAL.HTML") == 0);
        CHECK(manager->ZoneFor(L"https://example.com/other.html") == 2);
        CHECK(manager->ZoneFor(L"http://other.example.com/") == 3);
        DWORD zone = 99;
        CHECK(manager->MapUrlToZone(L"http://example.com:8080/x", &zone, 0) == S_OK);
        CHECK(zone == 2);
        CHECK(manager->MapUrlToZone(nullptr, &zone, 0) == E_INVALIDARG);
        CHECK(manager->MapUrlToZone(L"http://a/", nullptr, 0) == E_INVALIDARG);
        CHECK(manager->MapCalls() == 3);
        CHECK(manager->ProcessUrlAction(L"http://a/", 0, nullptr, 0, nullptr, 0, 0, 0) == INET_E_DEFAULT_ACTION);
    }

    TEST_CASE("a normal site serves the browser with the page URL, and the security manager when given")
    {
        auto manager = TarnBase::MakeCom<SecurityManager>(std::vector<ZoneRule>{{L"127.0.0.1", 0}});
        auto site = TarnBase::MakeCom<BrowserSite>(SiteMode::Normal, L"http://127.0.0.1/page.html", manager);
        ComPtr<IServiceProvider> services;
        REQUIRE(SUCCEEDED(site.As(&services)));

        ComPtr<IWebBrowser2> browser;
        REQUIRE(services->QueryService(SID_SWebBrowserApp, IID_IWebBrowser2,
                                       reinterpret_cast<void**>(browser.GetAddressOf())) == S_OK);
        BSTR url = nullptr;
        CHECK(browser->get_LocationURL(&url) == S_OK);
        CHECK(BstrText(url) == L"http://127.0.0.1/page.html");
        VARIANT_BOOL busy = VARIANT_TRUE;
        CHECK(browser->get_Busy(&busy) == E_NOTIMPL);
        CHECK(browser->Navigate(nullptr, nullptr, nullptr, nullptr, nullptr) == E_NOTIMPL);

        ComPtr<IInternetSecurityManager> fromSite;
        REQUIRE(services->QueryService(IID_IInternetSecurityManager, IID_IInternetSecurityManager,
                                       reinterpret_cast<void**>(fromSite.GetAddressOf())) == S_OK);
        CHECK(fromSite.Get() == static_cast<IInternetSecurityManager*>(manager.Get()));

        void* other = reinterpret_cast<void*>(1);
        CHECK(services->QueryService(SID_SContainerDispatch, IID_IDispatch, &other) == E_NOINTERFACE);
        CHECK(other == nullptr);
    }

    TEST_CASE("the failing site modes each fail at their own step")
    {
        auto bare = TarnBase::MakeCom<BrowserSite>(SiteMode::NoServiceProvider, L"http://h/", nullptr);
        ComPtr<IServiceProvider> services;
        CHECK(bare.As(&services) == E_NOINTERFACE);
        ComPtr<IUnknown> unknown;
        CHECK(bare.As(&unknown) == S_OK);

        auto noBrowser = TarnBase::MakeCom<BrowserSite>(SiteMode::NoBrowser, L"http://h/", nullptr);
        ComPtr<IWebBrowser2> browser;
        CHECK(noBrowser->QueryService(SID_SWebBrowserApp, IID_IWebBrowser2,
                                      reinterpret_cast<void**>(browser.GetAddressOf())) == E_NOINTERFACE);
        CHECK(!browser);
        // No --zone: the page has no security manager of its own.
        ComPtr<IInternetSecurityManager> manager;
        CHECK(noBrowser->QueryService(IID_IInternetSecurityManager, IID_IInternetSecurityManager,
                                      reinterpret_cast<void**>(manager.GetAddressOf())) == E_NOINTERFACE);

        auto failing = TarnBase::MakeCom<BrowserSite>(SiteMode::LocationFails, L"http://h/", nullptr);
        REQUIRE(failing->QueryService(SID_SWebBrowserApp, IID_IWebBrowser2,
                                      reinterpret_cast<void**>(browser.GetAddressOf())) == S_OK);
        BSTR url = reinterpret_cast<BSTR>(1);
        CHECK(browser->get_LocationURL(&url) == E_FAIL);
        CHECK(url == nullptr);
    }

    TEST_CASE("the script engine reaches the page's services only when the page has them")
    {
        auto site = TarnBase::MakeCom<BrowserSite>(SiteMode::Normal, L"http://h/p.html", nullptr);
        ComPtr<IServiceProvider> services;
        REQUIRE(SUCCEEDED(site.As(&services)));
        auto withPage = TarnBase::MakeCom<ScriptHost>(Language::JScript, services);
        ComPtr<IServiceProvider> forwarded;
        REQUIRE(withPage.As(&forwarded) == S_OK);
        ComPtr<IWebBrowser2> browser;
        REQUIRE(forwarded->QueryService(SID_SWebBrowserApp, IID_IWebBrowser2,
                                        reinterpret_cast<void**>(browser.GetAddressOf())) == S_OK);
        BSTR url = nullptr;
        browser->get_LocationURL(&url);
        CHECK(BstrText(url) == L"http://h/p.html");

        auto alone = TarnBase::MakeCom<ScriptHost>(Language::JScript, nullptr);
        CHECK(alone.As(&forwarded) == E_NOINTERFACE);
    }
}

TEST_SUITE("tarnhost parts: bringing a control onto the page")
{
    TEST_CASE("safety first, then the page's parameters, then the site")
    {
        auto control = TarnBase::MakeCom<ProbeControl>();
        auto bag = TarnBase::MakeCom<PropertyBag>();
        bag->Set(L"VendorID", L"acme");
        auto site = TarnBase::MakeCom<BrowserSite>(SiteMode::Normal, L"http://h/", nullptr);
        Control placed = InitializeControl(ComPtr<IUnknown>(static_cast<IDispatch*>(control.Get())), 2, L"probe",
                                           bag.Get(), site.Get());
        CHECK(placed.scriptName == L"TarnSM2");
        CHECK(placed.dispatch);
        CHECK(control->calls == std::vector<std::string>{
                                    "GetInterfaceSafetyOptions IDispatch",
                                    "SetInterfaceSafetyOptions IDispatch 1 1",
                                    "GetInterfaceSafetyOptions IPersistPropertyBag",
                                    "SetInterfaceSafetyOptions IPersistPropertyBag 2 2",
                                    "Load VendorID=acme",
                                    "SetSite",
                                });
        CHECK(control->site == static_cast<IServiceProvider*>(site.Get()));
        UnsiteControl(placed);
        CHECK(control->calls.back() == "SetSite null");
        CHECK(control->site == nullptr);
        UnsiteControl(placed); // only once
        CHECK(control->calls.size() == 7);
    }

    TEST_CASE("without parameters InitNew; without a page no site at all")
    {
        auto control = TarnBase::MakeCom<ProbeControl>();
        Control placed =
            InitializeControl(ComPtr<IUnknown>(static_cast<IDispatch*>(control.Get())), 1, L"probe", nullptr, nullptr);
        CHECK(placed.scriptName == L"TarnSM");
        CHECK(control->calls.back() == "InitNew");
        UnsiteControl(placed);
        CHECK(control->calls.back() == "InitNew");
    }

    TEST_CASE("a control that is not safe, or refuses the options, is not used")
    {
        auto partial = TarnBase::MakeCom<ProbeControl>();
        partial->supported = INTERFACESAFE_FOR_UNTRUSTED_DATA;
        try {
            InitializeControl(ComPtr<IUnknown>(static_cast<IDispatch*>(partial.Get())), 1, L"probe", nullptr,
                              nullptr);
            FAIL("accepted");
        } catch (const HostError& error) {
            CHECK(error.exitCode == ExitComFailure);
            CHECK(error.message.find(L"refused as unsafe") != std::wstring::npos);
        }
        CHECK(partial->calls == std::vector<std::string>{"GetInterfaceSafetyOptions IDispatch"});

        auto refusing = TarnBase::MakeCom<ProbeControl>();
        refusing->setSafetyResult = E_FAIL;
        try {
            InitializeControl(ComPtr<IUnknown>(static_cast<IDispatch*>(refusing.Get())), 1, L"probe", nullptr,
                              nullptr);
            FAIL("accepted");
        } catch (const HostError& error) {
            CHECK(error.exitCode == ExitComFailure);
            CHECK(error.message ==
                  L"probe: SetInterfaceSafetyOptions(IDispatch, INTERFACESAFE_FOR_UNTRUSTED_CALLER) failed: 0x80004005");
        }
    }

    TEST_CASE("a control without persistence is fine until the page gives it parameters")
    {
        auto control = TarnBase::MakeCom<ProbeControl>();
        control->persists = false;
        CHECK_NOTHROW(InitializeControl(ComPtr<IUnknown>(static_cast<IDispatch*>(control.Get())), 1, L"probe",
                                        nullptr, nullptr));
        auto bag = TarnBase::MakeCom<PropertyBag>();
        bag->Set(L"VendorID", L"acme");
        CHECK_THROWS_AS(InitializeControl(ComPtr<IUnknown>(static_cast<IDispatch*>(control.Get())), 1, L"probe",
                                          bag.Get(), nullptr),
                        HostError);
    }
}

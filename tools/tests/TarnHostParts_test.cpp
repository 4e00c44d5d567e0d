// The test host's own rules that the black-box suites rely on: it refuses bad command lines,
// and it brings a control onto the page the way a browser does (safety, then parameters,
// then the site; unsited once). Everything else of tarnhost is exercised by every black-box run.
#include "BrowserSite.h"
#include "Control.h"
#include "HostError.h"
#include "Options.h"
#include "PropertyBag.h"

#include <objsafe.h>

#include <doctest.h>

#include <algorithm>
#include <string>
#include <vector>

using namespace TarnHost;
using Microsoft::WRL::ComPtr;

namespace {

// Records what the host does to a control, in order.
class ProbeControl final : public ComObject<IDispatch, IObjectSafety, IPersistPropertyBag, IObjectWithSite> {
public:
    DWORD supported = INTERFACESAFE_FOR_UNTRUSTED_CALLER | INTERFACESAFE_FOR_UNTRUSTED_DATA;
    HRESULT setSafetyResult = S_OK;
    std::vector<std::string> calls;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override
    {
        *ppv = nullptr;
        if (riid == IID_IUnknown || riid == IID_IDispatch)
            *ppv = static_cast<IDispatch*>(this);
        else if (riid == IID_IObjectSafety)
            *ppv = static_cast<IObjectSafety*>(this);
        else if (riid == IID_IPersistPropertyBag || riid == IID_IPersist)
            *ppv = static_cast<IPersistPropertyBag*>(this);
        else if (riid == IID_IObjectWithSite)
            *ppv = static_cast<IObjectWithSite*>(this);
        else
            return E_NOINTERFACE;
        AddRef();
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override { return *count = 0, S_OK; }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override
    {
        return E_NOTIMPL;
    }
    HRESULT STDMETHODCALLTYPE GetInterfaceSafetyOptions(REFIID riid, DWORD* pSupported, DWORD* pEnabled) override
    {
        calls.push_back(riid == IID_IDispatch ? "Get IDispatch" : "Get bag");
        *pSupported = supported;
        *pEnabled = 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE SetInterfaceSafetyOptions(REFIID riid, DWORD mask, DWORD) override
    {
        calls.push_back((riid == IID_IDispatch ? "Set IDispatch " : "Set bag ") + std::to_string(mask));
        return setSafetyResult;
    }
    HRESULT STDMETHODCALLTYPE GetClassID(CLSID* clsid) override { return *clsid = CLSID_NULL, S_OK; }
    HRESULT STDMETHODCALLTYPE InitNew() override { return calls.push_back("InitNew"), S_OK; }
    HRESULT STDMETHODCALLTYPE Load(IPropertyBag*, IErrorLog*) override { return calls.push_back("Load"), S_OK; }
    HRESULT STDMETHODCALLTYPE Save(IPropertyBag*, BOOL, BOOL) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE SetSite(IUnknown* site) override
    {
        return calls.push_back(site ? "SetSite" : "SetSite null"), S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetSite(REFIID, void** ppv) override { return *ppv = nullptr, E_FAIL; }
};

int UsageExitCode(const std::vector<std::wstring>& args)
{
    try {
        ParseOptions(args);
    } catch (const HostError& error) {
        return error.exitCode;
    }
    return 0;
}

} // namespace

TEST_CASE("tarnhost refuses command lines it cannot honour")
{
    const std::vector<std::pair<std::vector<std::wstring>, int>> rows = {
        {{L"page.js"}, 0},
        {{L"--controls", L"3", L"--param", L"3:Name=a=b:c", L"page.js"}, 0},
        {{L"--url", L"u", L"--no-secmgr", L"page.js"}, 0},
        {{L"--url", L"u", L"--zone", L"h=4", L"page.js"}, 0},
        {{L"--param", L"=x", L"page.js"}, ExitUsage},
        {{L"--param", L"a:Name=x", L"page.js"}, ExitUsage},
        {{L"--param", L"2:Name=x", L"page.js"}, ExitUsage},
        {{L"--url", L"u", L"--zone", L"h=-1", L"page.js"}, ExitUsage},
        {{L"--url", L"u", L"--zone", L"h=12", L"page.js"}, ExitUsage},
        {{L"--no-secmgr", L"page.js"}, ExitUsage},
    };
    for (const auto& row : rows) {
        CAPTURE(row.first.size());
        CHECK(UsageExitCode(row.first) == row.second);
    }
}

TEST_CASE("a control is made safe first, then given its parameters, then sited, and unsited once")
{
    auto control = MakeCom<ProbeControl>();
    auto bag = MakeCom<PropertyBag>();
    bag->Set(L"VendorID", L"acme");
    auto site = MakeCom<BrowserSite>(SiteMode::Normal, L"http://h/", nullptr);
    Control placed =
        InitializeControl(ComPtr<IUnknown>(static_cast<IDispatch*>(control.Get())), 2, L"probe", bag.Get(), site.Get());
    CHECK(placed.scriptName == L"TarnSM2");
    UnsiteControl(placed);
    UnsiteControl(placed);
    CHECK(control->calls == std::vector<std::string>{"Get IDispatch", "Set IDispatch 1", "Get bag", "Set bag 2", "Load",
                                                     "SetSite", "SetSite null"});

    auto pageless = MakeCom<ProbeControl>();
    Control unsited = InitializeControl(ComPtr<IUnknown>(static_cast<IDispatch*>(pageless.Get())), 1, L"p", nullptr, nullptr);
    UnsiteControl(unsited);
    CHECK(pageless->calls.back() == "InitNew");
}

TEST_CASE("a control that is not safe for scripting, or refuses the options, is not used")
{
    auto partial = MakeCom<ProbeControl>();
    partial->supported = INTERFACESAFE_FOR_UNTRUSTED_DATA;
    auto refusing = MakeCom<ProbeControl>();
    refusing->setSafetyResult = E_FAIL;
    for (ProbeControl* control : {partial.Get(), refusing.Get()}) {
        CHECK_THROWS_AS(InitializeControl(ComPtr<IUnknown>(static_cast<IDispatch*>(control)), 1, L"p", nullptr, nullptr),
                        HostError);
        CHECK(std::find(control->calls.begin(), control->calls.end(), "InitNew") == control->calls.end());
    }
}

// The test host brings a control onto the page as a browser does, so the black-box suites
// see what a page would. Everything else of tarnhost is exercised by every black-box run.
#include "BrowserSite.h"
#include "Control.h"
#include "HostError.h"
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
class ProbeControl final : public TarnBase::ComObject<IDispatch, IObjectSafety, IPersistPropertyBag, IObjectWithSite> {
public:
    DWORD supported = INTERFACESAFE_FOR_UNTRUSTED_CALLER | INTERFACESAFE_FOR_UNTRUSTED_DATA;
    HRESULT setSafetyResult = S_OK;
    std::vector<std::string> calls;

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** ppv) override
    {
        *ppv = riid == IID_IUnknown || riid == IID_IDispatch             ? static_cast<void*>(static_cast<IDispatch*>(this))
               : riid == IID_IObjectSafety                               ? static_cast<void*>(static_cast<IObjectSafety*>(this))
               : riid == IID_IPersistPropertyBag || riid == IID_IPersist ? static_cast<void*>(static_cast<IPersistPropertyBag*>(this))
               : riid == IID_IObjectWithSite                             ? static_cast<void*>(static_cast<IObjectWithSite*>(this))
                                                                         : nullptr;
        return *ppv ? AddRef(), S_OK : E_NOINTERFACE;
    }
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override { return *count = 0, S_OK; }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE GetInterfaceSafetyOptions(REFIID riid, DWORD* pSupported, DWORD* pEnabled) override
    {
        calls.push_back(riid == IID_IDispatch ? "Get IDispatch" : "Get bag");
        return *pSupported = supported, *pEnabled = 0, S_OK;
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
    HRESULT STDMETHODCALLTYPE SetSite(IUnknown* site) override { return calls.push_back(site ? "SetSite" : "SetSite null"), S_OK; }
    HRESULT STDMETHODCALLTYPE GetSite(REFIID, void** ppv) override { return *ppv = nullptr, E_FAIL; }
};

ComPtr<IUnknown> Unknown(ProbeControl* control) { return ComPtr<IUnknown>(static_cast<IDispatch*>(control)); }

} // namespace

TEST_CASE("a control is made safe first, then given its parameters, then sited, and unsited once; or not used")
{
    auto control = TarnBase::MakeCom<ProbeControl>();
    auto bag = TarnBase::MakeCom<PropertyBag>();
    bag->Set(L"VendorID", L"acme");
    auto site = TarnBase::MakeCom<BrowserSite>(SiteMode::Normal, L"http://h/", nullptr);
    Control placed = InitializeControl(Unknown(control.Get()), 2, L"probe", bag.Get(), site.Get());
    CHECK(placed.scriptName == L"TarnSM2");
    UnsiteControl(placed);
    UnsiteControl(placed);
    CHECK(control->calls == std::vector<std::string>{"Get IDispatch", "Set IDispatch 1", "Get bag", "Set bag 2", "Load",
                                                     "SetSite", "SetSite null"});
    auto pageless = TarnBase::MakeCom<ProbeControl>();
    Control unsited = InitializeControl(Unknown(pageless.Get()), 1, L"p", nullptr, nullptr);
    UnsiteControl(unsited);
    CHECK(pageless->calls.back() == "InitNew");
    // A control that is not safe for scripting, or refuses the options, is not used.
    auto partial = TarnBase::MakeCom<ProbeControl>();
    partial->supported = INTERFACESAFE_FOR_UNTRUSTED_DATA;
    auto refusing = TarnBase::MakeCom<ProbeControl>();
    refusing->setSafetyResult = E_FAIL;
    for (ProbeControl* control : {partial.Get(), refusing.Get()}) {
        CHECK_THROWS_AS(InitializeControl(Unknown(control), 1, L"p", nullptr, nullptr), HostError);
        CHECK(std::find(control->calls.begin(), control->calls.end(), "InitNew") == control->calls.end());
    }
}

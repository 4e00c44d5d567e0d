#include "PageHost.h"
#include "ChildProcess.h"

#include <doctest.h>

#include <objsafe.h>
#include <ocidl.h>

#include <map>

using namespace TarnTest;

namespace {

// A page's <param> values, as a browser hands them to the control.
class ParamBag : public IPropertyBag {
public:
    explicit ParamBag(std::map<std::wstring, std::wstring> values) : m_values(std::move(values)) {}
    STDMETHODIMP QueryInterface(REFIID iid, void** object) override
    {
        if (::IsEqualIID(iid, IID_IUnknown) || ::IsEqualIID(iid, IID_IPropertyBag)) {
            *object = this;
            return S_OK;
        }
        *object = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return 2; }
    STDMETHODIMP_(ULONG) Release() override { return 1; }
    STDMETHODIMP Read(LPCOLESTR name, VARIANT* value, IErrorLog*) override
    {
        const auto found = m_values.find(name);
        if (found == m_values.end())
            return E_INVALIDARG;
        V_VT(value) = VT_BSTR;
        V_BSTR(value) = ::SysAllocString(found->second.c_str());
        return S_OK;
    }
    STDMETHODIMP Write(LPCOLESTR name, VARIANT* value) override
    {
        m_written[name] = V_VT(value) == VT_BSTR && V_BSTR(value) ? V_BSTR(value) : L"<null>";
        return S_OK;
    }
    std::map<std::wstring, std::wstring> m_written;

private:
    std::map<std::wstring, std::wstring> m_values;
};

// A site that counts its references, to see the control take and drop them.
class CountedSite : public IUnknown {
public:
    STDMETHODIMP QueryInterface(REFIID iid, void** object) override
    {
        if (::IsEqualIID(iid, IID_IUnknown)) {
            *object = this;
            AddRef();
            return S_OK;
        }
        *object = nullptr;
        return E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++references; }
    STDMETHODIMP_(ULONG) Release() override { return --references; }
    ULONG references = 1;
};

} // namespace

TEST_SUITE("the control's standard interfaces")
{
    TEST_CASE("IObjectSafety declares safe for untrusted callers and data")
    {
        ComApartment com;
        ComPtr<ITarnSM> control = CreateControl();
        REQUIRE(control);
        ComPtr<IObjectSafety> safety;
        REQUIRE(SUCCEEDED(control->QueryInterface(IID_IObjectSafety, reinterpret_cast<void**>(safety.GetAddressOf()))));
        DWORD supported = 0, enabled = 99;
        CHECK(safety->GetInterfaceSafetyOptions(IID_IDispatch, nullptr, &enabled) == E_POINTER);
        // {interface, mask, options -> result, then the enabled options of IDispatch}; in order.
        struct Row {
            REFIID iid;
            DWORD mask, options;
            HRESULT result;
            DWORD enabledAfter;
        };
        const Row rows[] = {
            {IID_IDispatch, 0, 0, S_OK, 0},
            {IID_IDispatch, 1, 1, S_OK, 1},
            {IID_IPersistPropertyBag, 2, 2, S_OK, 3},
            {IID_IDispatch, 1, 0, S_OK, 2},  // only masked bits change
            {IID_IDispatch, 4, 4, E_FAIL, 2},
            {IID_IClassFactory, 1, 1, E_NOINTERFACE, 2},  // the interface is checked first
            {IID_IClassFactory, 4, 4, E_NOINTERFACE, 2},
        };
        for (const Row& row : rows) {
            CHECK(safety->SetInterfaceSafetyOptions(row.iid, row.mask, row.options) == row.result);
            CHECK(safety->GetInterfaceSafetyOptions(IID_IDispatch, &supported, &enabled) == S_OK);
            CHECK(supported == 3);
            CHECK(enabled == row.enabledAfter);
        }
        supported = enabled = 7;
        CHECK(safety->GetInterfaceSafetyOptions(IID_IClassFactory, &supported, &enabled) == E_NOINTERFACE);
        CHECK(supported == 0);
        CHECK(enabled == 0);
    }

    TEST_CASE("ISupportErrorInfo answers for ITarnSM only")
    {
        ComApartment com;
        ComPtr<ITarnSM> control = CreateControl();
        REQUIRE(control);
        ComPtr<ISupportErrorInfo> support;
        REQUIRE(SUCCEEDED(control.As(&support)));
        CHECK(support->InterfaceSupportsErrorInfo(TarnSMX::kIidITarnSM) == S_OK);
        CHECK(support->InterfaceSupportsErrorInfo(IID_IDispatch) == S_FALSE);
    }

    TEST_CASE("IObjectWithSite holds exactly one reference to its site")
    {
        ComApartment com;
        ComPtr<ITarnSM> control = CreateControl();
        REQUIRE(control);
        ComPtr<IObjectWithSite> withSite;
        REQUIRE(SUCCEEDED(control.As(&withSite)));
        void* out = reinterpret_cast<void*>(1);
        CHECK(withSite->GetSite(IID_IUnknown, &out) == E_FAIL);
        CHECK(out == nullptr);
        CHECK(withSite->GetSite(IID_IUnknown, nullptr) == E_POINTER);

        CountedSite site;
        CHECK(withSite->SetSite(&site) == S_OK);
        CHECK(site.references == 2);
        CHECK(withSite->SetSite(&site) == S_OK);  // the same site again changes nothing
        CHECK(site.references == 2);
        IUnknown* back = nullptr;
        CHECK(withSite->GetSite(IID_IUnknown, reinterpret_cast<void**>(&back)) == S_OK);
        CHECK(back == &site);
        back->Release();
        CHECK(withSite->GetSite(IID_IDispatch, &out) == E_NOINTERFACE);
        CHECK(withSite->SetSite(nullptr) == S_OK);
        CHECK(site.references == 1);
    }

    TEST_CASE("page parameters act as scripted assignments")
    {
        ComApartment com;
        ComPtr<ITarnSM> control = CreateControl();
        ComPtr<ITarnSM> other = CreateControl();
        REQUIRE(control);
        ComPtr<IPersistPropertyBag> persist;
        REQUIRE(SUCCEEDED(control.As(&persist)));
        CLSID clsid{};
        CHECK(persist->GetClassID(&clsid) == S_OK);
        CHECK(::IsEqualCLSID(clsid, TarnSMX::kClsidTarnSM));

        ParamBag bag(std::map<std::wstring, std::wstring>{{L"VendorID", L"param-vendor"}});
        CHECK(persist->InitNew() == S_OK);
        CHECK(persist->Load(&bag, nullptr) == S_OK);
        BSTR text = nullptr;
        CHECK(other->get_VendorID(&text) == S_OK);  // process-wide, like an assignment
        CHECK(std::wstring(text) == L"param-vendor");
        ::SysFreeString(text);
        CHECK(control->get_TrustedSiteDataFileURL(&text) == S_OK);
        CHECK(text == nullptr);  // a parameter the page did not give is left alone

        ParamBag both(std::map<std::wstring, std::wstring>{{L"VendorID", L"v2"}, {L"TrustedSiteDataFileURL", L"https://cdn.example/t.dll"}});
        CHECK(persist->Load(&both, nullptr) == S_OK);
        CHECK(control->get_TrustedSiteDataFileURL(&text) == S_OK);
        CHECK(std::wstring(text) == L"https://cdn.example/t.dll");
        ::SysFreeString(text);

        ParamBag saved(std::map<std::wstring, std::wstring>{});
        CHECK(persist->Save(&saved, TRUE, TRUE) == S_OK);
        CHECK(saved.m_written[L"TrustedSiteDataFileURL"] == L"https://cdn.example/t.dll");
        CHECK(saved.m_written[L"VendorID"] == L"v2");
        other->put_VendorID(nullptr);
    }
}

TEST_SUITE("the module")
{
    TEST_CASE("DllCanUnloadNow counts live objects, factories and server locks")
    {
        ComApartment com;
        TarnBase::UniqueModule module(::LoadLibraryW(TarnTest::BuildPath("TarnSM/TarnSMX.dll").c_str()));
        REQUIRE(module);
        using GetClassObjectFn = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);
        using CanUnloadFn = HRESULT(STDAPICALLTYPE*)();
        auto getClassObject = reinterpret_cast<GetClassObjectFn>(::GetProcAddress(module.Get(), "DllGetClassObject"));
        auto canUnload = reinterpret_cast<CanUnloadFn>(::GetProcAddress(module.Get(), "DllCanUnloadNow"));
        REQUIRE(static_cast<bool>(getClassObject));
        REQUIRE(static_cast<bool>(canUnload));
        REQUIRE(static_cast<bool>(::GetProcAddress(module.Get(), "DllRegisterServer")));
        REQUIRE(static_cast<bool>(::GetProcAddress(module.Get(), "DllUnregisterServer")));

        CHECK(canUnload() == S_OK);
        ComPtr<IClassFactory> factory;
        CHECK(getClassObject(IID_IClassFactory, IID_IClassFactory, &factory) == CLASS_E_CLASSNOTAVAILABLE);
        REQUIRE(getClassObject(TarnSMX::kClsidTarnSM, IID_IClassFactory, &factory) == S_OK);
        CHECK(canUnload() == S_FALSE);
        ComPtr<IUnknown> object;
        REQUIRE(factory->CreateInstance(nullptr, IID_IUnknown, &object) == S_OK);
        IUnknown* outer = object.Get();
        ComPtr<IUnknown> aggregated;
        CHECK(factory->CreateInstance(outer, IID_IUnknown, &aggregated) == CLASS_E_NOAGGREGATION);
        factory.Reset();
        CHECK(canUnload() == S_FALSE);  // the object still lives
        object.Reset();
        CHECK(canUnload() == S_OK);

        REQUIRE(getClassObject(TarnSMX::kClsidTarnSM, IID_IClassFactory, &factory) == S_OK);
        CHECK(factory->LockServer(TRUE) == S_OK);
        factory.Reset();
        CHECK(canUnload() == S_FALSE);  // locked with no object alive
        REQUIRE(getClassObject(TarnSMX::kClsidTarnSM, IID_IClassFactory, &factory) == S_OK);
        CHECK(factory->LockServer(FALSE) == S_OK);
        factory.Reset();
        CHECK(canUnload() == S_OK);
    }
}

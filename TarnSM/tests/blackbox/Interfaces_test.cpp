#include "PageHost.h"
#include "PropertyBag.h"

#include <doctest.h>

#include <objsafe.h>
#include <ocidl.h>

using namespace TarnTest;

namespace {

// A site that counts its references, to see the control take and drop them.
struct CountedSite : IUnknown {
    STDMETHODIMP QueryInterface(REFIID iid, void** object) override
    {
        *object = ::IsEqualIID(iid, IID_IUnknown) ? this : nullptr;
        return *object ? AddRef(), S_OK : E_NOINTERFACE;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return ++references; }
    STDMETHODIMP_(ULONG) Release() override { return --references; }
    ULONG references = 1;
};

} // namespace

TEST_SUITE("the control's standard interfaces")
{
    TEST_CASE("IObjectSafety: safe for untrusted callers and data; ISupportErrorInfo: ITarnSM only; IObjectWithSite: one reference")
    {
        ComApartment com;
        ComPtr<ITarnSM> control = CreateControl();
        REQUIRE(control);
        ComPtr<IObjectSafety> safety;
        REQUIRE(SUCCEEDED(control->QueryInterface(IID_IObjectSafety, reinterpret_cast<void**>(safety.GetAddressOf()))));
        DWORD supported = 0, enabled = 99;
        CHECK(safety->GetInterfaceSafetyOptions(IID_IDispatch, nullptr, &enabled) == E_POINTER);
        // {interface, mask, options -> result, then the enabled options of IDispatch}; in order.
        struct Row { REFIID iid; DWORD mask, options; HRESULT result; DWORD enabledAfter; };
        const Row rows[] = {
            {IID_IDispatch, 0, 0, S_OK, 0}, {IID_IDispatch, 1, 1, S_OK, 1}, {IID_IPersistPropertyBag, 2, 2, S_OK, 3},
            {IID_IDispatch, 1, 0, S_OK, 2},  // only masked bits change
            {IID_IDispatch, 4, 4, E_FAIL, 2}, {IID_IClassFactory, 1, 1, E_NOINTERFACE, 2},  // the interface first
            {IID_IClassFactory, 4, 4, E_NOINTERFACE, 2},
        };
        for (const Row& row : rows) {
            CHECK(safety->SetInterfaceSafetyOptions(row.iid, row.mask, row.options) == row.result);
            CHECK(safety->GetInterfaceSafetyOptions(IID_IDispatch, &supported, &enabled) == S_OK);
            CHECK(std::make_pair(supported, enabled) == std::make_pair(DWORD(3), row.enabledAfter));
        }
        supported = enabled = 7;
        CHECK(safety->GetInterfaceSafetyOptions(IID_IClassFactory, &supported, &enabled) == E_NOINTERFACE);
        CHECK(supported + enabled == 0);
        ComPtr<ISupportErrorInfo> support;
        REQUIRE(SUCCEEDED(control.As(&support)));
        CHECK(support->InterfaceSupportsErrorInfo(TarnSMX::kIidITarnSM) == S_OK);
        CHECK(support->InterfaceSupportsErrorInfo(IID_IDispatch) == S_FALSE);
        // IObjectWithSite holds exactly one reference to its site.
        ComPtr<IObjectWithSite> withSite;
        REQUIRE(SUCCEEDED(control.As(&withSite)));
        void* out = reinterpret_cast<void*>(1);
        CHECK(withSite->GetSite(IID_IUnknown, &out) == E_FAIL);
        CHECK(out == nullptr);
        CHECK(withSite->GetSite(IID_IUnknown, nullptr) == E_POINTER);
        CountedSite site;
        for (int i = 0; i < 2; ++i) {  // the same site again changes nothing
            CHECK(withSite->SetSite(&site) == S_OK);
            CHECK(site.references == 2);
        }
        CHECK(withSite->GetSite(IID_IUnknown, &out) == S_OK);
        CHECK(out == &site);
        site.Release();
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
        CHECK((persist->GetClassID(&clsid) == S_OK && ::IsEqualCLSID(clsid, TarnSMX::kClsidTarnSM)));
        auto text = [](ITarnSM* c, bool vendor) {
            TarnBase::UniqueBstr value;
            CHECK((vendor ? c->get_VendorID(value.Put()) : c->get_TrustedSiteDataFileURL(value.Put())) == S_OK);
            return std::wstring(value ? value.Get() : L"<null>");
        };
        auto bag = TarnBase::MakeCom<TarnHost::PropertyBag>();
        bag->Set(L"VendorID", L"param-vendor");
        CHECK(persist->InitNew() == S_OK);
        CHECK(persist->Load(bag.Get(), nullptr) == S_OK);
        CHECK(text(other.Get(), true) == L"param-vendor");  // process-wide, like an assignment
        CHECK(text(control.Get(), false) == L"<null>");     // a parameter the page did not give is left alone
        bag->Set(L"VendorID", L"v2");
        bag->Set(L"TrustedSiteDataFileURL", L"https://cdn.example/t.dll");
        CHECK(persist->Load(bag.Get(), nullptr) == S_OK);
        CHECK(text(control.Get(), false) == L"https://cdn.example/t.dll");
        auto saved = TarnBase::MakeCom<TarnHost::PropertyBag>();
        CHECK(persist->Save(saved.Get(), TRUE, TRUE) == S_OK);
        REQUIRE(saved->Find(L"TrustedSiteDataFileURL"));
        REQUIRE(saved->Find(L"VendorID"));
        CHECK(*saved->Find(L"TrustedSiteDataFileURL") + L"|" + *saved->Find(L"VendorID") == L"https://cdn.example/t.dll|v2");
        other->put_VendorID(nullptr);
    }

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
        CHECK(canUnload() == S_OK);
        ComPtr<IClassFactory> factory;
        CHECK(getClassObject(IID_IClassFactory, IID_IClassFactory, &factory) == CLASS_E_CLASSNOTAVAILABLE);
        REQUIRE(getClassObject(TarnSMX::kClsidTarnSM, IID_IClassFactory, &factory) == S_OK);
        CHECK(canUnload() == S_FALSE);
        ComPtr<IUnknown> object;
        REQUIRE(factory->CreateInstance(nullptr, IID_IUnknown, &object) == S_OK);
        ComPtr<IUnknown> aggregated;
        CHECK(factory->CreateInstance(object.Get(), IID_IUnknown, &aggregated) == CLASS_E_NOAGGREGATION);
        factory.Reset();
        CHECK(canUnload() == S_FALSE);  // the object still lives
        object.Reset();
        CHECK(canUnload() == S_OK);

        for (const BOOL lock : {TRUE, FALSE}) {  // locked with no object alive, then unlocked
            REQUIRE(getClassObject(TarnSMX::kClsidTarnSM, IID_IClassFactory, &factory) == S_OK);
            CHECK(factory->LockServer(lock) == S_OK);
            factory.Reset();
            CHECK(canUnload() == (lock ? S_FALSE : S_OK));
        }
    }
}

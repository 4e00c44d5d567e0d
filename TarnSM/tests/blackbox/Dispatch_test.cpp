// The control's COM surface in this process, as a page's browser and script engine use it:
// creation by ProgID, IDispatch names and the type library, properties, the safety, site,
// page-parameter and error-information interfaces, and the class factory.
#include "PageHost.h"
#include "PropertyBag.h"

#include <doctest.h>

#include <functional>
#include <objsafe.h>
#include <ocidl.h>
#include <oleauto.h>

using namespace TarnTest;

namespace {

// The text of `text` ("<null>" for null), which is freed.
std::wstring Take(BSTR text)
{
    const TarnBase::UniqueBstr owned(text);
    return text ? std::wstring(text, ::SysStringLen(text)) : L"<null>";
}

// A property's text; the call must succeed.
std::wstring Property(ITarnSM* control, bool vendor)
{
    BSTR back = reinterpret_cast<BSTR>(1);
    CHECK((vendor ? control->get_VendorID(&back) : control->get_TrustedSiteDataFileURL(&back)) == S_OK);
    return Take(back);
}

std::wstring Help(ITypeInfo* info, MEMBERID id)
{
    BSTR help = nullptr;
    info->GetDocumentation(id, nullptr, &help, nullptr, nullptr);
    return Take(help);
}

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

TEST_SUITE("the control through IDispatch and its standard interfaces")
{
    TEST_CASE("both ProgIDs create the control; names map to the fixed ids; the type library has the exact names")
    {
        ComApartment com;
        ComPtr<ITarnSM> control = CreateControl(L"TarnSM.TarnSM");
        REQUIRE(control);
        REQUIRE(CreateControl(L"TarnSM.TarnSM.1"));
        const std::pair<const wchar_t*, DISPID> ids[] = {
            {L"TrustedSiteDataFileURL", 1}, {L"VendorID", 2},   {L"IsCurrentSiteAvailable", 4},
            {L"IsCurrentSiteLocal", 8},     {L"IsCurrentSiteTrusted", 12}, {L"IsCurrentContainerTrusted", 16},
            {L"IsSiteTrusted", 20},         {L"IsContainerTrusted", 24},  {L"vendorid", 2},  // any letter case
            {L"NoSuchMember", DISPID_UNKNOWN},
        };
        for (const auto& id : ids) {
            LPOLESTR name = const_cast<LPOLESTR>(id.first);
            DISPID got = DISPID_UNKNOWN;
            control->GetIDsOfNames(IID_NULL, &name, 1, LOCALE_USER_DEFAULT, &got);
            CHECK(got == id.second);
        }

        ComPtr<ITypeInfo> info;
        REQUIRE(SUCCEEDED(control->GetTypeInfo(0, 0, &info)));
        const std::pair<MEMBERID, const wchar_t*> strings[] = {
            {MEMBERID_NIL, L"ITarnSM Interface"}, {1, L"property TrustedSiteDataFileURL"}, {2, L"property VendorID"},
            {4, L"method IsCurrentSiteAvailable"}, {16, L"method IsCurrentContainerTrusted"}, {24, L"method IsContainerTrusted"},
        };
        for (const auto& h : strings)
            CHECK(Help(info.Get(), h.first) == h.second);
        ComPtr<ITypeLib> library;
        UINT index = 0;
        REQUIRE(SUCCEEDED(info->GetContainingTypeLib(&library, &index)));
        BSTR name = nullptr, help = nullptr;
        library->GetDocumentation(-1, &name, &help, nullptr, nullptr);
        CHECK(Take(name) + L"|" + Take(help) == L"TarnSMLib|TarnSM 1.0 Type Library");
        ComPtr<ITypeInfo> coclass;
        REQUIRE(SUCCEEDED(library->GetTypeInfoOfGuid(TarnSMX::kClsidTarnSM, &coclass)));
        CHECK(Help(coclass.Get(), MEMBERID_NIL) == L"TarnSM Class");
        BSTR names[3] = {};  // parameter names too (the dispatch view hides the retval)
        UINT count = 0;
        REQUIRE(SUCCEEDED(info->GetNames(24, names, 3, &count)));
        CHECK(Take(names[0]) + L"|" + Take(names[1]) + L"|" + Take(names[2]) == L"IsContainerTrusted|AltTrustList|Container");
    }

    TEST_CASE("properties round-trip (null, empty, embedded zero); VendorID is one value for the process; page parameters are assignments")
    {
        ComApartment com;
        ComPtr<ITarnSM> control = CreateControl();
        ComPtr<ITarnSM> second = CreateControl(L"TarnSM.TarnSM.1");
        REQUIRE(control);
        REQUIRE(second);
        CHECK(Property(control.Get(), false) == L"<null>");  // nothing stored at creation
        for (const std::wstring& text : {std::wstring(L"../data/sites.dll"), std::wstring(L"<null>"), std::wstring(),
                                         std::wstring(L"a\0b", 3)}) {  // bytes kept exactly
            const TarnBase::UniqueBstr value(text == L"<null>" ? nullptr : ::SysAllocStringLen(text.data(), UINT(text.size())));
            CHECK(control->put_TrustedSiteDataFileURL(value.Get()) == S_OK);
            CHECK(Property(control.Get(), false) == text);
        }
        CHECK(second->put_VendorID(TarnBase::UniqueBstr(::SysAllocString(L"acme")).Get()) == S_OK);
        CHECK(Property(control.Get(), true) == L"acme");
        CHECK(control->put_VendorID(nullptr) == S_OK);  // null clears it for everyone
        CHECK(Property(second.Get(), true) == L"");

        // Page parameters act as scripted assignments.
        ComPtr<IPersistPropertyBag> persist;
        REQUIRE(SUCCEEDED(control.As(&persist)));
        auto bag = TarnBase::MakeCom<TarnHost::PropertyBag>();
        bag->Set(L"VendorID", L"param-vendor");
        CHECK(persist->InitNew() == S_OK);
        CHECK(persist->Load(bag.Get(), nullptr) == S_OK);
        CHECK(Property(second.Get(), true) == L"param-vendor");  // process-wide, like an assignment
        CHECK(Property(control.Get(), false) == std::wstring(L"a\0b", 3));  // a parameter the page did not give is left alone
        bag->Set(L"VendorID", L"v2");
        bag->Set(L"TrustedSiteDataFileURL", L"https://cdn.example/t.dll");
        CHECK(persist->Load(bag.Get(), nullptr) == S_OK);
        CHECK(Property(control.Get(), false) == L"https://cdn.example/t.dll");
        auto saved = TarnBase::MakeCom<TarnHost::PropertyBag>();
        CHECK(persist->Save(saved.Get(), TRUE, TRUE) == S_OK);
        REQUIRE((saved->Find(L"TrustedSiteDataFileURL") && saved->Find(L"VendorID")));
        CHECK(*saved->Find(L"TrustedSiteDataFileURL") + L"|" + *saved->Find(L"VendorID") == L"https://cdn.example/t.dll|v2");
        second->put_VendorID(nullptr);
    }

    TEST_CASE("unsited: every question false with S_OK, two E_NOTIMPL; a null output pointer E_FAIL with NULL_POINTER_ERROR")
    {
        ComApartment com;
        ComPtr<ITarnSM> control = CreateControl();
        REQUIRE(control);
        const size_t notImplemented = CountRingMessages("IsSiteTrusted: Not implemented.");
        BSTR text = nullptr;
        // {member, its result with an output pointer, the call with `answer` as the output (getters: `text`)}
        const std::tuple<const char*, HRESULT, std::function<HRESULT(VARIANT_BOOL*)>> calls[] = {
            {"get_TrustedSiteDataFileURL", S_OK, [&](VARIANT_BOOL* a) { return control->get_TrustedSiteDataFileURL(a ? &text : nullptr); }},
            {"get_VendorID", S_OK, [&](VARIANT_BOOL* a) { return control->get_VendorID(a ? &text : nullptr); }},
            {"IsCurrentSiteAvailable", S_OK, [&](VARIANT_BOOL* a) { return control->IsCurrentSiteAvailable(a); }},
            {"IsCurrentSiteLocal", S_OK, [&](VARIANT_BOOL* a) { return control->IsCurrentSiteLocal(a); }},
            {"IsCurrentSiteTrusted", S_OK, [&](VARIANT_BOOL* a) { return control->IsCurrentSiteTrusted(a); }},
            {"IsCurrentContainerTrusted", S_OK, [&](VARIANT_BOOL* a) { return control->IsCurrentContainerTrusted(nullptr, a); }},
            {"IsSiteTrusted", E_NOTIMPL, [&](VARIANT_BOOL* a) { return control->IsSiteTrusted(nullptr, a); }},
            {"IsContainerTrusted", E_NOTIMPL, [&](VARIANT_BOOL* a) { return control->IsContainerTrusted(nullptr, nullptr, a); }},
        };
        for (const auto& call : calls) {
            const std::string member = std::get<0>(call), record = member + "():  Error - Invalid Return Parameter.";
            CAPTURE(member);
            VARIANT_BOOL answer = VARIANT_TRUE;
            CHECK(std::get<2>(call)(&answer) == std::get<1>(call));
            CHECK((answer == VARIANT_FALSE || member.compare(0, 4, "get_") == 0));
            Take(text), text = nullptr;
            const size_t before = CountRingMessages(record);
            CHECK(std::get<2>(call)(nullptr) == E_FAIL);
            ComPtr<IErrorInfo> error;
            REQUIRE(::GetErrorInfo(0, &error) == S_OK);
            BSTR description = nullptr, source = nullptr;
            error->GetDescription(&description);
            error->GetSource(&source);
            CHECK(Take(description) + L"|" + Take(source) == L"NULL_POINTER_ERROR|TarnSM.TarnSM.1");
            CHECK(CountRingMessages(record) == before + 1);
        }
        CHECK(CountRingMessages("IsSiteTrusted: Not implemented.") == notImplemented + 2);  // why, for unsited: SiteDiscovery
    }

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
        ComPtr<IUnknown> got;
        CHECK(withSite->GetSite(IID_IUnknown, reinterpret_cast<void**>(got.GetAddressOf())) == S_OK);
        CHECK(got.Get() == &site);
        got.Reset();
        CHECK(withSite->GetSite(IID_IDispatch, &out) == E_NOINTERFACE);
        CHECK(withSite->SetSite(nullptr) == S_OK);
        CHECK(site.references == 1);
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

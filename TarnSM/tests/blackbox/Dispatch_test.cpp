#include "PageHost.h"

#include <doctest.h>

#include <oleauto.h>

using namespace TarnTest;

namespace {

DISPID IdOf(ITarnSM* control, const wchar_t* name)
{
    LPOLESTR names[] = {const_cast<LPOLESTR>(name)};
    DISPID id = DISPID_UNKNOWN;
    const HRESULT hr = control->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id);
    return SUCCEEDED(hr) ? id : DISPID_UNKNOWN;
}

HRESULT PutById(ITarnSM* control, DISPID id, VARIANT value)
{
    DISPID named = DISPID_PROPERTYPUT;
    DISPPARAMS params{&value, &named, 1, 1};
    return control->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_PROPERTYPUT, &params, nullptr, nullptr, nullptr);
}

VARIANT BstrVariant(const wchar_t* text)
{
    VARIANT v;
    ::VariantInit(&v);
    V_VT(&v) = VT_BSTR;
    V_BSTR(&v) = text ? ::SysAllocString(text) : nullptr;
    return v;
}

std::wstring HelpString(ITypeInfo* info, MEMBERID id)
{
    BSTR help = nullptr;
    info->GetDocumentation(id, nullptr, &help, nullptr, nullptr);
    std::wstring text = help ? help : L"";
    ::SysFreeString(help);
    return text;
}

} // namespace

TEST_SUITE("the control through IDispatch")
{
    TEST_CASE("both ProgIDs create the control and names map to the fixed dispatch ids")
    {
        ComApartment com;
        ComPtr<ITarnSM> control = CreateControl(L"TarnSM.TarnSM");
        REQUIRE(control);
        REQUIRE(CreateControl(L"TarnSM.TarnSM.1"));
        const std::pair<const wchar_t*, DISPID> ids[] = {
            {L"TrustedSiteDataFileURL", 1}, {L"VendorID", 2},   {L"IsCurrentSiteAvailable", 4},
            {L"IsCurrentSiteLocal", 8},     {L"IsCurrentSiteTrusted", 12}, {L"IsCurrentContainerTrusted", 16},
            {L"IsSiteTrusted", 20},         {L"IsContainerTrusted", 24},  {L"vendorid", 2},  // any letter case
        };
        for (const auto& id : ids)
            CHECK(IdOf(control.Get(), id.first) == id.second);
        CHECK(IdOf(control.Get(), L"NoSuchMember") == DISPID_UNKNOWN);
    }

    TEST_CASE("the type library carries its exact names and help strings")
    {
        ComApartment com;
        ComPtr<ITarnSM> control = CreateControl();
        REQUIRE(control);
        ComPtr<ITypeInfo> info;
        REQUIRE(SUCCEEDED(control->GetTypeInfo(0, 0, &info)));
        const std::pair<MEMBERID, const wchar_t*> strings[] = {
            {MEMBERID_NIL, L"ITarnSM Interface"}, {1, L"property TrustedSiteDataFileURL"}, {2, L"property VendorID"},
            {4, L"method IsCurrentSiteAvailable"}, {16, L"method IsCurrentContainerTrusted"}, {24, L"method IsContainerTrusted"},
        };
        for (const auto& h : strings)
            CHECK(HelpString(info.Get(), h.first) == h.second);

        ComPtr<ITypeLib> library;
        UINT index = 0;
        REQUIRE(SUCCEEDED(info->GetContainingTypeLib(&library, &index)));
        BSTR name = nullptr;
        BSTR help = nullptr;
        library->GetDocumentation(-1, &name, &help, nullptr, nullptr);
        CHECK(std::wstring(name) == L"TarnSMLib");
        CHECK(std::wstring(help) == L"TarnSM 1.0 Type Library");
        ::SysFreeString(name);
        ::SysFreeString(help);
        TLIBATTR* attributes = nullptr;
        REQUIRE(SUCCEEDED(library->GetLibAttr(&attributes)));
        CHECK(attributes->wMajorVerNum == 1);
        CHECK(attributes->wMinorVerNum == 0);
        library->ReleaseTLibAttr(attributes);

        ComPtr<ITypeInfo> coclass;
        REQUIRE(SUCCEEDED(library->GetTypeInfoOfGuid(TarnSMX::kClsidTarnSM, &coclass)));
        CHECK(HelpString(coclass.Get(), MEMBERID_NIL) == L"TarnSM Class");

        // Parameter names come from the library too (the dispatch view hides the retval).
        BSTR names[3] = {};
        UINT count = 0;
        REQUIRE(SUCCEEDED(info->GetNames(24, names, 3, &count)));
        REQUIRE(count == 3);
        CHECK(std::wstring(names[0]) == L"IsContainerTrusted");
        CHECK(std::wstring(names[1]) == L"AltTrustList");
        CHECK(std::wstring(names[2]) == L"Container");
        for (BSTR n : names)
            ::SysFreeString(n);
    }

    TEST_CASE("properties round-trip by id (null, empty, embedded zero); VendorID is one value for the process")
    {
        ComApartment com;
        ComPtr<ITarnSM> control = CreateControl();
        ComPtr<ITarnSM> second = CreateControl(L"TarnSM.TarnSM.1");
        REQUIRE(control);
        REQUIRE(second);
        // {value put by id (VT_NULL for null) -> what the interface gives back ("<null>" for null)}.
        // Through IDispatch the platform may show null as empty; the interface itself answers null.
        const std::pair<const wchar_t*, std::wstring> rows[] = {
            {L"../data/sites.dll", L"../data/sites.dll"}, {nullptr, L"<null>"}, {L"", L""}};
        auto get = [&](ITarnSM* c, bool vendor) {
            BSTR back = reinterpret_cast<BSTR>(1);
            CHECK((vendor ? c->get_VendorID(&back) : c->get_TrustedSiteDataFileURL(&back)) == S_OK);
            const std::wstring text = back ? std::wstring(back, ::SysStringLen(back)) : L"<null>";
            ::SysFreeString(back);
            return text;
        };
        CHECK(get(control.Get(), false) == L"<null>");  // nothing stored at creation
        for (const auto& row : rows) {
            VARIANT value = BstrVariant(row.first);
            if (!row.first)
                V_VT(&value) = VT_NULL;
            CHECK(PutById(control.Get(), 1, value) == S_OK);
            ::VariantClear(&value);
            CHECK(get(control.Get(), false) == row.second);
        }
        BSTR odd = ::SysAllocStringLen(L"a\0b", 3);  // bytes kept exactly
        CHECK(control->put_TrustedSiteDataFileURL(odd) == S_OK);
        ::SysFreeString(odd);
        CHECK(get(control.Get(), false) == std::wstring(L"a\0b", 3));

        BSTR vendor = ::SysAllocString(L"acme");
        CHECK(second->put_VendorID(vendor) == S_OK);
        ::SysFreeString(vendor);
        CHECK(get(control.Get(), true) == L"acme");
        CHECK(control->put_VendorID(nullptr) == S_OK);  // null clears it for everyone
        CHECK(get(second.Get(), true) == L"");
    }

    TEST_CASE("an unsited control answers every question false, with S_OK, and says why in the log")
    {
        ComApartment com;
        ComPtr<ITarnSM> control = CreateControl();
        REQUIRE(control);
        for (int question = 0; question < 4; ++question) {
            VARIANT_BOOL answer = VARIANT_TRUE;
            const HRESULT hr = question == 0   ? control->IsCurrentSiteAvailable(&answer)
                               : question == 1 ? control->IsCurrentSiteLocal(&answer)
                               : question == 2 ? control->IsCurrentSiteTrusted(&answer)
                                               : control->IsCurrentContainerTrusted(nullptr, &answer);
            CHECK(hr == S_OK);
            CHECK(answer == VARIANT_FALSE);
        }

        CHECK(CountRingMessages("GetCurrentSiteURLAndZone: Failed to QI to IServiceProvider from our site.") >= 2);
        CHECK(CountRingMessages("IsCurrentSiteAvailableInternal: Failed to get current site URL.") >= 1);
        CHECK(CountRingMessages("IsCurrentSiteLocalInternal: Failed to get current site URL and zone.") >= 1);
    }

    TEST_CASE("IsSiteTrusted and IsContainerTrusted are not implemented and log the same line")
    {
        ComApartment com;
        ComPtr<ITarnSM> control = CreateControl();
        REQUIRE(control);
        const size_t before = CountRingMessages("IsSiteTrusted: Not implemented.");
        VARIANT_BOOL answer = VARIANT_TRUE;
        BSTR site = ::SysAllocString(L"example.com");
        CHECK(control->IsSiteTrusted(site, &answer) == E_NOTIMPL);
        CHECK(answer == VARIANT_FALSE);
        answer = VARIANT_TRUE;
        CHECK(control->IsContainerTrusted(site, site, &answer) == E_NOTIMPL);
        CHECK(answer == VARIANT_FALSE);
        ::SysFreeString(site);
        CHECK(CountRingMessages("IsSiteTrusted: Not implemented.") == before + 2);

        // Through IDispatch a script sees the status code itself.
        VARIANT result;
        EXCEPINFO exception{};
        VARIANT arg = BstrVariant(L"x");
        DISPPARAMS one{&arg, nullptr, 1, 0};
        ::VariantInit(&result);
        const HRESULT hr = control->Invoke(20, IID_NULL, 0, DISPATCH_METHOD, &one, &result, &exception, nullptr);
        ::VariantClear(&arg);
        CHECK((hr == DISP_E_EXCEPTION ? exception.scode : hr) == E_NOTIMPL);
        ::SysFreeString(exception.bstrSource);
        ::SysFreeString(exception.bstrDescription);
        ::SysFreeString(exception.bstrHelpFile);
    }

    TEST_CASE("a null output pointer gives E_FAIL, NULL_POINTER_ERROR and its record")
    {
        ComApartment com;
        ComPtr<ITarnSM> control = CreateControl();
        REQUIRE(control);
        struct Case {
            const char* name;
            HRESULT (*call)(ITarnSM*);
        };
        const Case cases[] = {
            {"get_TrustedSiteDataFileURL", [](ITarnSM* c) { return c->get_TrustedSiteDataFileURL(nullptr); }},
            {"get_VendorID", [](ITarnSM* c) { return c->get_VendorID(nullptr); }},
            {"IsCurrentSiteAvailable", [](ITarnSM* c) { return c->IsCurrentSiteAvailable(nullptr); }},
            {"IsCurrentSiteLocal", [](ITarnSM* c) { return c->IsCurrentSiteLocal(nullptr); }},
            {"IsCurrentSiteTrusted", [](ITarnSM* c) { return c->IsCurrentSiteTrusted(nullptr); }},
            {"IsCurrentContainerTrusted", [](ITarnSM* c) { return c->IsCurrentContainerTrusted(nullptr, nullptr); }},
            {"IsSiteTrusted", [](ITarnSM* c) { return c->IsSiteTrusted(nullptr, nullptr); }},
            {"IsContainerTrusted", [](ITarnSM* c) { return c->IsContainerTrusted(nullptr, nullptr, nullptr); }},
        };
        for (const Case& c : cases) {
            CAPTURE(c.name);
            const std::string record = std::string(c.name) + "():  Error - Invalid Return Parameter.";
            const size_t before = CountRingMessages(record);
            CHECK(c.call(control.Get()) == E_FAIL);
            ComPtr<IErrorInfo> error;
            REQUIRE(::GetErrorInfo(0, &error) == S_OK);
            BSTR description = nullptr;
            BSTR source = nullptr;
            error->GetDescription(&description);
            error->GetSource(&source);
            CHECK(std::wstring(description) == L"NULL_POINTER_ERROR");
            CHECK(std::wstring(source) == L"TarnSM.TarnSM.1");
            ::SysFreeString(description);
            ::SysFreeString(source);
            CHECK(CountRingMessages(record) == before + 1);
        }
        CHECK(CountRingMessages("get_VendorID():  Exception - NULL_POINTER_ERROR.  Extended Data = <>") >= 1);
    }
}

#include "PageHost.h"
#include "TarnBase/win/Owners.h"

#include <doctest.h>

#include <oleauto.h>

using namespace TarnTest;

namespace {

// The text of `text` ("<null>" for null), which is freed.
std::wstring Take(BSTR text)
{
    const TarnBase::UniqueBstr owned(text);
    return text ? std::wstring(text, ::SysStringLen(text)) : L"<null>";
}

std::wstring Help(ITypeInfo* info, MEMBERID id)
{
    BSTR help = nullptr;
    info->GetDocumentation(id, nullptr, &help, nullptr, nullptr);
    return Take(help);
}

} // namespace

TEST_SUITE("the control through IDispatch")
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

    TEST_CASE("properties round-trip (null, empty, embedded zero); VendorID is one value for the process")
    {
        ComApartment com;
        ComPtr<ITarnSM> control = CreateControl();
        ComPtr<ITarnSM> second = CreateControl(L"TarnSM.TarnSM.1");
        REQUIRE(control);
        REQUIRE(second);
        auto get = [](ITarnSM* c, bool vendor) {
            BSTR back = reinterpret_cast<BSTR>(1);
            CHECK((vendor ? c->get_VendorID(&back) : c->get_TrustedSiteDataFileURL(&back)) == S_OK);
            return Take(back);
        };
        CHECK(get(control.Get(), false) == L"<null>");  // nothing stored at creation
        for (const std::wstring& text : {std::wstring(L"../data/sites.dll"), std::wstring(L"<null>"), std::wstring(),
                                         std::wstring(L"a\0b", 3)}) {  // bytes kept exactly
            const TarnBase::UniqueBstr value(text == L"<null>" ? nullptr : ::SysAllocStringLen(text.data(), UINT(text.size())));
            CHECK(control->put_TrustedSiteDataFileURL(value.Get()) == S_OK);
            CHECK(get(control.Get(), false) == text);
        }
        CHECK(second->put_VendorID(TarnBase::UniqueBstr(::SysAllocString(L"acme")).Get()) == S_OK);
        CHECK(get(control.Get(), true) == L"acme");
        CHECK(control->put_VendorID(nullptr) == S_OK);  // null clears it for everyone
        CHECK(get(second.Get(), true) == L"");
    }

    TEST_CASE("unsited: every question false with S_OK, a reason logged, two E_NOTIMPL; a null output pointer E_FAIL")
    {
        ComApartment com;
        ComPtr<ITarnSM> control = CreateControl();
        REQUIRE(control);
        const size_t before = CountRingMessages("IsSiteTrusted: Not implemented.");
        const TarnBase::UniqueBstr siteName(::SysAllocString(L"example.com"));
        BSTR site = siteName.Get();
        const std::pair<HRESULT, HRESULT (*)(ITarnSM*, BSTR, VARIANT_BOOL*)> calls[] = {
            {S_OK, [](ITarnSM* c, BSTR, VARIANT_BOOL* a) { return c->IsCurrentSiteAvailable(a); }},
            {S_OK, [](ITarnSM* c, BSTR, VARIANT_BOOL* a) { return c->IsCurrentSiteLocal(a); }},
            {S_OK, [](ITarnSM* c, BSTR, VARIANT_BOOL* a) { return c->IsCurrentSiteTrusted(a); }},
            {S_OK, [](ITarnSM* c, BSTR, VARIANT_BOOL* a) { return c->IsCurrentContainerTrusted(nullptr, a); }},
            {E_NOTIMPL, [](ITarnSM* c, BSTR s, VARIANT_BOOL* a) { return c->IsSiteTrusted(s, a); }},
            {E_NOTIMPL, [](ITarnSM* c, BSTR s, VARIANT_BOOL* a) { return c->IsContainerTrusted(s, s, a); }},
        };
        for (const auto& call : calls) {
            VARIANT_BOOL answer = VARIANT_TRUE;
            CHECK(call.second(control.Get(), site, &answer) == call.first);
            CHECK(answer == VARIANT_FALSE);
        }
        CHECK(CountRingMessages("IsSiteTrusted: Not implemented.") == before + 2);
        CHECK(CountRingMessages("GetCurrentSiteURLAndZone: Failed to QI to IServiceProvider from our site.") >= 2);
        CHECK(CountRingMessages("IsCurrentSiteAvailableInternal: Failed to get current site URL.") >= 1);
        CHECK(CountRingMessages("IsCurrentSiteLocalInternal: Failed to get current site URL and zone.") >= 1);
        // A null output pointer gives E_FAIL, NULL_POINTER_ERROR and its record.
        const std::pair<const char*, HRESULT (*)(ITarnSM*)> cases[] = {
            {"get_TrustedSiteDataFileURL", [](ITarnSM* c) { return c->get_TrustedSiteDataFileURL(nullptr); }},
            {"get_VendorID", [](ITarnSM* c) { return c->get_VendorID(nullptr); }},
            {"IsCurrentSiteAvailable", [](ITarnSM* c) { return c->IsCurrentSiteAvailable(nullptr); }},
            {"IsCurrentSiteLocal", [](ITarnSM* c) { return c->IsCurrentSiteLocal(nullptr); }},
            {"IsCurrentSiteTrusted", [](ITarnSM* c) { return c->IsCurrentSiteTrusted(nullptr); }},
            {"IsCurrentContainerTrusted", [](ITarnSM* c) { return c->IsCurrentContainerTrusted(nullptr, nullptr); }},
            {"IsSiteTrusted", [](ITarnSM* c) { return c->IsSiteTrusted(nullptr, nullptr); }},
            {"IsContainerTrusted", [](ITarnSM* c) { return c->IsContainerTrusted(nullptr, nullptr, nullptr); }},
        };
        for (const auto& c : cases) {
            CAPTURE(c.first);
            const std::string record = std::string(c.first) + "():  Error - Invalid Return Parameter.";
            const size_t before = CountRingMessages(record);
            CHECK(c.second(control.Get()) == E_FAIL);
            ComPtr<IErrorInfo> error;
            REQUIRE(::GetErrorInfo(0, &error) == S_OK);
            BSTR description = nullptr, source = nullptr;
            error->GetDescription(&description);
            error->GetSource(&source);
            CHECK(Take(description) + L"|" + Take(source) == L"NULL_POINTER_ERROR|TarnSM.TarnSM.1");
            CHECK(CountRingMessages(record) == before + 1);
        }
        CHECK(CountRingMessages("get_VendorID():  Exception - NULL_POINTER_ERROR.  Extended Data = <>") >= 1);
    }
}

// Container trust by name, driven from outside: the page host copied under the names a
// container may have, in local and remote pages or with no page, with vendor lists in the
// registry and alternative lists from the page (several lists are asked in one process).
// No test here writes the shared trusted-process table (tarngrant's tests do, alone).
#include "BlackBoxPages.h"
#include "TarnSM/ContainerNames.h"

#include <memory>

using namespace TarnTest;

namespace {

const std::wstring kLocal = L"file:///C:/x/page.html";
const std::wstring kRemote = L"http://127.0.0.1/page.html";
const std::wstring kMyHost = L"bXlob3N0LmV4ZQ==";  // "myhost.exe"

enum class Vendor { None, Lists, Case, LookAlike, LookAlikeControl, InexactOnly, Bare, Empty, Unknown };

} // namespace

TEST_CASE("container names table: built-in list, case, the browser, zones, vendor and alternative lists")
{
    // {host copy, page, vendor setup, alternative lists asked in turn (none: "" once) ->
    // answers; more tarnhost options; a record that tells why}
    struct Row { const wchar_t* host; std::wstring url; Vendor vendor; std::vector<std::wstring> lists; const char* answers; std::vector<std::wstring> more = {}; const char* why = nullptr; };
    const std::vector<Row> rows = {
        {L"iehost.exe", L"", Vendor::None, {}, "true\n"},  // the built-in list, first and last names
        {L"tarnservicehostd.exe", L"", Vendor::None, {}, "true\n"},
        {L"MsHta.Exe", kLocal, Vendor::None, {}, "true\n", {},
         "IsCurrentContainerTrustedInternal: Our current container is trusted. Container: mshta.exe."},
        {L"myhost.exe", kLocal, Vendor::None, {}, "false\n", {},
         "IsCurrentContainerTrustedInternal: Our current container is not trusted. Container: myhost.exe."},
        {L"IEXPLORE.EXE", kLocal, Vendor::None, {}, "false\n"},
        {L"mshta.exe.exe", kLocal, Vendor::None, {}, "false\n"},
        {L"xmshta.exe", L"", Vendor::None, {}, "false\n"},
        {L"myhost.exe", kRemote, Vendor::None, {kMyHost}, "false\n"},
        {L"mshta.exe", kRemote, Vendor::None, {}, "false\n", {L"--zone", L"127.0.0.1=1"}},  // more zones: SiteDiscovery_test
        {L"myhost.exe", kLocal, Vendor::Lists, {}, "true\n"},
        {L"MYHOST.EXE", L"", Vendor::Lists, {}, "true\n"},
        {L"mshta.exe", kLocal, Vendor::Lists, {L"", L"bXNodGEuZXhl"}, "false\ntrue\n"},
        {L"myhost.exe", L"", Vendor::Case, {}, "true\n"},
        {L"iexplore.exe", L"", Vendor::Case, {}, "false\n"},
        {L"myhost.exe", L"", Vendor::LookAlike, {}, "false\n"},
        {L"myhost.exe", L"", Vendor::LookAlikeControl, {}, "true\n"},
        {L"mshta.exe", kLocal, Vendor::Bare, {}, "true\n"},
        {L"myhost.exe", kLocal, Vendor::Bare, {}, "false\n"},
        {L"mshta.exe", kLocal, Vendor::Empty, {}, "true\n"},
        {L"myhost.exe", kLocal, Vendor::Empty, {}, "false\n"},
        {L"myhost.exe", L"", Vendor::Unknown, {}, "false\n"},
        // How a list's tokens read is in AltTrustList_test; here, that the page's list is used.
        {L"myhost.exe", kLocal, Vendor::None, {kMyHost, L"b3RoZXIuZXhl", L"!!!!;;;"}, "true\nfalse\nfalse\n"},
        {L"iexplore.exe", kLocal, Vendor::None, {L"SUVYUExPUkUuRVhF"}, "false\n"},  // never the browser
        // A name without an exact ANSI form matches nothing, but the vendor's list still replaces the built-in one.
        {L"mshta.exe", L"", Vendor::InexactOnly, {}, "false\n"},
    };
    const std::wstring longest(255, L'x');
    PageHost pages;
    for (const Row& row : rows) {
        CAPTURE(Narrow(row.host) + " " + std::to_string(int(row.vendor)) + " " + row.answers);
        const std::string name = Unique("ContainerVendor");
        std::unique_ptr<VendorKey> vendor;
        if (row.vendor != Vendor::None && row.vendor != Vendor::Unknown)
            vendor.reset(new VendorKey(name));
        switch (row.vendor) {
        case Vendor::Lists: vendor->AddContainers({L"myhost.exe"}); break;
        case Vendor::Case: vendor->AddContainers({L"MyHost.EXE", L"IEXPLORE.EXE", L"iexplore.exe"}); break;
        // Fullwidth "m", which a narrowing registry read would turn into a plain "m"; a name at
        // the registry's length limit.
        case Vendor::LookAlike: vendor->AddContainers({longest, L"\xFF4Dyhost.exe", L"myhost.exe "}); break;
        case Vendor::LookAlikeControl: vendor->AddContainers({longest, L"\xFF4Dyhost.exe", L"myhost.exe"}); break;
        case Vendor::InexactOnly: vendor->AddContainers({L"\xFF4Dyhost.exe"}); break;
        case Vendor::Empty: vendor->AddContainers(); break;
        default: break;
        }
        std::vector<std::wstring> options = PageAt(row.url);
        if (row.vendor != Vendor::None)
            options.insert(options.end(), {L"--param", L"VendorID=" + Widen(name)});
        options.insert(options.end(), row.more.begin(), row.more.end());
        const PageRun run = pages.Run(options, kAskContainerScript, row.lists, row.host);
        CHECK(run.result.exitCode == 0);
        CHECK(run.out == row.answers);
        if (row.why)
            CHECK(run.Logged(row.why));
        if (row.vendor == Vendor::Unknown)
            CHECK(run.Logged("IsCurrentContainerTrustedInternal: Invalid VendorID parameter provided. Failling back to defaults. VendorID: " + name + "."));
    }
}

TEST_CASE("the built-in list holds exactly these 19 names")
{
    // Written out here, not taken from the control's sources, so a wrong entry shows.
    const std::vector<std::string> names = {
        "iehost.exe", "jsharpde.exe", "jview.exe", "ostrumbrowser.exe", "ostrumsb.exe", "tarnbrowser.exe",
        "tarntrayapp.exe", "mshta.exe", "quillon.exe", "regsvr32.exe", "pallidor.exe", "wjview.exe", "merrow.exe",
        "tarncmservice.exe", "tarncmserviced.exe", "tarncontrolhost.exe", "tarncontrolhostd.exe",
        "tarnservicehost.exe", "tarnservicehostd.exe"};
    CHECK(std::vector<std::string>(TarnSMX::kBuiltInContainers.begin(), TarnSMX::kBuiltInContainers.end()) == names);
}

TEST_CASE("in one process: the vendor's list is read once and kept for the process's life")
{
    ComApartment com;
    ComPtr<ITarnSM> control = CreateControl();
    REQUIRE(control);
    const std::wstring name = L"tarnsmx_blackbox.exe";  // this program
    VendorKey vendor(Unique("ContainerCache"));
    vendor.AddContainers({name});
    // The vendor is process-wide: whatever happens here, later tests must see none.
    struct Reset {
        ITarnSM* control;
        void Set(const std::string& id) const { control->put_VendorID(TarnBase::UniqueBstr(::SysAllocString(Widen(id).c_str())).Get()); }
        ~Reset() { Set(""); }
    } reset{control.Get()};
    reset.Set(vendor.Name());
    auto ask = [](ITarnSM* c) {
        VARIANT_BOOL answer = VARIANT_FALSE;
        return c->IsCurrentContainerTrusted(nullptr, &answer) == S_OK && answer == VARIANT_TRUE;
    };
    CHECK(ask(control.Get()));
    vendor.RemoveContainer(name);  // changes nothing until the process restarts
    CHECK(ask(control.Get()));
    CHECK(ask(CreateControl().Get()));  // a second control shares the vendor and its list
    reset.Set("");
    CHECK_FALSE(ask(control.Get()));
}

// Container trust by name, driven from outside: the page host copied under the names a
// container may have, in local and remote pages or with no page, with vendor lists in the
// registry and alternative lists from the page (several lists are asked in one process).
// No test here writes the shared trusted-process table (tarngrant's tests do, alone).
#include "PageHost.h"
#include "Registry.h"
#include "TarnSM/ContainerNames.h"
#include "TarnBase/win/Owners.h"

#include <doctest.h>

#include <memory>

using namespace TarnTest;

namespace {

const std::wstring kLocal = L"file:///C:/x/page.html";
const std::wstring kRemote = L"http://127.0.0.1/page.html";
const std::wstring kMyHost = L"bXlob3N0LmV4ZQ==";  // "myhost.exe"

enum class Vendor { None, Lists, Case, LookAlike, LookAlikeControl, Bare, Empty, Unknown };

std::vector<std::wstring> Options(const std::wstring& url, const std::string& vendor = "",
                                  const std::vector<std::wstring>& more = {})
{
    std::vector<std::wstring> options = more;
    if (!url.empty())
        options.insert(options.end(), {L"--url", url});
    if (!vendor.empty())
        options.insert(options.end(), {L"--param", L"VendorID=" + Widen(vendor)});
    return options;
}

} // namespace

TEST_CASE("container names table: built-in list, case, the browser, zones, vendor and alternative lists")
{
    // {host copy, page, vendor setup, alternative lists asked in turn (none: "" once) ->
    // answers; more tarnhost options; a record that tells why}
    struct Row { const wchar_t* host; std::wstring url; Vendor vendor; std::vector<std::wstring> lists; const char* answers; std::vector<std::wstring> more = {}; const char* why = nullptr; };
    const std::vector<Row> rows = {
        {L"MsHta.Exe", kLocal, Vendor::None, {}, "true\n", {},
         "IsCurrentContainerTrustedInternal: Our current container is trusted. Container: mshta.exe."},
        {L"myhost.exe", kLocal, Vendor::None, {}, "false\n", {},
         "IsCurrentContainerTrustedInternal: Our current container is not trusted. Container: myhost.exe."},
        {L"IEXPLORE.EXE", kLocal, Vendor::None, {}, "false\n"},
        {L"mshta.exe.exe", kLocal, Vendor::None, {}, "false\n"},
        {L"xmshta.exe", L"", Vendor::None, {}, "false\n"},
        {L"mshta.exe", kRemote, Vendor::None, {}, "false\n", {},
         "IsCurrentContainerTrustedInternal: Current site is available and is remote. Container trust is not supported in this scenario."},
        {L"myhost.exe", kRemote, Vendor::None, {kMyHost}, "false\n"},
        {L"mshta.exe", kRemote, Vendor::None, {}, "false\n", {L"--zone", L"127.0.0.1=1"}},
        {L"mshta.exe", kRemote, Vendor::None, {}, "false\n", {L"--zone", L"127.0.0.1=2"}},
        {L"mshta.exe", kRemote, Vendor::None, {}, "true\n", {L"--zone", L"127.0.0.1=0"}},
        {L"mshta.exe", kRemote, Vendor::None, {}, "true\n", {L"--site-mode", L"location-fails"}},
        {L"mshta.exe", kRemote, Vendor::None, {}, "true\n", {L"--site-mode", L"no-service-provider"}},
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
        {L"myhost.exe", kLocal, Vendor::None,
         {kMyHost, L";;bXlob3N0LmV4ZQ==;", L"TXlIb3N0LkVYRQ==", L"b3RoZXIuZXhl;bXlob3N0LmV4ZQ", L"b3RoZXIuZXhl",
          L"!!!!;;;", L"bXlob3N0LmV4ZQB4"},
         "true\ntrue\ntrue\ntrue\nfalse\nfalse\ntrue\n"},
        // A page can never make the browser a trusted container.
        {L"iexplore.exe", kLocal, Vendor::None, {L"SUVYUExPUkUuRVhF", L"aWV4cGxvcmUuZXhl", L"aWV4cGxvcmUuZXhlAA=="},
         "false\nfalse\nfalse\n"},
    };
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
        // Fullwidth "m", which a narrowing registry read would turn into a plain "m".
        case Vendor::LookAlike: vendor->AddContainers({L"\xFF4Dyhost.exe", L"myhost.exe "}); break;
        case Vendor::LookAlikeControl: vendor->AddContainers({L"\xFF4Dyhost.exe", L"myhost.exe"}); break;
        case Vendor::Empty: vendor->AddContainers(); break;
        default: break;
        }
        const PageRun run = pages.Run(Options(row.url, row.vendor == Vendor::None ? "" : name, row.more),
                                      kAskContainerScript, row.lists, row.host);
        CHECK(run.result.exitCode == 0);
        CHECK(run.out == row.answers);
        if (row.why)
            CHECK(run.Logged(row.why));
        if (row.vendor == Vendor::Unknown)
            CHECK(run.Logged("IsCurrentContainerTrustedInternal: Invalid VendorID parameter provided. Failling back to defaults. VendorID: " + name + "."));
    }
}

TEST_CASE("the built-in list holds exactly these 19 names, and it is wired in")
{
    // Written out here, not taken from the control's sources, so a wrong entry shows.
    const std::vector<std::string> names = {
        "iehost.exe", "jsharpde.exe", "jview.exe", "ostrumbrowser.exe", "ostrumsb.exe", "tarnbrowser.exe",
        "tarntrayapp.exe", "mshta.exe", "quillon.exe", "regsvr32.exe", "pallidor.exe", "wjview.exe", "merrow.exe",
        "tarncmservice.exe", "tarncmserviced.exe", "tarncontrolhost.exe", "tarncontrolhostd.exe",
        "tarnservicehost.exe", "tarnservicehostd.exe"};
    CHECK(std::vector<std::string>(TarnSMX::kBuiltInContainers.begin(), TarnSMX::kBuiltInContainers.end()) == names);
    PageHost pages;
    for (const wchar_t* name : {L"iehost.exe", L"tarnservicehostd.exe"})
        CHECK(pages.Run({}, kAskContainerScript, {}, name).out == "true\n");
}

TEST_CASE("in one process: the vendor's list is read once and kept for the process's life")
{
    ComApartment com;
    ComPtr<ITarnSM> control = CreateControl();
    REQUIRE(control);
    wchar_t self[MAX_PATH] = {};
    ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    std::wstring name = self;
    name = name.substr(name.find_last_of(L'\\') + 1);
    ::CharLowerW(&name[0]);
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

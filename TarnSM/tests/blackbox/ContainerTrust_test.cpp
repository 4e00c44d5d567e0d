// Container trust by name, driven from outside: the page host copied under the names a
// container may have, in local and remote pages or with no page at all, with vendor lists
// in the registry and alternative lists from the page. No test here writes the shared
// trusted-process table (those run alone, in tarngrant's tests).
#include "BlackBox.h"
#include "tools/tarngrant/tests/ContainerHost.h"

#include <doctest.h>

using namespace BlackBox;
using namespace ContainerTest;

namespace {

const std::wstring kLocalPage = L"file:///C:/x/page.html";
const std::wstring kRemotePage = L"http://127.0.0.1/page.html";

// One answer per line, as the query script prints them.
std::string Ask(HostDirectory& dir, const std::wstring& hostName, const std::vector<std::wstring>& options,
                const std::wstring& altList = L"", int queries = 1)
{
    const auto run = RunHost(dir, dir.Host(hostName), options, altList, queries);
    REQUIRE_MESSAGE(run.started, "cannot start the page host copy " << Narrow(hostName));
    CHECK_MESSAGE(run.exitCode == 0, "host exit " << run.exitCode << ": " << run.err);
    CHECK_FALSE(run.timedOut);
    return run.out;
}

std::vector<std::wstring> Page(const std::wstring& url, const std::string& vendor = "")
{
    std::vector<std::wstring> options;
    if (!url.empty())
        options = {L"--url", url};
    if (!vendor.empty()) {
        options.push_back(L"--param");
        options.push_back(L"VendorID=" + std::wstring(vendor.begin(), vendor.end()));
    }
    return options;
}

bool HostBuilt()
{
    return ::GetFileAttributesW(TarnHostPath().c_str()) != INVALID_FILE_ATTRIBUTES;
}

} // namespace

TEST_CASE("container names: the built-in list, letter case, the browser and strangers")
{
    REQUIRE_MESSAGE(HostBuilt(), "build tarnhost first");
    HostDirectory dir;
    SUBCASE("a local page")
    {
        CHECK(Ask(dir, L"mshta.exe", Page(kLocalPage)) == "true\n");
        CHECK(Ask(dir, L"MSHTA.EXE", Page(kLocalPage)) == "true\n");
        CHECK(Ask(dir, L"MsHta.Exe", Page(kLocalPage)) == "true\n");
        CHECK(Ask(dir, L"myhost.exe", Page(kLocalPage)) == "false\n");
        CHECK(Ask(dir, L"iexplore.exe", Page(kLocalPage)) == "false\n");
        CHECK(Ask(dir, L"IEXPLORE.EXE", Page(kLocalPage)) == "false\n");
        // Near misses of a listed name.
        CHECK(Ask(dir, L"mshta.exe.exe", Page(kLocalPage)) == "false\n");
        CHECK(Ask(dir, L"xmshta.exe", Page(kLocalPage)) == "false\n");
    }
    SUBCASE("no page at all: the host is judged by its name alone")
    {
        CHECK(Ask(dir, L"mshta.exe", Page(L"")) == "true\n");
        CHECK(Ask(dir, L"myhost.exe", Page(L"")) == "false\n");
    }
    SUBCASE("a remote page is refused whatever the host's name")
    {
        const auto run = RunHost(dir, dir.Host(L"mshta.exe"), Page(kRemotePage));
        CHECK(run.out == "false\n");
        CHECK(Ask(dir, L"myhost.exe", Page(kRemotePage), L"bXlob3N0LmV4ZQ==") == "false\n");
        // Intranet and trusted-sites zones are not local either.
        CHECK(Ask(dir, L"mshta.exe", {L"--url", kRemotePage, L"--zone", L"127.0.0.1=1"}) == "false\n");
        CHECK(Ask(dir, L"mshta.exe", {L"--url", kRemotePage, L"--zone", L"127.0.0.1=2"}) == "false\n");
        // The page's own manager may put any URL in zone 0.
        CHECK(Ask(dir, L"mshta.exe", {L"--url", kRemotePage, L"--zone", L"127.0.0.1=0"}) == "true\n");
    }
    SUBCASE("a page whose browser cannot tell its location counts as no page")
    {
        CHECK(Ask(dir, L"mshta.exe", {L"--url", kRemotePage, L"--site-mode", L"location-fails"}) == "true\n");
        CHECK(Ask(dir, L"mshta.exe", {L"--url", kRemotePage, L"--site-mode", L"no-service-provider"}) == "true\n");
    }
}

TEST_CASE("every name of the built-in list is trusted")
{
    REQUIRE_MESSAGE(HostBuilt(), "build tarnhost first");
    HostDirectory dir;
    // Written out here, not taken from the control's sources, so a wrong entry shows.
    for (const wchar_t* name :
         {L"iehost.exe", L"jsharpde.exe", L"jview.exe", L"ostrumbrowser.exe", L"ostrumsb.exe", L"tarnbrowser.exe",
          L"tarntrayapp.exe", L"mshta.exe", L"quillon.exe", L"regsvr32.exe", L"pallidor.exe", L"wjview.exe",
          L"merrow.exe", L"tarncmservice.exe", L"tarncmserviced.exe", L"tarncontrolhost.exe",
          L"tarncontrolhostd.exe", L"tarnservicehost.exe", L"tarnservicehostd.exe"}) {
        CAPTURE(Narrow(name));
        CHECK(Ask(dir, name, Page(L"")) == "true\n");
    }
}

TEST_CASE("the log tells why: remote page, trusted and untrusted names")
{
    REQUIRE_MESSAGE(HostBuilt(), "build tarnhost first");
    HostDirectory dir;
    {
        Process host(HostArgs(dir, dir.Host(L"mshta.exe"), Page(kRemotePage)), false);
        REQUIRE(host.Finish().out == "false\n");
        const auto log = RingMessagesOf(host.Pid());
        CHECK(HasMessage(log, "GetCurrentSiteAvailableAndLocal: Found current site: http://127.0.0.1/page.html."));
        CHECK(HasMessage(log, "GetCurrentSiteAvailableAndLocal: Found current site's security zone: 3."));
        CHECK(HasMessage(log, "IsCurrentContainerTrustedInternal: Current site is available and is remote. Container trust is not supported in this scenario."));
        // Refused before the table or the name is looked at.
        CHECK_FALSE(HasMessage(log, "GetCurrentModuleName: Current container: mshta.exe,"));
    }
    {
        Process host(HostArgs(dir, dir.Host(L"MSHTA.EXE"), Page(kLocalPage)), false);
        REQUIRE(host.Finish().out == "true\n");
        const auto log = RingMessagesOf(host.Pid());
        CHECK(HasMessage(log, "GetCurrentSiteAvailableAndLocal: Found current site's security zone: 0."));
        CHECK(HasMessage(log, "GetCurrentModuleName: Current container: mshta.exe,"));
        CHECK(HasMessage(log, "IsCurrentContainerTrustedInternal: Our current container is trusted. Container: mshta.exe."));
    }
    {
        Process host(HostArgs(dir, dir.Host(L"myhost.exe"), Page(L""), L"", 2), false);
        REQUIRE(host.Finish().out == "false\nfalse\n");
        const auto log = RingMessagesOf(host.Pid());
        CHECK(HasMessage(log, "GetCurrentSiteAvailableAndLocal: Failed to get current site URL and zone."));
        CHECK(CountMessages(log, "IsCurrentContainerTrustedInternal: Our current container is not trusted. Container: myhost.exe.") == 2);
        CHECK(HasMessage(log, "FindProcess():  Failed to find specified process in list , PID = " + std::to_string(host.Pid()) + "."));
    }
}

TEST_CASE("vendor lists from the registry")
{
    REQUIRE_MESSAGE(HostBuilt(), "build tarnhost first");
    HostDirectory dir;
    SUBCASE("a vendor's list replaces the built-in one")
    {
        VendorKey vendor(UniqueVendor("Replace"));
        vendor.AddContainers({"myhost.exe"});
        CHECK(Ask(dir, L"myhost.exe", Page(kLocalPage, vendor.Name())) == "true\n");
        CHECK(Ask(dir, L"MYHOST.EXE", Page(L"", vendor.Name())) == "true\n");
        CHECK(Ask(dir, L"mshta.exe", Page(kLocalPage, vendor.Name())) == "false\n");
        // The page's alternative list still adds to a vendor's list.
        CHECK(Ask(dir, L"mshta.exe", Page(kLocalPage, vendor.Name()), L"bXNodGEuZXhl") == "true\n");
    }
    SUBCASE("subkey names are lower-cased; the browser is refused from the registry too")
    {
        VendorKey vendor(UniqueVendor("Case"));
        vendor.AddContainers({"MyHost.EXE", "IEXPLORE.EXE", "iexplore.exe"});
        CHECK(Ask(dir, L"myhost.exe", Page(L"", vendor.Name())) == "true\n");
        CHECK(Ask(dir, L"iexplore.exe", Page(L"", vendor.Name())) == "false\n");
    }
    SUBCASE("names the ANSI code page cannot hold exactly are no look-alikes of plain names")
    {
        VendorKey vendor(UniqueVendor("LookAlike"));
        // Fullwidth "m", which the narrow registry call would turn into a plain "m".
        vendor.AddContainersWide({L"\xFF4Dyhost.exe", L"myhost.exe "});
        CHECK(Ask(dir, L"myhost.exe", Page(L"", vendor.Name())) == "false\n");
        VendorKey again(UniqueVendor("LookAlikeControl"));
        again.AddContainersWide({L"\xFF4Dyhost.exe", L"myhost.exe"});
        CHECK(Ask(dir, L"myhost.exe", Page(L"", again.Name())) == "true\n");
    }
    SUBCASE("a vendor key without containers, or with an empty list, keeps the built-in list")
    {
        VendorKey bare(UniqueVendor("Bare"));
        CHECK(Ask(dir, L"mshta.exe", Page(kLocalPage, bare.Name())) == "true\n");
        CHECK(Ask(dir, L"myhost.exe", Page(kLocalPage, bare.Name())) == "false\n");
        VendorKey empty(UniqueVendor("Empty"));
        empty.AddContainers();
        CHECK(Ask(dir, L"mshta.exe", Page(kLocalPage, empty.Name())) == "true\n");
        CHECK(Ask(dir, L"myhost.exe", Page(kLocalPage, empty.Name())) == "false\n");
    }
    SUBCASE("an unknown vendor falls back to the built-in list and says so")
    {
        const std::string unknown = UniqueVendor("Unknown");
        Process host(HostArgs(dir, dir.Host(L"mshta.exe"), Page(L"", unknown)), false);
        CHECK(host.Finish().out == "true\n");
        CHECK(HasMessage(RingMessagesOf(host.Pid()),
                         "IsCurrentContainerTrustedInternal: Invalid VendorID parameter provided. Failling back to defaults. VendorID: " +
                             unknown + "."));
        CHECK(Ask(dir, L"myhost.exe", Page(L"", unknown)) == "false\n");
    }
}

TEST_CASE("alternative lists from the page")
{
    REQUIRE_MESSAGE(HostBuilt(), "build tarnhost first");
    HostDirectory dir;
    const auto local = Page(kLocalPage);
    CHECK(Ask(dir, L"myhost.exe", local, L"bXlob3N0LmV4ZQ==") == "true\n");           // myhost.exe
    CHECK(Ask(dir, L"myhost.exe", local, L";;bXlob3N0LmV4ZQ==;") == "true\n");        // separators around it
    CHECK(Ask(dir, L"myhost.exe", local, L"TXlIb3N0LkVYRQ==") == "true\n");           // MyHost.EXE
    CHECK(Ask(dir, L"myhost.exe", local, L"b3RoZXIuZXhl;bXlob3N0LmV4ZQ") == "true\n"); // second item, no padding
    CHECK(Ask(dir, L"myhost.exe", local, L"b3RoZXIuZXhl") == "false\n");               // other.exe
    CHECK(Ask(dir, L"myhost.exe", local, L"!!!!;;;") == "false\n");                    // nothing decodable
    CHECK(Ask(dir, L"myhost.exe", local, L"bXlob3N0LmV4ZQ==", 3) == "true\ntrue\ntrue\n");
    // A page can never make the browser a trusted container.
    CHECK(Ask(dir, L"iexplore.exe", local, L"SUVYUExPUkUuRVhF") == "false\n");         // IEXPLORE.EXE
    CHECK(Ask(dir, L"iexplore.exe", local, L"aWV4cGxvcmUuZXhl") == "false\n");         // iexplore.exe
    CHECK(Ask(dir, L"iexplore.exe", local, L"aWV4cGxvcmUuZXhlAA==") == "false\n");     // with a zero byte
    // A name followed by a zero byte is that name.
    CHECK(Ask(dir, L"myhost.exe", local, L"bXlob3N0LmV4ZQB4") == "true\n");
}

TEST_CASE("in one process: the vendor's list is read once and kept for the process's life")
{
    ComApartment com;
    ComPtr<ITarnSM> control = CreateControl();
    REQUIRE(control);
    char self[MAX_PATH] = {};
    ::GetModuleFileNameA(nullptr, self, MAX_PATH);
    std::string name = self;
    name = name.substr(name.find_last_of('\\') + 1);
    for (auto& c : name)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));

    VendorKey vendor(UniqueVendor("Cache"));
    vendor.AddContainers({name});
    // The vendor is process-wide: whatever happens here, later tests must see none.
    struct VendorReset {
        ITarnSM* control;
        ~VendorReset()
        {
            BSTR none = ::SysAllocString(L"");
            control->put_VendorID(none);
            ::SysFreeString(none);
        }
    } reset{control.Get()};
    const std::wstring vendorWide(vendor.Name().begin(), vendor.Name().end());
    BSTR vendorId = ::SysAllocString(vendorWide.c_str());
    REQUIRE(control->put_VendorID(vendorId) == S_OK);
    ::SysFreeString(vendorId);

    VARIANT_BOOL answer = VARIANT_FALSE;
    CHECK(control->IsCurrentContainerTrusted(nullptr, &answer) == S_OK);
    CHECK(answer == VARIANT_TRUE);
    // Removing the entry from the registry changes nothing until the process restarts.
    vendor.RemoveContainer(name);
    answer = VARIANT_FALSE;
    CHECK(control->IsCurrentContainerTrusted(nullptr, &answer) == S_OK);
    CHECK(answer == VARIANT_TRUE);
    // A second control of the process shares the vendor and its list.
    ComPtr<ITarnSM> second = CreateControl();
    answer = VARIANT_FALSE;
    CHECK(second->IsCurrentContainerTrusted(nullptr, &answer) == S_OK);
    CHECK(answer == VARIANT_TRUE);

    // Without the vendor this test program is nobody's container.
    BSTR none = ::SysAllocString(L"");
    control->put_VendorID(none);
    ::SysFreeString(none);
    answer = VARIANT_TRUE;
    CHECK(control->IsCurrentContainerTrusted(nullptr, &answer) == S_OK);
    CHECK(answer == VARIANT_FALSE);
    CHECK(CountRingMessages("GetCurrentModuleName: Current container: " + name + ",") >= 3);
}

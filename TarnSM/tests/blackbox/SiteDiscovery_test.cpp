// Site discovery seen from outside: tarnhost.exe, as mshta.exe (a trusted container name),
// sites the registered control on a page; the page asks IsCurrentSiteAvailable,
// IsCurrentSiteLocal and IsCurrentContainerTrusted (refused for remote and unreadable pages),
// and the control's records tell which URL and zone it found. Zones come from the prefix's
// zone map (written per row), the page's own security manager, or none.
#include "PageHost.h"
#include "Registry.h"

#include <doctest.h>

using namespace TarnTest;

namespace {

const char kZoneMap[] = "Software\\Microsoft\\Windows\\CurrentVersion\\Internet Settings\\ZoneMap\\Domains\\";
const char kCoCreate[] =
    "GetCurrentSiteURLAndZone: Failed to retrieve security manager from container. Will attempt CoCreate directly. "
    "HRESULT = <0x80004002>";
const char kNoProvider[] = "GetCurrentSiteURLAndZone: Failed to QI to IServiceProvider from our site.";
const char kScript[] = "host.Echo('available=' + TarnSM.IsCurrentSiteAvailable());\n"
                       "host.Echo('local=' + TarnSM.IsCurrentSiteLocal());\n"
                       "host.Echo('container=' + TarnSM.IsCurrentContainerTrusted(''));\n";

} // namespace

TEST_CASE("site discovery table: URL, zone source and site mode -> available, local, container trust, and the record that says why")
{
    // {what, url (empty: no page, the control is not sited), tarnhost options, a zone map entry
    // for http on mapHost, if any -> answers (a: available, l: local, c: container trusted),
    // the zone found (-1: none),
    // further records that must be there (by prefix)}
    struct Row { const char* what; std::wstring url; std::vector<std::wstring> options; std::string mapHost; DWORD mapZone; std::string answers; int zone; std::vector<std::string> records; };
    const std::wstring www = L"http://www.tarn-sd.example/page.html", file = L"file:///C:/pages/page.html";
    const std::string unmapped = "http://unmapped.tarn-sd.example/dir/page.html?x=1";
    const std::vector<Row> rows = {
        {"intranet through the zone map", L"http://z1.tarn-sd.example/p.html", {}, "z1.tarn-sd.example", 1, "a", 1, {kCoCreate}},
        {"restricted through the zone map", L"http://z4.tarn-sd.example/p.html", {}, "z4.tarn-sd.example", 4, "a", 4, {}},
        {"an https page with only an http mapping", L"https://s.tarn-sd.example/p.html", {}, "s.tarn-sd.example", 2, "a", 3, {}},
        {"unmapped http", Widen(unmapped), {}, "", 0, "a", 3,
         {"IsCurrentContainerTrustedInternal: Current site is available and is remote. Container trust is not supported in this scenario.",
          "GetCurrentSiteURLAndZone: Found current IE site URL: " + unmapped + ".",
          "IsCurrentSiteAvailableInternal: Found current site: " + unmapped + "."}},
        {"a file page", file, {}, "", 0, "alc", 0, {}},
        {"the page's manager says 0", www, {L"--zone", L"www.tarn-sd.example=0"}, "", 0, "alc", 0, {}},
        {"the page's manager says 2", www, {L"--zone", L"www.tarn-sd.example=2"}, "", 0, "a", 2, {}},
        {"the page's manager does not know the host", file, {L"--zone", L"other.tarn-sd.example=0"}, "", 0, "a", 3, {}},
        {"no security manager on the page", file, {L"--no-secmgr"}, "", 0, "alc", -1, {kCoCreate}},
        {"unsited", L"", {}, "", 0, "c", -1,
         {kNoProvider, "IsCurrentSiteAvailableInternal: Failed to get current site URL.",
          "IsCurrentSiteLocalInternal: Failed to get current site URL and zone."}},
        {"no service provider", www, {L"--site-mode", L"no-service-provider"}, "", 0, "c", -1, {kNoProvider}},
        {"no browser service", www, {L"--site-mode", L"no-browser"}, "", 0, "c", -1,
         {"GetCurrentSiteURLAndZone: Failed retrieve IWebBrowser2 from container. HRESULT = <0x80004002>"}},
        {"the browser's location fails", www, {L"--site-mode", L"location-fails"}, "", 0, "c", -1,
         {"GetCurrentSiteURLAndZone: Failed get location URL from IWebBrowser2. HRESULT = <0x80004005>"}},
        {"longer than the 2086-character parse buffers",
         L"http://long.tarn-sd.example/" + std::wstring(3000, L'p') + L"/page.html", {}, "", 0, "a", 3, {}},
        {"characters outside the ANSI code page: a page that is there but never local",
         L"http://www.tarn-sd.example/\u4e2d\u6587/page.html", {}, "", 0, "a", -1,
         {"IsCurrentSiteAvailableInternal: Current site is present, but its URL or security zone cannot be read.",
          "IsCurrentContainerTrustedInternal: Current site's URL or security zone cannot be read. Container trust cannot be determined."}},
    };
    PageHost pages;
    for (const Row& row : rows) {
        CAPTURE(row.what);
        std::unique_ptr<ScopedRegistryKey> mapping;
        if (!row.mapHost.empty()) {
            mapping.reset(new ScopedRegistryKey(HKEY_CURRENT_USER, kZoneMap + row.mapHost));
            REQUIRE(mapping->SetDword("http", row.mapZone));
        }
        std::vector<std::wstring> options = row.options;
        if (!row.url.empty())
            options.insert(options.begin(), {L"--url", row.url});
        const PageRun run = pages.Run(options, kScript, {}, L"mshta.exe");
        CHECK(run.result.exitCode == 0);
        auto has = [&](char answer) { return row.answers.find(answer) != std::string::npos ? "true" : "false"; };
        const bool available = row.answers.find('a') != std::string::npos;
        CHECK(run.out == std::string("available=") + has('a') + "\nlocal=" + has('l') + "\ncontainer=" + has('c') + "\n");
        std::vector<std::string> records = row.records;
        if (row.zone >= 0)
            records.push_back("IsCurrentSiteLocalInternal: Found current site's security zone: " + std::to_string(row.zone) + ".");
        for (const auto& record : records)
            CHECK_MESSAGE(run.Logged(record), record);
        if (!available)
            CHECK_FALSE(run.Logged("IsCurrentSiteAvailableInternal: Found current site"));
    }
}

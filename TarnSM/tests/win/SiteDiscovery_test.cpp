// Site discovery seen from outside: the registered TarnSMX.dll in tarnhost.exe, a page
// script asking IsCurrentSiteAvailable and IsCurrentSiteLocal, and the control's records
// read back from the machine-wide log ring. Zones come from the prefix's own zone map or
// from the page's security manager; the platform's security manager, asked here in the
// test process, is the reference for every zone the DLL reports.

#include "ChildProcess.h"
#include "DownloadTestSupport.h"
#include "RingReader.h"

#include "TarnLog/Log.h"

#include <urlmon.h>
#include <wrl/client.h>

#include <doctest.h>

#include <string>
#include <vector>

using namespace DownloadTest;

namespace {

const char kZoneMapDomains[] = "Software\\Microsoft\\Windows\\CurrentVersion\\Internet Settings\\ZoneMap\\Domains\\";
const char kCoCreateRecord[] =
    "GetCurrentSiteURLAndZone: Failed to retrieve security manager from container. Will attempt CoCreate directly. "
    "HRESULT = <0x80004002>";

const char kPageScript[] =
    "var c = host.Control(1);\r\n"
    "host.Echo('available=' + c.IsCurrentSiteAvailable());\r\n"
    "host.Echo('local=' + c.IsCurrentSiteLocal());\r\n";

struct PageRun {
    TarnTest::ChildResult child;
    std::vector<TarnLog::LogRecord> records; // the control's, in tarnhost.exe, oldest first
    bool ringRead = false;

    bool Has(const std::string& message, int level = -1) const
    {
        for (const auto& r : records)
            if (TarnLog::ReadField(r.message, sizeof r.message) == message && (level < 0 || r.level == level))
                return true;
        return false;
    }
    std::string Dump() const
    {
        std::string text = "stdout: " + child.out + "stderr: " + child.err + "records:\n";
        for (const auto& r : records)
            text += "  [" + std::to_string(r.level) + "] " + TarnLog::ReadField(r.message, sizeof r.message) + "\n";
        return text;
    }
};

std::wstring ScriptPath()
{
    static TempDir dir(L"sd");
    static const bool written = dir.Put(L"page.js", kPageScript);
    (void)written;
    return dir / L"page.js";
}

// Runs one page in tarnhost.exe; the test program runs alone (serial), so every record of a
// tarnhost.exe process written meanwhile is this page's.
PageRun RunPage(const std::vector<std::wstring>& options)
{
    PageRun run;
    // Holding the ring open here keeps it alive after tarnhost.exe has ended.
    TarnLog::Log("TarnTest", 4, "SiteDiscovery_test: running a page");
    TarnTest::RingReader ring;
    TarnLog::RingSnapshot snapshot;
    std::string error;
    const bool haveStart = ring.Snapshot(snapshot, error);
    const uint32_t start = snapshot.writeCounter;

    std::vector<std::wstring> args{TarnTest::BuildPath("tools/tarnhost/tarnhost.exe")};
    args.insert(args.end(), options.begin(), options.end());
    args.push_back(ScriptPath());
    run.child = TarnTest::RunChild(args, 60000);

    std::vector<uint8_t> bytes;
    std::vector<TarnLog::LogRecord> since;
    uint32_t counter = 0, lost = 0;
    if (haveStart && ring.CopyBytes(bytes) &&
        TarnLog::ReadRingSince(bytes.data(), bytes.size(), start, since, counter, lost) && lost == 0) {
        run.ringRead = true;
        for (const auto& r : since)
            if (TarnLog::ReadField(r.processName, sizeof r.processName) == "tarnhost.exe" &&
                TarnLog::ReadField(r.className, sizeof r.className) == "TarnSMX::TarnSM")
                run.records.push_back(r);
    }
    return run;
}

PageRun RunPageAt(const std::wstring& url, std::vector<std::wstring> options = {})
{
    options.insert(options.begin(), {L"--url", url});
    return RunPage(options);
}

// What the platform's own security manager says about a URL, in this process.
HRESULT ReferenceZone(const std::wstring& url, DWORD& zone)
{
    Microsoft::WRL::ComPtr<IInternetSecurityManager> manager;
    HRESULT hr = ::CoInternetCreateSecurityManager(nullptr, &manager, 0);
    if (FAILED(hr))
        return hr;
    zone = 0;
    return manager->MapUrlToZone(url.c_str(), &zone, 0);
}

std::string Hex(HRESULT hr)
{
    char text[16];
    snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(hr));
    return text;
}

std::string Ansi(const std::wstring& text)
{
    const int n = ::WideCharToMultiByte(CP_ACP, 0, text.c_str(), static_cast<int>(text.size()), nullptr, 0, nullptr,
                                        nullptr);
    std::string narrow(static_cast<size_t>(n > 0 ? n : 0), '\0');
    if (n > 0)
        ::WideCharToMultiByte(CP_ACP, 0, text.c_str(), static_cast<int>(text.size()), &narrow[0], n, nullptr, nullptr);
    return narrow;
}

// The answers and records of a page whose URL and zone were both found.
void CheckSited(const PageRun& run, const std::wstring& url, DWORD zone)
{
    INFO(run.Dump());
    REQUIRE(run.child.started);
    CHECK_FALSE(run.child.timedOut);
    CHECK(run.child.exitCode == 0);
    CHECK(run.child.out == std::string("available=true\nlocal=") + (zone == 0 ? "true" : "false") + "\n");
    REQUIRE(run.ringRead);
    const std::string narrowUrl = Ansi(url);
    CHECK(run.Has("GetCurrentSiteURLAndZone: Found current IE site URL: " + narrowUrl + ".", 4));
    CHECK(run.Has("IsCurrentSiteAvailableInternal: Found current site: " + narrowUrl + ".", 3));
    CHECK(run.Has("IsCurrentSiteLocalInternal: Found current site: " + narrowUrl + ".", 3));
    CHECK(run.Has("IsCurrentSiteLocalInternal: Found current site's security zone: " + std::to_string(zone) + ".", 3));
}

// The answers and records of a page whose URL or zone could not be found.
void CheckUnsited(const PageRun& run, const std::string& cause, int causeLevel)
{
    INFO(run.Dump());
    REQUIRE(run.child.started);
    CHECK_FALSE(run.child.timedOut);
    CHECK(run.child.exitCode == 0);
    CHECK(run.child.out == "available=false\nlocal=false\n");
    REQUIRE(run.ringRead);
    CHECK(run.Has(cause, causeLevel));
    CHECK(run.Has("IsCurrentSiteAvailableInternal: Failed to get current site URL.", 3));
    CHECK(run.Has("IsCurrentSiteLocalInternal: Failed to get current site URL and zone.", 3));
    for (const auto& r : run.records)
        CHECK(TarnLog::ReadField(r.message, sizeof r.message).find("Found current site") == std::string::npos);
}

struct Apartment {
    Apartment() { ::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED); }
    ~Apartment() { ::CoUninitialize(); }
};

} // namespace

TEST_SUITE("site discovery through tarnhost")
{
    TEST_CASE("pages mapped through the zone map answer with their zone")
    {
        Apartment apartment;
        std::string host;
        std::string scheme;
        std::wstring url;
        DWORD zone = 0;
        SUBCASE("intranet (1)")
        {
            host = "z1.tarn-sd.example";
            scheme = "http";
            zone = 1;
        }
        SUBCASE("trusted sites (2), an https page")
        {
            host = "z2.tarn-sd.example";
            scheme = "https";
            zone = 2;
        }
        SUBCASE("restricted (4)")
        {
            host = "z4.tarn-sd.example";
            scheme = "http";
            zone = 4;
        }
        SUBCASE("an IP address")
        {
            host = "192.0.2.7";
            scheme = "http";
            zone = 1;
        }
        ScopedRegistryKey mapping(HKEY_CURRENT_USER, kZoneMapDomains + host);
        REQUIRE(mapping.SetDword(scheme, zone));
        url = Wide(scheme + "://" + host + "/dir/page.html");

        DWORD reference = 99;
        REQUIRE(ReferenceZone(url, reference) == S_OK);
        REQUIRE(reference == zone);
        const PageRun run = RunPageAt(url);
        CheckSited(run, url, zone);
        // tarnhost's page offers no security manager unless told to; the DLL makes its own.
        CHECK(run.Has(kCoCreateRecord, 4));
    }

    TEST_CASE("a mapping for another scheme leaves the page in the internet zone")
    {
        Apartment apartment;
        ScopedRegistryKey mapping(HKEY_CURRENT_USER, std::string(kZoneMapDomains) + "s.tarn-sd.example");
        REQUIRE(mapping.SetDword("http", 2));
        const std::wstring url = L"https://s.tarn-sd.example/page.html";
        DWORD reference = 99;
        REQUIRE(ReferenceZone(url, reference) == S_OK);
        CHECK(reference == 3);
        CheckSited(RunPageAt(url), url, reference);
    }

    TEST_CASE("unmapped http and https pages are internet pages, file pages are local")
    {
        Apartment apartment;
        std::wstring url;
        DWORD zone = 0;
        SUBCASE("http")
        {
            url = L"http://unmapped.tarn-sd.example/dir/page.html?x=1";
            zone = 3;
        }
        SUBCASE("https")
        {
            url = L"https://unmapped.tarn-sd.example:8443/page.html";
            zone = 3;
        }
        SUBCASE("file")
        {
            url = L"file:///C:/pages/page.html";
            zone = 0;
        }
        DWORD reference = 99;
        REQUIRE(ReferenceZone(url, reference) == S_OK);
        REQUIRE(reference == zone);
        CheckSited(RunPageAt(url), url, zone);
    }

    TEST_CASE("other URLs answer as the platform's security manager maps them")
    {
        Apartment apartment;
        std::wstring url;
        SUBCASE("about:blank") { url = L"about:blank"; }
        SUBCASE("an ftp page") { url = L"ftp://ftp.tarn-sd.example/page.html"; }
        SUBCASE("a res: page") { url = L"res://tarn.dll/page.html"; }
        SUBCASE("a made-up scheme") { url = L"tarn-sd:page"; }
        SUBCASE("an empty location") { url = L""; }
        DWORD reference = 99;
        const HRESULT hr = ReferenceZone(url, reference);
        INFO("'" << Ansi(url) << "': MapUrlToZone " << Hex(hr) << ", zone " << reference);
        const PageRun run = RunPageAt(url);
        if (SUCCEEDED(hr)) {
            CheckSited(run, url, reference);
        } else {
            CheckUnsited(run, "GetCurrentSiteURLAndZone: Failed to map URL to zone. HRESULT = <" + Hex(hr) + ">", 2);
            // The URL was found before the zone failed.
            CHECK(run.Has("GetCurrentSiteURLAndZone: Found current IE site URL: " + Ansi(url) + ".", 4));
        }
    }

    TEST_CASE("the page's own security manager decides the zone")
    {
        Apartment apartment;
        const std::wstring url = L"http://www.tarn-sd.example/page.html";
        for (DWORD zone = 0; zone <= 4; ++zone) {
            CAPTURE(zone);
            const PageRun run = RunPageAt(url, {L"--zone", L"www.tarn-sd.example=" + std::to_wstring(zone)});
            CheckSited(run, url, zone);
            CHECK_FALSE(run.Has(kCoCreateRecord));
        }
    }

    TEST_CASE("a page whose security manager does not know the host is an internet page")
    {
        Apartment apartment;
        const std::wstring url = L"file:///C:/pages/page.html";
        // tarnhost's security manager answers 3 for what it has no rule for, even a file page.
        const PageRun run = RunPageAt(url, {L"--zone", L"other.tarn-sd.example=0"});
        CheckSited(run, url, 3);
    }

    TEST_CASE("a page without a security manager still gets a zone")
    {
        Apartment apartment;
        const std::wstring url = L"file:///C:/pages/page.html";
        const PageRun run = RunPageAt(url, {L"--no-secmgr"});
        CheckSited(run, url, 0);
        CHECK(run.Has(kCoCreateRecord, 4));
    }

    TEST_CASE("an unsited control has no site")
    {
        CheckUnsited(RunPage({}), "GetCurrentSiteURLAndZone: Failed to QI to IServiceProvider from our site.", 2);
    }

    TEST_CASE("a container that cannot tell the page's URL leaves the control without a site")
    {
        const std::wstring url = L"http://www.tarn-sd.example/page.html";
        SUBCASE("no service provider")
        {
            CheckUnsited(RunPageAt(url, {L"--site-mode", L"no-service-provider"}),
                         "GetCurrentSiteURLAndZone: Failed to QI to IServiceProvider from our site.", 2);
        }
        SUBCASE("no browser service")
        {
            CheckUnsited(RunPageAt(url, {L"--site-mode", L"no-browser"}),
                         "GetCurrentSiteURLAndZone: Failed retrieve IWebBrowser2 from container. HRESULT = <0x80004002>",
                         2);
        }
        SUBCASE("the browser's location fails")
        {
            CheckUnsited(RunPageAt(url, {L"--site-mode", L"location-fails"}),
                         "GetCurrentSiteURLAndZone: Failed get location URL from IWebBrowser2. HRESULT = <0x80004005>",
                         2);
        }
    }

    TEST_CASE("odd page URLs neither crash nor hang the host")
    {
        Apartment apartment;
        std::wstring url;
        std::string answers;
        std::string record;
        SUBCASE("longer than the 2086-character parse buffers")
        {
            url = L"http://long.tarn-sd.example/" + std::wstring(3000, L'p') + L"/page.html";
            answers = "available=true\nlocal=false\n";
            record = "IsCurrentSiteLocalInternal: Found current site's security zone: 3.";
        }
        SUBCASE("characters outside the ANSI code page: a page that is there but never local")
        {
            url = L"http://www.tarn-sd.example/\u4e2d\u6587/page.html";
            answers = "available=true\nlocal=false\n";
            record = "IsCurrentSiteAvailableInternal: Current site is present, but its URL or security zone cannot be read.";
        }
        const PageRun run = RunPageAt(url);
        INFO(run.Dump());
        REQUIRE(run.child.started);
        CHECK_FALSE(run.child.timedOut);
        CHECK(run.child.exitCode == 0);
        CHECK(run.child.out == answers);
        REQUIRE(run.ringRead);
        CHECK(run.Has(record, 3));
    }
}

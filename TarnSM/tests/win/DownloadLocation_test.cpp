// Which trust data file a control uses and where it lives: the property, the name another
// control on the page published, or "trust.dll", resolved against the page URL. Controls
// are created and sited here the way a browser does it, and the result is fetched from
// the local web server where that proves the URL names the right file.

#include "DownloadTestSite.h"
#include "DownloadTestSupport.h"
#include "DownloadWeb.h"
#include "LogCapture.h"

#include "TarnSM/win/TrustDataDownload.h"
#include "TarnBase/win/Owners.h"

#include <doctest.h>

#include <string>

using namespace DownloadTest;

namespace {

// The page map lives as long as the process, so every test gets pages of its own.
std::string UniquePageDir()
{
    static int counter = 0;
    return "/p" + std::to_string(::GetCurrentProcessId()) + "-" + std::to_string(++counter);
}

// A page of the test's own, and the URL the control reports for it.
struct Page {
    explicit Page(const std::string& url) : url(url), site(TestPageSite::Create(Wide(url))) {}
    std::string url;
    ComPtr<TestPageSite> site;
};

ComPtr<TarnSMX::CTarnSM> SitedControl(Page& page, const wchar_t* propertyBeforeSiting = nullptr)
{
    auto control = NewControl();
    if (propertyBeforeSiting != nullptr) {
        TarnBase::UniqueBstr value(::SysAllocString(propertyBeforeSiting));
        REQUIRE(control->put_TrustedSiteDataFileURL(value.Get()) == S_OK);
    }
    REQUIRE(control->SetSite(page.site->Unknown()) == S_OK);
    return control;
}

void PutProperty(const ComPtr<TarnSMX::CTarnSM>& control, const wchar_t* value)
{
    TarnBase::UniqueBstr text(value ? ::SysAllocString(value) : nullptr);
    REQUIRE(control->put_TrustedSiteDataFileURL(text.Get()) == S_OK);
}

std::wstring Property(const ComPtr<TarnSMX::CTarnSM>& control)
{
    BSTR value = control->TrustDataFileURL();
    return value ? std::wstring(value, ::SysStringLen(value)) : L"<null>";
}

// The page URL exactly as the control gets it from its site.
std::string PageUrlOf(const ComPtr<TarnSMX::CTarnSM>& control)
{
    std::string url;
    DWORD zone = 0;
    REQUIRE(control->GetCurrentSiteURLAndZone(url, zone));
    return url;
}

std::string Resolve(const ComPtr<TarnSMX::CTarnSM>& control)
{
    return TarnSMX::GetTrustedSiteDownloadURL(*control.Get(), PageUrlOf(control));
}

const std::string kDefaultRecord =
    "GetTrustDataFileURL: TrustedSiteDataFileURL property not set. Resorting to default value: trust.dll.";

std::string CachedRecord(const std::string& value)
{
    return "GetTrustDataFileURL: A control on our page has cached a value. Resorting to cached value: " + value + ".";
}

std::string BuiltRecord(const std::string& url)
{
    return "GetTrustedSiteDownloadURL: Successfully built URL: " + url + ".";
}

} // namespace

TEST_SUITE("data file location")
{
    TEST_CASE("with nothing set, trust.dll beside the page is named and fetched")
    {
        REQUIRE(Web::Instance().Running());
        ComApartment apartment;
        const std::string dir = UniquePageDir();
        Page page(Web::Instance().Url("/dir/page.html?from=" + dir.substr(1)));
        auto control = SitedControl(page);
        TarnTest::LogCapture capture;

        const std::string url = Resolve(control);
        CHECK(url == Web::Instance().Url("/dir/trust.dll"));
        CHECK(capture.Has(kDefaultRecord, 3));
        CHECK(capture.Has(BuiltRecord(url), 3));
        // The default has become the control's own property.
        CHECK(Property(control) == L"trust.dll");

        TempDir scratch(L"loc");
        const long before = Web::Instance().Count("/dir/trust.dll");
        CHECK(TarnSMX::DownloadFile(url, Narrow(scratch / L"trust.tmp")));
        CHECK(Web::Instance().Count("/dir/trust.dll") == before + 1);
        std::string got;
        REQUIRE(ReadBytes(scratch / L"trust.tmp", got));
        CHECK(got == WebFiles::TrustDll());
    }

    TEST_CASE("a relative property resolves against the page's directory")
    {
        REQUIRE(Web::Instance().Running());
        ComApartment apartment;
        Page page(Web::Instance().Url("/dir/page.html?from=" + UniquePageDir().substr(1)));
        auto control = SitedControl(page, L"../data/sites.dll");
        TarnTest::LogCapture capture;
        const std::string url = Resolve(control);
        CHECK(url == Web::Instance().Url("/data/sites.dll"));
        CHECK_FALSE(capture.HasSubstring("GetTrustDataFileURL:"));

        TempDir scratch(L"loc");
        CHECK(TarnSMX::DownloadFile(url, Narrow(scratch / L"sites.tmp")));
        std::string got;
        REQUIRE(ReadBytes(scratch / L"sites.tmp", got));
        CHECK(got == WebFiles::SitesDll());
    }

    TEST_CASE("names of every shape resolve as URLs relative to the page")
    {
        ComApartment apartment;
        const std::string dir = UniquePageDir();
        Page page("http://www.tarn-test.example" + dir + "/sub/page.html?q=1#top");
        std::wstring property;
        std::string expected;
        SUBCASE("an absolute URL replaces the page's")
        {
            property = L"https://data.tarn-test.example/lists/t.dll";
            expected = "https://data.tarn-test.example/lists/t.dll";
        }
        SUBCASE("a rooted path keeps the server")
        {
            property = L"/trust/site.dll";
            expected = "http://www.tarn-test.example/trust/site.dll";
        }
        SUBCASE("a path below the page's directory")
        {
            property = L"data/t.dll";
            expected = "http://www.tarn-test.example" + dir + "/sub/data/t.dll";
        }
        SUBCASE("dot segments are resolved")
        {
            property = L"./a/../b.dll";
            expected = "http://www.tarn-test.example" + dir + "/sub/b.dll";
        }
        SUBCASE("a scheme-relative name keeps the page's scheme")
        {
            property = L"//cdn.tarn-test.example/t.dll";
            expected = "http://cdn.tarn-test.example/t.dll";
        }
        auto control = SitedControl(page, property.c_str());
        CHECK(Resolve(control) == expected);
    }

    TEST_CASE("file and https pages resolve the default beside themselves")
    {
        ComApartment apartment;
        const std::string dir = UniquePageDir();
        SUBCASE("https")
        {
            Page page("https://secure.tarn-test.example" + dir + "/page.html");
            auto control = SitedControl(page);
            CHECK(Resolve(control) == "https://secure.tarn-test.example" + dir + "/trust.dll");
        }
        SUBCASE("file")
        {
            Page page("file:///C:/pages" + dir + "/page.html");
            auto control = SitedControl(page);
            // Wine names file URLs in DOS form ("file://C:\\pages\\..."); both name one file.
            std::string url = Resolve(control);
            for (auto& c : url)
                if (c == '\\')
                    c = '/';
            const bool sameFile = url == "file:///C:/pages" + dir + "/trust.dll" || url == "file://C:/pages" + dir + "/trust.dll";
            CHECK_MESSAGE(sameFile, url);
        }
    }

    TEST_CASE("a second control without its own property uses the name the first published")
    {
        ComApartment apartment;
        Page page("http://www.tarn-test.example" + UniquePageDir() + "/page.html");
        auto first = SitedControl(page, L"lists/first.dll");
        auto second = SitedControl(page);
        TarnTest::LogCapture capture;

        CHECK(Resolve(second) ==
              page.url.substr(0, page.url.rfind('/')) + "/lists/first.dll");
        CHECK(capture.Has(CachedRecord("lists/first.dll"), 3));
        CHECK_FALSE(capture.Has(kDefaultRecord));
        // The second control borrows the name without taking it as its own property.
        CHECK(Property(second) == L"<null>");
    }

    TEST_CASE("the first control sited with a property claims the page")
    {
        ComApartment apartment;
        Page page("http://www.tarn-test.example" + UniquePageDir() + "/page.html");
        const std::string base = page.url.substr(0, page.url.rfind('/'));
        auto first = SitedControl(page, L"first.dll");
        auto second = SitedControl(page, L"second.dll");
        auto third = SitedControl(page);

        // Each control with a property keeps using its own...
        CHECK(Resolve(first) == base + "/first.dll");
        CHECK(Resolve(second) == base + "/second.dll");
        // ...but the page's name is the first one's, even after the second asked.
        CHECK(Resolve(third) == base + "/first.dll");

        SUBCASE("a later scripted assignment replaces it for the page")
        {
            PutProperty(second, L"assigned.dll");
            CHECK(Resolve(third) == base + "/assigned.dll");
            CHECK(Resolve(first) == base + "/first.dll");
        }
        SUBCASE("an assignment of null leaves the page's name alone")
        {
            PutProperty(second, nullptr);
            CHECK(Resolve(third) == base + "/first.dll");
            // Without a property of its own the second control now borrows the page's name.
            CHECK(Resolve(second) == base + "/first.dll");
        }
    }

    TEST_CASE("a property assigned after siting is published for the page at once")
    {
        ComApartment apartment;
        Page page("http://www.tarn-test.example" + UniquePageDir() + "/page.html");
        const std::string base = page.url.substr(0, page.url.rfind('/'));
        auto first = SitedControl(page);
        PutProperty(first, L"late.dll");
        auto second = SitedControl(page);
        CHECK(Resolve(second) == base + "/late.dll");
    }

    TEST_CASE("the default written into the property is published by the control's next call")
    {
        ComApartment apartment;
        Page page("http://www.tarn-test.example" + UniquePageDir() + "/page.html");
        const std::string base = page.url.substr(0, page.url.rfind('/'));
        auto first = SitedControl(page);
        auto second = SitedControl(page);
        TarnTest::LogCapture capture;

        CHECK(Resolve(first) == base + "/trust.dll");
        CHECK(capture.Count(kDefaultRecord) == 1);
        // Nothing published yet: the second control falls back to the default itself.
        CHECK(TarnSMX::GetTrustDataFileURL(*second.Get(), page.url) == L"trust.dll");
        CHECK(capture.Count(kDefaultRecord) == 2);

        auto third = SitedControl(page);
        CHECK(TarnSMX::GetTrustDataFileURL(*first.Get(), page.url) == L"trust.dll");
        CHECK(TarnSMX::GetTrustDataFileURL(*third.Get(), page.url) == L"trust.dll");
        CHECK(capture.Has(CachedRecord("trust.dll"), 3));
        CHECK(capture.Count(kDefaultRecord) == 2);
    }

    TEST_CASE("a control on another page does not see this page's name")
    {
        ComApartment apartment;
        const std::string dir = UniquePageDir();
        Page one("http://www.tarn-test.example" + dir + "/one.html");
        Page two("http://www.tarn-test.example" + dir + "/two.html");
        auto first = SitedControl(one, L"one.dll");
        auto second = SitedControl(two);
        CHECK(Resolve(second) == "http://www.tarn-test.example" + dir + "/trust.dll");
    }

    TEST_CASE("a page URL that is no URL leads to a download that is refused")
    {
        // Wine's URL monikers accept any text as a base, so the base moniker's own failure
        // cannot be provoked here; what comes out must still be harmless.
        ComApartment apartment;
        auto control = NewControl();
        TarnTest::LogCapture capture;
        const std::string url = TarnSMX::GetTrustedSiteDownloadURL(*control.Get(), "");
        if (url.empty()) {
            CHECK(capture.HasSubstring("GetTrustedSiteDownloadURL: Failed to create base URL moniker. HRESULT = <0x"));
        } else {
            TempDir scratch(L"loc");
            CHECK_FALSE(TarnSMX::DownloadFile(url, Narrow(scratch / L"x.tmp")));
            CHECK(capture.HasSubstring("DownloadFile: Failure calling InternetOpenUrl. GetLastError: "));
            CHECK_FALSE(FileExists(scratch / L"x.tmp"));
        }
    }

    TEST_CASE("a data file name outside the ANSI code page gives no URL rather than a wrong one")
    {
        // Narrowed, the name would read "??/trust.dll": a query on the page's directory.
        ComApartment apartment;
        const std::string dir = UniquePageDir();
        Page page("http://www.tarn-test.example" + dir + "/page.html");
        auto control = SitedControl(page, L"\u4e2d\u6587/trust.dll");
        TarnTest::LogCapture capture;
        const std::string url = Resolve(control);
        if (url.empty()) {
            CHECK(capture.Has("GetTrustedSiteDownloadURL: URL has characters outside the ANSI code page; not downloading: "
                              "http://www.tarn-test.example" + dir + "/?" "?/trust.dll.",
                              2));
            CHECK_FALSE(capture.HasSubstring("Successfully built URL"));
        } else {
            // A platform that escapes the name yields a plain ASCII URL instead.
            CHECK(url.find('?') == std::string::npos);
            CHECK(url.rfind("http://www.tarn-test.example" + dir + "/%", 0) == 0);
        }
    }

    TEST_CASE("a page URL outside the ANSI code page is refused, never narrowed into another URL")
    {
        // Narrowed, "/dir\u4e2d/page.html" would read "/dir?/page.html": a query, and the data
        // file would then come from the server's root instead of the page's directory.
        REQUIRE(Web::Instance().Running());
        ComApartment apartment;
        Page page(Web::Instance().Url("/dir/page.html"));
        page.site = TestPageSite::Create(Wide(Web::Instance().Url("/dir")) + L"\u4e2d/page.html");
        auto control = SitedControl(page);
        TarnTest::LogCapture capture;
        std::string url;
        DWORD zone = 0;
        CHECK_FALSE(control->GetCurrentSiteURLAndZone(url, zone));
        CHECK(capture.Has("GetCurrentSiteURLAndZone: Location URL has characters outside the ANSI code page. Site is not used.", 2));
        CHECK(url.empty());
    }

    TEST_CASE("a page URL longer than the 2086-character parse buffers resolves in full")
    {
        REQUIRE(Web::Instance().Running());
        ComApartment apartment;
        const std::string longDir = "/dir/" + std::string(3000, 'b');
        Page page(Web::Instance().Url(longDir + "/page.html"));
        auto control = SitedControl(page);
        TarnTest::LogCapture capture;
        const std::string url = Resolve(control);
        CHECK(url == Web::Instance().Url(longDir + "/trust.dll"));

        // The whole URL reaches the server, which has no such file.
        TempDir scratch(L"loc");
        CHECK_FALSE(TarnSMX::DownloadFile(url, Narrow(scratch / L"x.tmp")));
        CHECK(capture.Has("DownloadFile: Failed to download file. HTTP Status Code: 404.", 1));
        CHECK(Web::Instance().Count(longDir + "/trust.dll") == 1);
    }
}

// Which trust data file a control uses and where it lives: the property, the name another
// control on the page published, or "trust.dll", resolved against the page URL. Controls are
// made here and sited on tarnhost's browser site, the way a browser sites them.
#include "BrowserSite.h"
#include "LogCapture.h"
#include "PageHost.h"

#include "TarnSM/win/CTarnSM.h"
#include "TarnSM/win/TrustDataDownload.h"
#include "Scratch.h"
#include "TarnBase/win/Owners.h"

#include <doctest.h>

using namespace TarnTest;
using Control = ComPtr<TarnSMX::CTarnSM>;

namespace {

// The page map lives as long as the process, so every test gets pages of its own.
std::string PageDir() { return "http://www.tarn-test.example/" + Unique("p"); }

void Put(const Control& control, const wchar_t* value)
{
    TarnBase::UniqueBstr text(value ? ::SysAllocString(value) : nullptr);
    REQUIRE(control->put_TrustedSiteDataFileURL(text.Get()) == S_OK);
}

Control Sited(const std::string& page, const wchar_t* property = nullptr)
{
    Control control;
    control.Attach(new TarnSMX::CTarnSM());
    if (property)
        Put(control, property);
    auto site = TarnBase::MakeCom<TarnHost::BrowserSite>(TarnHost::SiteMode::Normal, Widen(page), nullptr);
    REQUIRE(control->SetSite(static_cast<IServiceProvider*>(site.Get())) == S_OK);
    return control;
}

std::string Resolve(const Control& control)
{
    std::string page;
    DWORD zone = 0;
    control->GetCurrentSiteURLAndZone(page, zone);
    return TarnSMX::GetTrustedSiteDownloadURL(*control.Get(), page);
}

} // namespace

TEST_CASE("resolution table: the property, or trust.dll, relative to the page; a page URL outside the ANSI code page is refused")
{
    ComApartment com;
    const std::string dir = PageDir(), secure = "https://secure.tarn-test.example/" + Unique("p");
    const char* refused = "GetCurrentSiteURLAndZone: Location URL has characters outside the ANSI code page. Site is not used.";
    // {page, property -> URL, a record}
    struct Row { std::string page; const wchar_t* property; std::string expected; const char* record = nullptr; };
    const std::vector<Row> rows = {
        {dir + "/sub/page.html?q=1#top", nullptr, dir + "/sub/trust.dll"},
        {secure + "/page.html", nullptr, secure + "/trust.dll"},
        {dir + "/sub/page.html", L"https://data.tarn-test.example/lists/t.dll", "https://data.tarn-test.example/lists/t.dll"},
        {dir + "/sub/page.html", L"/trust/site.dll", "http://www.tarn-test.example/trust/site.dll"},
        {dir + "/sub/page.html", L"data/t.dll", dir + "/sub/data/t.dll"},
        {dir + "/sub/page.html", L"../t.dll", dir + "/t.dll"},
        {dir + "/sub/page.html", L"./a/../b.dll", dir + "/sub/b.dll"},
        {dir + "/sub/page.html", L"//cdn.tarn-test.example/t.dll", "http://cdn.tarn-test.example/t.dll"},
        {dir + "/" + std::string(3000, 'b') + "/page.html", nullptr, dir + "/" + std::string(3000, 'b') + "/trust.dll"},
        // Narrowed, "/dir\u4e2d/page.html" would read "/dir?/page.html": a query on the root.
        // Refused, no page is left to resolve against: the bare name, on no server.
        {"http://www.tarn-test.example/dir\xE4\xB8\xAD/page.html", nullptr, "trust.dll", refused},
        // Narrowed, the name would read "??/trust.dll": a query on the page's directory.
        {dir + "/x/page.html", L"\u4e2d\u6587/trust.dll", "%"},
    };
    for (const Row& row : rows) {
        CAPTURE(row.page.substr(0, 100));
        LogCapture capture;
        const std::string url = Resolve(Sited(row.page, row.property));
        if (row.expected == "%")  // no URL rather than a wrong one (or an escaped ASCII one)
            CHECK((url.empty() || (url.find('?') == std::string::npos && url.find("/x/%") != std::string::npos)));
        else
            CHECK(url == row.expected);
        if (row.record)
            CHECK(capture.Has(row.record, 2));
    }
}

TEST_CASE("the page map: borrowed names, the first sited claims, assignments replace, null leaves, pages apart")
{
    ComApartment com;
    const std::string dir = PageDir();
    const std::string page = dir + "/page.html";
    LogCapture capture;
    auto first = Sited(page, L"first.dll");
    auto second = Sited(page, L"second.dll");
    auto third = Sited(page);
    CHECK(Resolve(first) == dir + "/first.dll");
    CHECK(Resolve(second) == dir + "/second.dll");
    CHECK(Resolve(third) == dir + "/first.dll");  // borrowed, not taken as its own property
    CHECK(capture.Has("GetTrustDataFileURL: A control on our page has cached a value. Resorting to cached value: first.dll.", 3));
    CHECK(third->TrustDataFileURL() == nullptr);
    Put(second, L"assigned.dll");
    CHECK(Resolve(third) == dir + "/assigned.dll");
    CHECK(Resolve(first) == dir + "/first.dll");
    Put(second, nullptr);
    CHECK(Resolve(third) == dir + "/assigned.dll");
    CHECK(Resolve(second) == dir + "/assigned.dll");
    CHECK(Resolve(Sited(dir + "/other.html")) == dir + "/trust.dll");  // another page does not see it

    // The default written into the property is published by the control's next call.
    const std::string fresh = PageDir() + "/page.html";
    auto a = Sited(fresh), b = Sited(fresh);
    capture.Clear();
    CHECK(TarnSMX::GetTrustDataFileURL(*a.Get(), fresh) == L"trust.dll");
    CHECK(TarnSMX::GetTrustDataFileURL(*b.Get(), fresh) == L"trust.dll");
    CHECK(capture.Count("GetTrustDataFileURL: TrustedSiteDataFileURL property not set. Resorting to default value: trust.dll.") == 2);
    auto c = Sited(fresh);
    CHECK(TarnSMX::GetTrustDataFileURL(*a.Get(), fresh) == L"trust.dll");
    CHECK(TarnSMX::GetTrustDataFileURL(*c.Get(), fresh) == L"trust.dll");
    CHECK(capture.Has("GetTrustDataFileURL: A control on our page has cached a value. Resorting to cached value: trust.dll.", 3));
}

// Site trust end to end: data files served from 127.0.0.1, tarnhost (or, for two pages in one
// process, its browser site in process) playing the browser, the registered DLL deciding,
// and the log ring telling why. The full matching table is in the portable SiteList tests.
// Hostile and broken input too: whatever arrives, the host must come back, exit cleanly, and
// never hear "true" where the lists do not say so.
#include "BlackBoxPages.h"
#include "BrowserSite.h"

using namespace TarnTest;

namespace {

const char kVerifyFailed[] =
    "IsCurrentSiteTrustedInternal: Failed to verify signature on Trusted Site Data File, or failed to verify is signed by a trusted entity. Cannot trust site.";
const char kReadFailed[] = "IsCurrentSiteTrustedInternal: Failed to read trust data file. Cannot determine trust.";
const char kVerified[] = "IsCurrentSiteTrustedInternal: Verified Trusted Site Data File itself can be trusted.";

std::vector<std::wstring> Page(const std::string& url, const std::vector<std::string>& params, int controls = 1)
{
    std::vector<std::wstring> options = PageAt(Widen(url), params);
    options.insert(options.end(), {L"--controls", std::to_wstring(controls)});
    return options;
}

const std::wstring kAsk = Widen(kAskFunction);
const std::wstring kSite = L"host.Echo(ask(function () { return TarnSM.IsCurrentSiteTrusted(); }));\n";
const std::wstring kContainer = L"host.Echo(ask(function () { return TarnSM.IsCurrentContainerTrusted(''); }));\n";

// A page at `url` whose data file is `dataFile`.
std::vector<std::wstring> PageAt(const std::wstring& url, const std::string& dataFile, const std::string& vendor = "")
{
    std::vector<std::string> params = {"TrustedSiteDataFileURL=" + dataFile};
    if (!vendor.empty())
        params.push_back("VendorID=" + vendor);
    return TarnTest::PageAt(url, params);
}

} // namespace

// Each page asks twice (or two controls once each). The fault matrix: every fault answers
// false twice, names its step, is never cached and keeps its download. Then validly signed
// files: the domain rules that need the DLL (the full table is in SiteList_test), lists read
// whole, the signer lists, and one download per file.
TEST_CASE_FIXTURE(Pages, "data files: the fault matrix, domains, denials from the cache, lists read whole, signer choice and look-alikes, the cache")
{
    const std::string page = "http://shop.example.com/page.html";
    VendorKey orgOnly(Unique("OrgOnlyVendor")), wrongUsage(Unique("WrongUsageVendor")), bare(Unique("NoSignersVendor")),
        odd(Unique("OddSigners"));
    orgOnly.AddSigners({L"Org, Inc."});
    wrongUsage.AddSigners({L"WrongUsage"});
    // Names at the registry's length limit, odd punctuation, and a look-alike of PlainSigner.
    odd.AddSigners({std::wstring(255, L'x'), L"Plain Signer;|*?\"<>,=+#", L"\xFF30lainSigner"});
    const char* denied = "GetTrust: Current site found on denied list. Current site is not trusted.";
    const char* noSites = "IsCurrentSiteTrustedInternal: No sites are trusted. Current site is NOT TRUSTED.";
    const std::string t2 = "true\ntrue\n", f2 = "false\nfalse\n";
    // {page, data file (given as the property unless `given` is false), more parameters ->
    // answers, records (the first logged `count` times, 0: at all), fetches of the file; controls}
    struct Row { std::string page; std::string path; std::vector<std::string> more; std::string answers;
                 std::vector<std::string> records = {kVerified}; size_t count = 0; long fetched = 1; int controls = 1; bool given = true; };
    const Row rows[] = {
        {page, "/unsigned.dll", {}, f2, {kVerifyFailed}, 0, 2},
        {page, "/tampered.dll", {}, f2, {kVerifyFailed}, 0, 2},
        {page, "/rogue.dll", {}, f2, {kVerifyFailed}, 0, 2},       // untrusted root
        {page, "/expired.dll", {}, f2, {kVerifyFailed}, 0, 2},
        {page, "/wrongusage.dll", {}, f2, {kVerifyFailed}, 0, 2},  // signer not on the list
        {page, "/lowercase.dll", {}, f2, {kVerifyFailed}, 0, 2},   // signer differing only in case
        {page, "/twocerts.dll", {}, f2, {kVerifyFailed}, 0, 2},    // a second certificate entry is never examined
        {page, "/good.dll", {"VendorID=" + orgOnly.Name()}, f2, {kVerifyFailed}, 0, 2},  // the vendor's list excludes the signer
        {page, "/notpe.dll", {}, f2, {kVerifyFailed}, 0, 2},
        {page, "/fault/certcount.dll", {}, f2, {kVerifyFailed}, 0, 2},  // a certificate table claiming thousands of entries
        {page, "/__status=404/good.dll", {}, f2,
         {"DownloadFile: Failed to download file. HTTP Status Code: 404.", "IsCurrentSiteTrustedInternal: Failed to download Trusted Site Data File."}, 0, 2},
        {page, "/__truncate=1500/good.dll", {}, f2, {kVerifyFailed}, 0, 2},
        {page, "/good.dll?v=1", {}, f2, {"ReadTrustDataFile: Unsupported file type. File: ", kReadFailed}, 0, 2},
        {"ftp://ftp.example.com/page.html", "/good.dll", {}, f2,
         {"ReadTrustDataDLL: Current site's scheme is unsupported. Scheme: 3.", kReadFailed}, 0, 2},
        {"https://secure.example.com/page.html", "/nohttps.dll", {}, f2,
         {"ReadTrustDataDLL: Failed to load HTTPS URL Trusted Site list from data file.", kReadFailed}, 0, 2},
        {"http://example.com/p.html", "/good.dll", {}, t2},
        {page, "/good.dll", {}, t2, {"GetTrust: Current site found on trust list. Current site is trusted."}},
        {"http://bad.example.com/p.html", "/good.dll", {}, f2, {denied}, 2},  // denied wins, also from the cache
        {"https://secure.example.com/p.html", "/good.dll", {}, t2},          // https pages read their own list
        {"HTTPS://secure.example.com/p.html", "/good.dll", {}, t2},          // scheme in capitals
        {"http://Example.com/p.html", "/good.dll", {}, f2},                  // case matters in domains
        // A list of over 30,000 characters: its very last entry, and a denial on its last line.
        {"http://near-end.example.com/p.html", "/fault/huge.dll", {}, t2},
        {"http://deny.s00000.fault.example/p.html", "/fault/huge.dll", {}, f2, {denied}},
        {page, "/fault/signers.dll", {}, t2},  // 5,000 site signers
        {page, "/org.dll", {}, t2},            // "Org, Inc.": a default signer with a quoted comma
        {page, "/wrongusage.dll", {"VendorID=" + wrongUsage.Name()}, t2},
        {page, "/good.dll", {"VendorID=" + wrongUsage.Name()}, f2, {kVerifyFailed}, 0, 2},  // the vendor's list replaces the defaults
        {page, "/good.dll", {"VendorID=" + odd.Name()}, f2, {kVerifyFailed}, 0, 2},
        {page, "/good.dll", {"VendorID=" + bare.Name()}, t2, {"LoadVendorTrustedSigners: Failed to open our vendor specific config key. lResult = "}},
        {page, "/good.dll", {"VendorID=NoSuchVendor"}, t2,
         {"IsCurrentSiteTrustedInternal: Invalid VendorID parameter provided. Failling back to defaults. VendorID: NoSuchVendor."}},
        // Certificates named U+FF30 "lainSigner", and "2.5.4.3=PlainSigner" inside a quoted OU value.
        {page, "/lookalike.dll", {}, f2, {"VerifyAuthenticodeSignatureAndTrustedSigner (list) - Signer common name in "}, 0, 2},
        {page, "/forged.dll", {}, f2, {kVerifyFailed}, 0, 2},
        {server.Url("/shop/page.html"), "/shop/trust.dll", {}, t2, {kVerified}, 0, 1, 1, false},  // the default name, beside the page
        {page, "/good.dll", {}, t2, {kVerified}, 0, 1, 2},  // the second control borrows the first one's name
        {page, "/emptytrust.dll", {}, f2, {noSites}, 0, 2},  // read, but a list trusting nobody is not kept
        // URLs differing only in letter case share one entry: GOOD.DLL is never fetched (checked last).
        {page, "/good.dll", {"2:TrustedSiteDataFileURL=" + server.Url("/GOOD.DLL")}, t2, {kVerified}, 0, 1, 2},
    };
    for (const Row& row : rows) {
        CAPTURE(row.page + " " + row.path);
        REQUIRE(server.ResetCounts());
        std::vector<std::string> params = row.more;
        if (row.given)
            params.insert(params.begin(), (row.controls > 1 ? "1:" : "") + ("TrustedSiteDataFileURL=" + server.Url(row.path)));
        const ULONGLONG start = ::GetTickCount64();
        const PageRun run = pages.Run(Page(row.page, params, row.controls), AskSiteScript(3 - row.controls, row.controls));
        CHECK(::GetTickCount64() - start < 10000);  // a crafted certificate table cannot hold the host
        CHECK(run.out == row.answers);
        for (size_t i = 0; i < row.records.size(); ++i)
            CHECK_MESSAGE((i == 0 && row.count ? run.Count(row.records[i]) == row.count : run.Logged(row.records[i])), row.records[i]);
        CHECK(server.RequestCount(row.path.substr(0, row.path.find('?'))) == row.fetched);  // a failure is fetched again
        // A failed evaluation keeps its download, for inspection; a file that was read is removed.
        CHECK(run.leftDownloads.size() == (row.fetched == 2 && row.records[0] != noSites ? 2u : 0u));
    }
    CHECK(server.RequestCount("/GOOD.DLL") == 0);
}

TEST_CASE_FIXTURE(Pages, "the cache keeps each scheme's lists: an https and an http page share one data file in one process")
{
    ComApartment com;
    // A URL no other case of this program uses, so this process's cache starts without it.
    const std::wstring url = Widen(server.Url("/__slow=0/good.dll"));
    auto ask = [&](const wchar_t* page) {
        ComPtr<ITarnSM> control = CreateControl();
        REQUIRE(control);
        auto site = TarnBase::MakeCom<TarnHost::BrowserSite>(TarnHost::SiteMode::Normal, page, nullptr);
        ComPtr<IObjectWithSite> withSite;
        REQUIRE(control.As(&withSite) == S_OK);
        REQUIRE(withSite->SetSite(static_cast<IServiceProvider*>(site.Get())) == S_OK);
        control->put_TrustedSiteDataFileURL(TarnBase::UniqueBstr(::SysAllocString(url.c_str())).Get());
        VARIANT_BOOL answer = VARIANT_FALSE;
        CHECK(control->IsCurrentSiteTrusted(&answer) == S_OK);
        withSite->SetSite(nullptr);
        return answer == VARIANT_TRUE;
    };
    // example.com is on the http list only.
    CHECK_FALSE(ask(L"https://example.com/p.html"));
    CHECK(ask(L"http://example.com/p.html"));
    CHECK_FALSE(ask(L"https://example.com/p.html"));
    CHECK(ask(L"https://secure.example.com/p.html"));
}

TEST_CASE_FIXTURE(Pages, "oversized page URL, parameters and script values: the host survives, never a wrong true")
{
    const std::string good = server.Url("/good.dll");
    const std::wstring big(100 * 1024, L'a');
    const std::string line(15000, 'b');  // command lines end at 32,767 characters: two of these fit
    // Base64 look-alikes, separators, controls and non-ANSI text, as one 100 KB list.
    std::wstring garbage;
    const std::wstring alphabet = L"ABCxyz0189+/=;;==%\\'\"\x01\x7F\x00E9\x4E2D\xFF54 ";
    for (uint32_t seed = 12345; garbage.size() < 100 * 1024;) {
        seed = seed * 1103515245u + 12345u;
        wchar_t escaped[8];
        swprintf(escaped, 8, L"\\u%04x", static_cast<unsigned>(alphabet[(seed >> 16) % alphabet.size()]));
        garbage += escaped;
    }
    // trueAt: the one answer that may be "true" (the page's domain is listed), or -1
    struct Row { const char* what; std::vector<std::wstring> options; std::wstring script; size_t answers; int trueAt; };
    const std::vector<Row> rows = {
        {"15,000-character path", PageAt(Widen("http://example.com/" + line + ".html"), good), kSite, 1, 0},
        {"15,000-character host", PageAt(Widen("http://" + line + ".example.com/p.html"), good), kSite, 1, 0},
        {"15,000-character parameters",
         PageAt(L"http://example.com/p.html", server.Url("/" + line + ".dll"), line), kSite, 1, -1},
        {"100 KB URL", {L"--url", L"http://example.com/p.html"},
         L"TarnSM.TrustedSiteDataFileURL = '" + Widen(server.Url("/")) + big + L".dll';\n" + kSite, 1, -1},
        {"100 KB relative URL", {L"--url", L"http://example.com/p.html"},
         L"TarnSM.TrustedSiteDataFileURL = '" + big + L"';\n" + kSite, 1, -1},
        {"100 KB host", {L"--url", L"http://example.com/p.html"},
         L"TarnSM.TrustedSiteDataFileURL = 'http://" + big + L"/trust.dll';\n" + kSite, 1, -1},
        {"100 KB VendorID: no vendor, the defaults decide", PageAt(L"http://example.com/p.html", good),
         L"TarnSM.VendorID = '" + big + L"';\nhost.Echo(TarnSM.VendorID.length);\n" + kSite + kContainer, 3, 1},
        {"100 KB garbage alternative list, local page", {L"--url", L"file:///C:/x/page.html"},
         L"var l = '" + garbage + L"';\nhost.Echo(ask(function () { return TarnSM.IsCurrentContainerTrusted(l); }));\n"
         L"host.Echo(ask(function () { return TarnSM.IsCurrentContainerTrusted(l.substring(0, 65536)); }));\n",
         2, -1},
        // Look-alikes: narrowed leniently, these would fetch good.dll or match example.com.
        {"look-alike data file name", {L"--url", L"http://example.com/p.html"},
         L"TarnSM.TrustedSiteDataFileURL = '" + Widen(server.Url("/g")) + L"\xFF4F\xFF4F" L"d.dll';\n" + kSite, 1, -1},
        {"look-alike page host", PageAt(L"http://ex\xFF41mple.com/p.html", good), kSite, 1, -1},
        {"VendorID in another script", PageAt(L"http://example.com/p.html", good),
         L"ask(function () { TarnSM.VendorID = 'Vendor\x4E2D\x6587'; });\n" + kSite + kContainer, 2, 0},
    };
    for (const Row& row : rows) {
        CAPTURE(row.what);
        REQUIRE(server.ResetCounts());
        const std::vector<std::string> lines = Survived(pages.Run(row.options, Utf16Script(kAsk + row.script)).result);
        REQUIRE(lines.size() == row.answers);
        for (size_t i = 0; i < lines.size(); ++i)
            if (lines[i].find_first_not_of("0123456789") != std::string::npos)  // a length, echoed as a number
                CHECK((lines[i] == "false" || lines[i].compare(0, 15, "error 80004005 ") == 0 ||  // never "true"
                       (static_cast<int>(i) == row.trueAt && lines[i] == "true")));
        CHECK(server.RequestCount("/good.dll") <= (row.trueAt >= 0 ? 1 : 0));
    }
}

// What an attacker controls - the VendorID, the page URL - never turns into "trusted" where
// an honest reading says no. Each row is a way in that once worked.
TEST_CASE_FIXTURE(Pages, "a VendorID that would change the registry path, or has no ANSI form, is an unknown vendor")
{
    const char kInvalidVendor[] = "IsCurrentSiteTrustedInternal: Invalid VendorID parameter provided. Failling back to defaults.";
    // The vendor trusts OtherSigner only; its own key's one subkey is "TarnSM", and
    // tarnsm.dll is signed by a certificate of that name.
    VendorKey vendor(Unique("PathVendor"));
    vendor.AddSigners({L"OtherSigner"});
    const std::wstring id = Widen(vendor.Name());
    // vendorId as a JScript literal
    struct Row { std::wstring vendorId; const char* file; const char* answer; };
    const Row rows[] = {
        {id + L"\\u0000", "/tarnsm.dll", "false"},
        {id + L"\\\\TarnSM", "/tarnsm.dll", "false"},
        {id, "/tarnsm.dll", "false"},
        {L"Vendor\\u4e2d\\u6587", "/good.dll", "true"},  // falls back to the defaults, no error
    };
    for (const Row& row : rows) {
        CAPTURE(Narrow(row.vendorId));
        const std::wstring set = L"host.Echo(ask(function () { TarnSM.VendorID = '" + row.vendorId + L"'; return 'set'; }));\n";
        const PageRun run = pages.Run(PageAt(L"http://example.com/p.html", server.Url(row.file)), Utf16Script(kAsk + set + kSite));
        CHECK(Survived(run.result) == std::vector<std::string>{"set", row.answer});
        CHECK(run.Logged(kInvalidVendor) == (row.vendorId != id));
        CHECK_FALSE(run.Logged("Throwing "));
    }
    // The same text as a page parameter goes through IPersistPropertyBag::Load.
    const PageRun run = pages.Run(PageAt(L"http://example.com/p.html", server.Url("/good.dll"), "Vendor\xE4\xB8\xAD\xE6\x96\x87"),
                                  Utf16Script(kAsk + L"host.Echo(TarnSM.VendorID === 'Vendor\x4E2D\x6587');\n" + kSite));
    CHECK(Survived(run.result) == std::vector<std::string>{"true", "true"});
    CHECK(run.Logged(kInvalidVendor));
}

// Hostile and broken input fed to the registered DLL through a real page host. Whatever
// arrives, the host must come back, exit cleanly, and never hear "true" where the lists do
// not say so.
#include "BlackBoxPages.h"

using namespace TarnTest;

namespace {

const std::wstring kAsk = Widen(kAskFunction);
const std::wstring kSite = L"host.Echo(ask(function () { return TarnSM.IsCurrentSiteTrusted(); }));\n";
const std::wstring kContainer = L"host.Echo(ask(function () { return TarnSM.IsCurrentContainerTrusted(''); }));\n";

std::vector<std::wstring> PageAt(const std::wstring& url, const std::string& dataFile, const std::string& vendor = "")
{
    std::vector<std::string> params = {"TrustedSiteDataFileURL=" + dataFile};
    if (!vendor.empty())
        params.push_back("VendorID=" + vendor);
    return TarnTest::PageAt(url, params);
}

} // namespace

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

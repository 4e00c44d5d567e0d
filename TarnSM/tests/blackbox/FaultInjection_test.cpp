// Hostile and broken input fed to the registered DLL through a real page host: odd but
// validly signed data files, oversized and foreign-script page values, and vendor keys
// with names at the registry's limits. Whatever arrives, the host must come back within
// its time-out, exit cleanly, and never hear "true" where the lists do not say so.
#include "HostPage.h"

#include <doctest.h>


namespace {

using namespace HostPage;

const char kReadFailed[] = "IsCurrentSiteTrustedInternal: Failed to read trust data file. Cannot determine trust.";
const char kNoneTrusted[] = "IsCurrentSiteTrustedInternal: No sites are trusted. Current site is NOT TRUSTED.";

// Characters that a lenient narrowing would turn into plain ASCII look-alikes.
const std::wstring kFullwidthP = L"\xFF30";  // FULLWIDTH LATIN CAPITAL LETTER P
const std::wstring kFullwidthT = L"\xFF54";  // FULLWIDTH LATIN SMALL LETTER T
const std::wstring kFullwidthO = L"\xFF4F";  // FULLWIDTH LATIN SMALL LETTER O

} // namespace

TEST_SUITE("fault injection")
{
    TEST_CASE("odd but validly signed data files: long, empty and comment-only lists, thousands of site signers")
    {
        const std::string fault = BinaryDir() + "/trustfiles/www/fault";
        REQUIRE_MESSAGE(::GetFileAttributesA((fault + "/huge.dll").c_str()) != INVALID_FILE_ATTRIBUTES,
                        "the fault_files fixture has not made " << fault);
        TarnTest::TestServer& server = Server();
        REQUIRE(server.Running());

        SUBCASE("a list of over 30,000 characters is read to its last entry")
        {
            struct Case {
                const char* page;
                const char* answer;
            };
            const Case cases[] = {
                {"http://near-end.example.com/p.html", "true"},
                {"https://near-end.example.com/p.html", "true"},
                {"http://x.s01399.fault.example/p.html", "true"},
                {"http://s00000.fault.example/p.html", "true"},
                {"http://not-listed.example.com/p.html", "false"},
            };
            for (const Case& c : cases) {
                CAPTURE(std::string(c.page));
                const HostRun run = RunHost(PageAt(c.page, server.Url("/fault/huge.dll")), SiteQuestion(2));
                CheckSurvived(run);
                CHECK(run.lines == std::vector<std::string>{c.answer, c.answer});
            }
        }
        SUBCASE("a module without strings trusts nobody and names the missing list")
        {
            const HostRun run = RunHost(PageAt("http://example.com/p.html", server.Url("/fault/nostrings.dll")), SiteQuestion());
            CheckSurvived(run);
            CHECK(run.lines == std::vector<std::string>{"false"});
            CHECK(run.LoggedStart("ReadTrustDataDLL: Failed to load HTTP URL Trusted Site list from data file."));
            CHECK(run.LoggedStart(kReadFailed));
        }
        SUBCASE("lists of comment lines only trust nobody, even a commented-out entry")
        {
            for (const char* page : {"http://example.com/p.html", "https://example.com/p.html"}) {
                CAPTURE(std::string(page));
                const HostRun run = RunHost(PageAt(page, server.Url("/fault/comments.dll")), SiteQuestion());
                CheckSurvived(run);
                CHECK(run.lines == std::vector<std::string>{"false"});
                CHECK(run.LoggedStart(kNoneTrusted));
            }
        }
        SUBCASE("5,000 site signers neither break the answer nor the cache")
        {
            REQUIRE(server.ResetCounts());
            const HostRun run = RunHost(PageAt("http://shop.example.com/p.html", server.Url("/fault/signers.dll")), SiteQuestion(2));
            CheckSurvived(run);
            CHECK(run.lines == std::vector<std::string>{"true", "true"});
            CHECK(server.RequestCount("/fault/signers.dll") == 1);
            const HostRun other = RunHost(PageAt("http://other.example.org/p.html", server.Url("/fault/signers.dll")), SiteQuestion());
            CheckSurvived(other);
            CHECK(other.lines == std::vector<std::string>{"false"});
        }
    }

    TEST_CASE("oversized page URL, parameters and script values")
    {
        TarnTest::TestServer& server = Server();
        REQUIRE(server.Running());
        const std::string good = server.Url("/good.dll");
        const std::string big(100 * 1024, 'a');
        // Command lines end at 32,767 characters: two values of 15,000 fit.
        const std::string longOnLine(15000, 'b');

        SUBCASE("a page URL of 15,000 characters")
        {
            const HostRun run = RunHost(PageAt("http://example.com/" + longOnLine + ".html", good), SiteQuestion());
            CheckSurvived(run);
            REQUIRE(run.lines.size() == 1);
            // The domain is example.com whatever the path: trusted, or refused cleanly.
            CHECK((run.lines[0] == "true" || FalseOrCleanError(run.lines[0])));
            const HostRun host = RunHost(PageAt("http://" + std::string(15000, 'c') + ".example.com/p.html", good), SiteQuestion());
            CheckSurvived(host);
            REQUIRE(host.lines.size() == 1);
            CHECK((host.lines[0] == "true" || FalseOrCleanError(host.lines[0])));
        }
        SUBCASE("page parameters of 15,000 characters")
        {
            const HostRun run = RunHost({L"--url", L"http://example.com/p.html", L"--param",
                                         TarnTest::Widen("TrustedSiteDataFileURL=" + server.Url("/" + longOnLine + ".dll")),
                                         L"--param", TarnTest::Widen("VendorID=" + longOnLine)},
                                        SiteQuestion());
            CheckSurvived(run);
            REQUIRE(run.lines.size() == 1);
            CHECK(FalseOrCleanError(run.lines[0]));
        }
        SUBCASE("a 100 KB data file URL set by script")
        {
            for (const std::string& url : {server.Url("/" + big + ".dll"), big, "http://" + big + "/trust.dll"}) {
                const std::wstring script = L"TarnSM.TrustedSiteDataFileURL = '" + TarnTest::Widen(url) + L"';\n" +
                                            L"host.Echo(TarnSM.TrustedSiteDataFileURL.length);\n" + SiteQuestion();
                const HostRun run = RunHost({L"--url", L"http://example.com/p.html"}, script);
                CheckSurvived(run);
                REQUIRE(run.lines.size() == 2);
                CHECK(run.lines[0] == std::to_string(url.size()));  // stored whole
                CHECK(FalseOrCleanError(run.lines[1]));
            }
        }
        SUBCASE("a 100 KB VendorID set by script is no vendor: the defaults decide")
        {
            const std::wstring script = L"TarnSM.VendorID = '" + TarnTest::Widen(big) + L"';\n" +
                                        L"host.Echo(TarnSM.VendorID.length);\n" + SiteQuestion() +
                                        L"host.Echo(ask(function () { return TarnSM.IsCurrentContainerTrusted(''); }));\n";
            const HostRun run = RunHost(PageAt("http://example.com/p.html", good), script);
            CheckSurvived(run);
            CHECK(run.lines == std::vector<std::string>{std::to_string(big.size()), "true", "false"});
            CHECK(run.LoggedStart("IsCurrentSiteTrustedInternal: Invalid VendorID parameter provided. Failling back to defaults."));
        }
        SUBCASE("a 100 KB alternative trust list of garbage")
        {
            // Base64 look-alikes, separators, padding in odd places, controls and non-ANSI text.
            std::wstring garbage;
            uint32_t seed = 12345;
            const std::wstring alphabet = L"ABCxyz0189+/=;;==%\\'\"\x01\x7F\x00E9\x4E2D\xFF54 ";
            while (garbage.size() < 100 * 1024) {
                seed = seed * 1103515245u + 12345u;
                garbage += alphabet[(seed >> 16) % alphabet.size()];
            }
            std::wstring literal;
            for (wchar_t c : garbage) {
                wchar_t escaped[8];
                swprintf(escaped, 8, L"\\u%04x", static_cast<unsigned>(c));
                literal += escaped;
            }
            for (const wchar_t* page : {L"file:///C:/x/page.html", L"http://example.com/p.html"}) {
                const std::wstring script =
                    L"var list = '" + literal + L"';\n" +
                    L"host.Echo(ask(function () { return TarnSM.IsCurrentContainerTrusted(list); }));\n" +
                    L"host.Echo(ask(function () { return TarnSM.IsCurrentContainerTrusted(list.substring(0, 65536)); }));\n";
                const HostRun run = RunHost({L"--url", page}, script);
                CheckSurvived(run);
                REQUIRE(run.lines.size() == 2);
                CHECK(FalseOrCleanError(run.lines[0]));
                CHECK(FalseOrCleanError(run.lines[1]));
            }
        }
    }

    TEST_CASE("characters outside the ANSI code page never become a look-alike that is trusted")
    {
        TarnTest::TestServer& server = Server();
        REQUIRE(server.Running());

        SUBCASE("a data file URL naming a file that does not exist, in look-alike letters")
        {
            // Narrowed leniently, g\xFF4F\xFF4Fd.dll would fetch good.dll, which trusts example.com.
            REQUIRE(server.ResetCounts());
            const std::wstring url = TarnTest::Widen(server.Url("/g")) + kFullwidthO + kFullwidthO + L"d.dll";
            const std::wstring script = L"host.Echo(ask(function () { TarnSM.TrustedSiteDataFileURL = '" + url +
                                        L"'; return 'set'; }));\n" + SiteQuestion();
            const HostRun run = RunHost({L"--url", L"http://example.com/p.html"}, script);
            CheckSurvived(run);
            REQUIRE(run.lines.size() == 2);
            CHECK(FalseOrCleanError(run.lines[1]));
            CHECK(server.RequestCount("/good.dll") == 0);
        }
        SUBCASE("a page whose host name is a look-alike of a trusted domain")
        {
            const HostRun run = RunHost({L"--url", L"http://ex" + std::wstring(L"\xFF41") + L"mple.com/p.html", L"--param",
                                         TarnTest::Widen("TrustedSiteDataFileURL=" + server.Url("/good.dll"))},
                                        SiteQuestion());
            CheckSurvived(run);
            REQUIRE(run.lines.size() == 1);
            CHECK(FalseOrCleanError(run.lines[0]));
        }
        SUBCASE("a VendorID in another script is no vendor and changes nothing else")
        {
            const std::wstring script = L"host.Echo(ask(function () { TarnSM.VendorID = 'Vendor\x4E2D\x6587'; return 'set'; }));\n" +
                                        SiteQuestion() +
                                        L"host.Echo(ask(function () { return TarnSM.IsCurrentContainerTrusted(''); }));\n";
            const HostRun run = RunHost(PageAt("http://example.com/p.html", server.Url("/good.dll")), script);
            CheckSurvived(run);
            REQUIRE(run.lines.size() == 3);
            // Either refused at the assignment or an unknown vendor: the default signers apply.
            CHECK((run.lines[0] == "set" || run.lines[0].compare(0, 15, "error 80004005 ") == 0));
            CHECK(run.lines[1] == "true");
            CHECK(FalseOrCleanError(run.lines[2]));
        }
    }

    TEST_CASE("vendor lists with subkey names at the registry's limits")
    {
        const std::wstring longest(255, L'x');
        const std::wstring oddAscii = L"Plain Signer;|*?\"<>,=+#";

        SUBCASE("signers: a 255-character name, odd punctuation and a look-alike of the real signer")
        {
            const std::string vendor = Unique("OddSignersVendor");
            OddVendorKey key(vendor, L"TrustedSigners", {longest, oddAscii, kFullwidthP + L"lainSigner"});
            REQUIRE(key.created[0]);
            REQUIRE(key.created[1]);
            REQUIRE(key.created[2]);
            TarnTest::TestServer& server = Server();
            REQUIRE(server.Running());
            const HostRun run = RunHost({L"--url", L"http://shop.example.com/p.html", L"--param",
                                         TarnTest::Widen("TrustedSiteDataFileURL=" + server.Url("/good.dll")), L"--param",
                                         TarnTest::Widen("VendorID=" + vendor)},
                                        SiteQuestion());
            CheckSurvived(run);
            // good.dll is signed by PlainSigner, whom this vendor does not list.
            CHECK(run.lines == std::vector<std::string>{"false"});
        }
        SUBCASE("a name past the registry's limit is refused by the registry itself")
        {
            const std::string vendor = Unique("TooLongVendor");
            OddVendorKey key(vendor, L"TrustedSigners", {std::wstring(300, L'y')});
            CHECK_FALSE(key.created[0]);
        }
        SUBCASE("containers: a 255-character name and a look-alike of the host's own name")
        {
            const std::string vendor = Unique("OddContainersVendor");
            OddVendorKey key(vendor, L"TrustedContainers", {longest, L"tarnhost.exe ", kFullwidthT + L"arnhost.exe"});
            REQUIRE(key.created[0]);
            REQUIRE(key.created[2]);
            const std::wstring script = L"host.Echo(ask(function () { return TarnSM.IsCurrentContainerTrusted(''); }));\n";
            const HostRun run = RunHost({L"--url", L"file:///C:/x/page.html", L"--param", TarnTest::Widen("VendorID=" + vendor)}, script);
            CheckSurvived(run);
            CHECK(run.lines == std::vector<std::string>{"false"});

            // The same vendor with the host's real name: the list is read at all.
            const std::string plain = Unique("PlainContainersVendor");
            OddVendorKey plainKey(plain, L"TrustedContainers", {longest, L"tarnhost.exe"});
            const HostRun control = RunHost({L"--url", L"file:///C:/x/page.html", L"--param", TarnTest::Widen("VendorID=" + plain)}, script);
            CheckSurvived(control);
            CHECK(control.lines == std::vector<std::string>{"true"});
        }
    }
}

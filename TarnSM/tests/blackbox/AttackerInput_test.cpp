// What an attacker controls - the page, its parameters, a certificate's subject, a vendor
// list's spelling - never turns into "trusted" where an honest reading says no. Each row
// is a way in that once worked.
#include "HostPage.h"
#include "tools/tarngrant/tests/ContainerHost.h"

#include <doctest.h>

namespace {

const char kNotExactly[] = "VerifyAuthenticodeSignatureAndTrustedSigner (list) - Signer common name in ";
const char kInvalidVendor[] = "IsCurrentSiteTrustedInternal: Invalid VendorID parameter provided. Failling back to defaults.";

std::wstring Set(const std::wstring& assignment)
{
    return L"host.Echo(ask(function () { " + assignment + L"; return 'set'; }));\n";
}

} // namespace

TEST_CASE("a signer that only looks like a trusted one signs nothing")
{
    TarnTest::TestServer& server = HostPage::Server();
    REQUIRE(server.Running());
    struct Row {
        const char* file;
        const char* answer;
        bool refusedAsInexact;
    };
    const Row rows[] = {
        {"/good.dll", "true", false},      // PlainSigner itself: the page is trusted
        {"/lookalike.dll", "false", true}, // U+FF30 "lainSigner"
        {"/forged.dll", "false", false},   // "2.5.4.3=PlainSigner" inside a quoted OU value
    };
    for (const Row& row : rows) {
        CAPTURE(std::string(row.file));
        const auto run =
            HostPage::RunHost(HostPage::PageAt("http://example.com/p.html", server.Url(row.file)), HostPage::SiteQuestion());
        HostPage::CheckSurvived(run);
        CHECK(run.lines == std::vector<std::string>{row.answer});
        CHECK(run.LoggedStart(kNotExactly) == row.refusedAsInexact);
    }
}

TEST_CASE("a VendorID that would change the registry path is an unknown vendor")
{
    TarnTest::TestServer& server = HostPage::Server();
    REQUIRE(server.Running());
    // The vendor trusts OtherSigner only; its own key's one subkey is "TarnSM", and
    // tarnsm.dll is signed by a certificate of that name.
    const std::string vendor = HostPage::Unique("PathVendor");
    HostPage::OddVendorKey key(vendor, L"TrustedSigners", {L"OtherSigner"});
    REQUIRE(key.created[0]);
    const std::wstring wideVendor = TarnTest::Widen(vendor);
    for (const std::wstring& id : {wideVendor + L"\\u0000", wideVendor + L"\\\\TarnSM", wideVendor}) {
        CAPTURE(ContainerTest::Narrow(id));
        const auto run = HostPage::RunHost(HostPage::PageAt("http://example.com/p.html", server.Url("/tarnsm.dll")),
                                           Set(L"TarnSM.VendorID = '" + id + L"'") + HostPage::SiteQuestion());
        HostPage::CheckSurvived(run);
        CHECK(run.lines == std::vector<std::string>{"set", "false"});
    }
}

TEST_CASE("a VendorID outside the ANSI code page is an unknown vendor, not an error")
{
    TarnTest::TestServer& server = HostPage::Server();
    REQUIRE(server.Running());
    const std::wstring vendor = L"Vendor\x4E2D\x6587";
    // As a page parameter (IPersistPropertyBag::Load) and as a script assignment.
    const std::vector<std::pair<std::vector<std::wstring>, std::wstring>> pages = {
        {{L"--param", L"VendorID=" + vendor}, L""},
        {{}, Set(L"TarnSM.VendorID = '" + vendor + L"'")},
    };
    for (const auto& page : pages) {
        auto options = HostPage::PageAt("http://example.com/p.html", server.Url("/good.dll"));
        options.insert(options.end(), page.first.begin(), page.first.end());
        const auto run = HostPage::RunHost(options, page.second + L"host.Echo(TarnSM.VendorID === '" + vendor + L"');\n" +
                                                        HostPage::SiteQuestion());
        HostPage::CheckSurvived(run);
        std::vector<std::string> expected = {"true", "true"};
        if (!page.second.empty())
            expected.insert(expected.begin(), "set");
        CHECK(run.lines == expected);
        CHECK(run.LoggedStart(kInvalidVendor));
        CHECK_FALSE(run.LoggedStart("Throwing "));
    }
}

TEST_CASE("container trust: an unreadable page or vendor name never brings back a trusted name")
{
    ContainerTest::HostDirectory dir;
    auto ask = [&](const std::vector<std::wstring>& options) {
        // Keeps the ring, and so the host's records, alive after the host has gone.
        TarnLog::Log("TarnSMX::AttackerInputTest", 3, "AttackerInputTest: running a host.");
        ContainerTest::Process host(ContainerTest::HostArgs(dir, dir.Host(L"mshta.exe"), options), false);
        const auto run = host.Finish();
        CHECK_FALSE(run.timedOut);
        return std::make_pair(run.out, ContainerTest::RingMessagesOf(host.Pid()));
    };
    SUBCASE("a remote page whose URL has no ANSI form is still a remote page")
    {
        const auto answer = ask({L"--url", L"http://127.0.0.1/\x0436/page.html"});
        CHECK(answer.first == "false\n");
        CHECK(ContainerTest::HasMessage(answer.second,
                                        "IsCurrentContainerTrustedInternal: Current site's URL or security zone cannot be read. Container trust cannot be determined."));
    }
    SUBCASE("a vendor that lists only a name without an exact ANSI form still replaces the built-in list")
    {
        ContainerTest::VendorKey vendor(ContainerTest::UniqueVendor("InexactOnly"));
        vendor.AddContainersWide({L"\xFF4Dyhost.exe"});
        const auto answer = ask({L"--param", L"VendorID=" + TarnTest::Widen(vendor.Name())});
        CHECK(answer.first == "false\n");
    }
}

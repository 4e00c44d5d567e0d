#include "TarnSM/SiteList.h"
#include "tools/tarntrust/SiteListLint.h"
#include "TarnSM/SignerList.h"
#include "LogCapture.h"

#include <doctest.h>

using namespace TarnSMX;
using Names = std::vector<std::string>;

TEST_CASE("site list text is cut into trusted and denied entries")
{
    Names trusted, denied;

    SUBCASE("CR LF, LF and CR all end lines; empty lines and comments vanish")
    {
        REQUIRE(ParseSiteInfo("+a.example\r\n\r\n-b.example\n#note", trusted, denied));
        CHECK(trusted == Names{"a.example"});
        CHECK(denied == Names{"b.example"});

        trusted.clear();
        denied.clear();
        REQUIRE(ParseSiteInfo("\n\r+one\r+two\n\r\n-three\r\r\n\n+four", trusted, denied));
        CHECK(trusted == Names{"one", "two", "four"});
        CHECK(denied == Names{"three"});
    }
    SUBCASE("entries are kept as written: blanks, case, order, even when empty")
    {
        REQUIRE(ParseSiteInfo("+ example.com\n+Example.COM \n-\n+\n+=x\n+*.y", trusted, denied));
        CHECK(trusted == Names{" example.com", "Example.COM ", "", "=x", "*.y"});
        CHECK(denied == Names{""});
    }
    SUBCASE("only the first character decides; the rest may hold signs")
    {
        REQUIRE(ParseSiteInfo(" +a\n--b\n+-c\nx+d", trusted, denied));
        CHECK(trusted == Names{"-c"});
        CHECK(denied == Names{"-b"});
    }
    SUBCASE("a text without entries is still read successfully, and lists are appended to")
    {
        trusted = {"kept"};
        CHECK(ParseSiteInfo("", trusted, denied));
        CHECK(ParseSiteInfo("# nothing here\r\n", trusted, denied));
        CHECK(ParseSiteInfo("+added", trusted, denied));
        CHECK(trusted == Names{"kept", "added"});
        CHECK(denied.empty());
    }
    SUBCASE("a zero byte ends the text, as it does for the resource string")
    {
        REQUIRE(ParseSiteInfo(std::string("+a.example\0\n+b.example", 22), trusted, denied));
        CHECK(trusted == Names{"a.example"});
    }
}

TEST_CASE("matching one entry against a domain")
{
    SUBCASE("a bare domain matches itself and whole-label subdomains only")
    {
        CHECK(MatchSite("example.com", "example.com"));
        CHECK(MatchSite("example.com", "shop.example.com"));
        CHECK_FALSE(MatchSite("example.com", "badexample.com"));
        CHECK_FALSE(MatchSite("example.com", "example.com.evil.net"));
        CHECK_FALSE(MatchSite("shop.example.com", "example.com"));
    }
    SUBCASE("a wildcard matches subdomains, never the domain itself")
    {
        CHECK(MatchSite("*.example.com", "shop.example.com"));
        CHECK_FALSE(MatchSite("*.example.com", "example.com"));
        CHECK_FALSE(MatchSite("*.example.com", "badexample.com"));
        CHECK(MatchSite("*.c", "b.c"));
        CHECK_FALSE(MatchSite("*.c", "c"));
    }
    SUBCASE("an exact entry matches the domain itself only")
    {
        CHECK(MatchSite("=example.com", "example.com"));
        CHECK_FALSE(MatchSite("=example.com", "shop.example.com"));
        CHECK(MatchSite("=c", "c"));
    }
    SUBCASE("comparison is case-sensitive")
    {
        CHECK_FALSE(MatchSite("Example.com", "example.com"));
        CHECK_FALSE(MatchSite("*.Example.com", "shop.example.com"));
    }
    SUBCASE("too short to be a wildcard or exact entry: compared as a bare domain")
    {
        // A bare "*." is a literal pattern, so it admits no real domain at all.
        CHECK(MatchSite("*.", "*."));
        CHECK(MatchSite("*.", "a.*."));
        CHECK_FALSE(MatchSite("*.", "example.com"));
        CHECK_FALSE(MatchSite("*.", "example.com."));
        CHECK(MatchSite("=", "="));
        CHECK_FALSE(MatchSite("=", "example.com"));
    }
    SUBCASE("an entry longer than the domain never matches")
    {
        CHECK_FALSE(MatchSite("example.com", "com"));
        CHECK_FALSE(MatchSite("=example.com", "e.com"));
        CHECK_FALSE(MatchSite("example.com", ""));
    }
}

TEST_CASE("trust decision over both lists, with its log records")
{
    TarnTest::LogCapture capture;
    const std::string denied = "GetTrust: Current site found on denied list. Current site is not trusted.";
    const std::string found = "GetTrust: Current site found on trust list. Current site is trusted.";
    const std::string notFound = "GetTrust: Current site not found on trust list. Current site is not trusted.";

    SUBCASE("a denied entry wins over a trusted one")
    {
        const Names trusted{"example.com"};
        const Names deniedList{"shop.example.com"};
        CHECK_FALSE(GetTrust(trusted, deniedList, "shop.example.com"));
        CHECK(capture.Has(denied, 2));
        CHECK_FALSE(capture.HasSubstring("on trust list"));
        capture.Clear();
        CHECK(GetTrust(trusted, deniedList, "mail.example.com"));
        CHECK(capture.Has(found, 3));
        CHECK(capture.Records().size() == 1);
        CHECK(capture.Records()[0].className == "TarnSMX::TarnSM");
    }
    SUBCASE("no match, empty lists and empty entries are not trust")
    {
        CHECK_FALSE(GetTrust({"example.com"}, {}, "example.org"));
        CHECK(capture.Has(notFound, 3));
        CHECK_FALSE(GetTrust({}, {}, "example.com"));
        // An empty entry would otherwise match every domain ending in a dot.
        CHECK_FALSE(GetTrust({""}, {}, "host."));
        CHECK(GetTrust({"host."}, {""}, "host."));
        CHECK(capture.Count(notFound) == 3);
    }
    SUBCASE("the first matching entry decides, later ones are not needed")
    {
        CHECK(GetTrust({"nomatch.org", "*.example.com", "example.com"}, {"other.org"}, "a.example.com"));
        CHECK(capture.Count(found) == 1);
    }
}

TEST_CASE("scheme codes, data file extension and site list string ids")
{
    CHECK(SchemeCode("http") == kSchemeHttp);
    CHECK(SchemeCode("HTTPS") == kSchemeHttps);
    CHECK(SchemeCode("File") == kSchemeFile);
    CHECK(SchemeCode("ftp") == kSchemeOther);
    CHECK(SchemeCode("http2") == kSchemeOther);
    CHECK(SchemeCode("htt") == kSchemeOther);

    CHECK(HasDllExtension("https://example.com/trust.dll"));
    CHECK(HasDllExtension("https://example.com/TRUST.DLL"));
    CHECK_FALSE(HasDllExtension("https://example.com/trust.dll?x=1"));
    CHECK_FALSE(HasDllExtension("https://example.com/trust.txt"));
    CHECK_FALSE(HasDllExtension("ll"));
    CHECK_FALSE(HasDllExtension(""));

    CHECK(SiteListStringId(kSchemeHttp) == 102);
    CHECK(SiteListStringId(kSchemeHttps) == 101);
    CHECK(SiteListStringId(kSchemeFile) == 102);
    CHECK(SiteListStringId(kSchemeOther) == 0);
}

TEST_CASE("signer names are split at any run of separators, untrimmed")
{
    CHECK(SplitSigners("Org One||Org Two|", "|") == Names{"Org One", "Org Two"});
    CHECK(SplitSigners("|||Solo Signer", "|") == Names{"Solo Signer"});
    CHECK(SplitSigners(" Spaced Name |Other", "|") == Names{" Spaced Name ", "Other"});
    CHECK(SplitSigners("A\nB\n\nC", "\n") == Names{"A", "B", "C"});
    CHECK(SplitSigners("A|B\nC", "|\n") == Names{"A", "B", "C"});
    CHECK(SplitSigners("||", "|").empty());
}

TEST_CASE("site list linter points at lines the loader would misread")
{
    auto lint = [](const std::string& text) {
        std::vector<std::pair<size_t, std::string>> found;
        for (const auto& w : LintSiteList(text))
            found.emplace_back(w.line, w.text);
        return found;
    };

    SUBCASE("a clean list with comments and blank lines gives no warning")
    {
        CHECK(lint("# trusted\r\n+example.com\r\n\r\n; denied\r\n-=bad.example.com\r\n+*.cdn.example.net\n").empty());
        CHECK(lint("").empty());
    }
    SUBCASE("each kind of mistake is reported on its own line, CR LF counting once")
    {
        const auto found = lint("+ok.example\r\n example.com\r\n+ lead.example\r\n+\r\n-http://x.example\r\n+*.\r\ntrail");
        REQUIRE(found.size() == 6);
        CHECK(found[0].first == 2);
        CHECK(found[0].second.find("ignored") != std::string::npos);
        CHECK(found[1].first == 3);
        CHECK(found[1].second.find("blanks") != std::string::npos);
        CHECK(found[2].first == 4);
        CHECK(found[2].second.find("empty") != std::string::npos);
        CHECK(found[3].first == 5);
        CHECK(found[3].second.find("'/'") != std::string::npos);
        CHECK(found[4].first == 6);
        CHECK(found[4].second.find("no domain") != std::string::npos);
        CHECK(found[5].first == 7);
    }
    SUBCASE("lone CR and LF each end a line; a trailing blank is caught")
    {
        const auto found = lint("+a\r+b\n+c \r\n+d");
        REQUIRE(found.size() == 1);
        CHECK(found[0].first == 3);
    }
    SUBCASE("a blank inside the entry is a character no domain has")
    {
        CHECK(lint("+exa mple.com\n-host:8080").size() == 2);
    }
}

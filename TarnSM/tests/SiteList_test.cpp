// The single copy of the site-list rules: parsing, matching one entry, the decision over both
// lists, scheme to list, signer splitting and the publisher's lint.
#include "TarnSM/SiteList.h"
#include "tools/tarntrust/SiteListLint.h"
#include "TarnSM/SignerList.h"
#include "LogCapture.h"

#include <doctest.h>

using namespace TarnSMX;
using Names = std::vector<std::string>;

TEST_CASE("site list text is cut into trusted and denied entries")
{
    const struct { std::string text; Names trusted, denied; } table[] = {
        // CR LF, LF and CR all end lines; empty lines and comments vanish.
        {"+a.example\r\n\r\n-b.example\n#note", {"a.example"}, {"b.example"}},
        {"\n\r+one\r+two\n\r\n-three\r\r\n\n+four", {"one", "two", "four"}, {"three"}},
        // Entries are kept as written: blanks, case, order, even when empty.
        {"+ example.com\n+Example.COM \n-\n+\n+=x\n+*.y", {" example.com", "Example.COM ", "", "=x", "*.y"}, {""}},
        // Only the first character decides.
        {" +a\n--b\n+-c\nx+d", {"-c"}, {"-b"}},
        {"", {}, {}},
        {"# nothing here\r\n", {}, {}},
        // A zero byte ends the text, as it does for the resource string.
        {std::string("+a.example\0\n+b.example", 22), {"a.example"}, {}},
    };
    for (const auto& row : table) {
        Names trusted{"kept"}, denied;  // lists are appended to
        REQUIRE(ParseSiteInfo(row.text, trusted, denied));
        Names expected{"kept"};
        expected.insert(expected.end(), row.trusted.begin(), row.trusted.end());
        CHECK(trusted == expected);
        CHECK(denied == row.denied);
    }
}

TEST_CASE("matching one entry against a domain")
{
    const struct { const char* entry; const char* domain; bool match; } table[] = {
        // A bare domain matches itself and whole-label subdomains only.
        {"example.com", "example.com", true}, {"example.com", "shop.example.com", true},
        {"example.com", "badexample.com", false}, {"example.com", "example.com.evil.net", false},
        {"shop.example.com", "example.com", false},
        // A wildcard matches subdomains, never the domain itself.
        {"*.example.com", "shop.example.com", true}, {"*.example.com", "example.com", false},
        {"*.example.com", "badexample.com", false}, {"*.c", "b.c", true}, {"*.c", "c", false},
        // An exact entry matches the domain itself only.
        {"=example.com", "example.com", true}, {"=example.com", "shop.example.com", false}, {"=c", "c", true},
        // Case-sensitive.
        {"Example.com", "example.com", false}, {"*.Example.com", "shop.example.com", false},
        // Too short to be a wildcard or exact entry: a literal bare pattern.
        {"*.", "*.", true}, {"*.", "a.*.", true}, {"*.", "example.com", false}, {"*.", "example.com.", false},
        {"=", "=", true}, {"=", "example.com", false},
        // Longer than the domain.
        {"example.com", "com", false}, {"=example.com", "e.com", false}, {"example.com", "", false},
    };
    for (const auto& row : table) {
        INFO(row.entry << " vs " << row.domain);
        CHECK(MatchSite(row.entry, row.domain) == row.match);
    }
}

TEST_CASE("trust decision over both lists: denied wins, the first match decides, empty entries never trust")
{
    const std::string denied = "GetTrust: Current site found on denied list. Current site is not trusted.";
    const std::string found = "GetTrust: Current site found on trust list. Current site is trusted.";
    const std::string notFound = "GetTrust: Current site not found on trust list. Current site is not trusted.";
    const struct { Names trusted, denied; const char* domain; bool result; int level; const std::string& record; } table[] = {
        {{"example.com"}, {"shop.example.com"}, "shop.example.com", false, 2, denied},
        {{"example.com"}, {"shop.example.com"}, "mail.example.com", true, 3, found},
        {{"example.com"}, {}, "example.org", false, 3, notFound},
        {{}, {}, "example.com", false, 3, notFound},
        {{""}, {}, "host.", false, 3, notFound},  // an empty entry would match every name ending in a dot
        {{"host."}, {""}, "host.", true, 3, found},
        {{"nomatch.org", "*.example.com", "example.com"}, {"other.org"}, "a.example.com", true, 3, found},
    };
    for (const auto& row : table) {
        INFO(std::string(row.domain));
        TarnTest::LogCapture capture;
        CHECK(GetTrust(row.trusted, row.denied, row.domain) == row.result);
        TarnTest::Expect(capture, {{"TarnSMX::TarnSM", row.level, row.record}});
    }
}

TEST_CASE("scheme codes, data file extension and site list string ids")
{
    const struct { const char* scheme; uint32_t code; } schemes[] = {
        {"http", kSchemeHttp}, {"HTTPS", kSchemeHttps}, {"File", kSchemeFile},
        {"ftp", kSchemeOther}, {"http2", kSchemeOther}, {"htt", kSchemeOther},
    };
    for (const auto& row : schemes)
        CHECK(SchemeCode(row.scheme) == row.code);
    CHECK(std::vector<int>{SiteListStringId(kSchemeHttp), SiteListStringId(kSchemeHttps), SiteListStringId(kSchemeFile),
                           SiteListStringId(kSchemeOther)} == std::vector<int>{102, 101, 102, 0});

    const struct { const char* url; bool dll; } urls[] = {
        {"https://example.com/trust.dll", true}, {"https://example.com/TRUST.DLL", true},
        {"https://example.com/trust.dll?x=1", false}, {"https://example.com/trust.txt", false}, {"ll", false}, {"", false},
    };
    for (const auto& row : urls)
        CHECK(HasDllExtension(row.url) == row.dll);
}

TEST_CASE("signer names are split at any run of separators, untrimmed")
{
    const struct { const char* text; const char* separators; Names names; } table[] = {
        {"Org One||Org Two|", "|", {"Org One", "Org Two"}},
        {"|||Solo Signer", "|", {"Solo Signer"}},
        {" Spaced Name |Other", "|", {" Spaced Name ", "Other"}},
        {"A\nB\n\nC", "\n", {"A", "B", "C"}},
        {"A|B\nC", "|\n", {"A", "B", "C"}},
        {"||", "|", {}},
    };
    for (const auto& row : table)
        CHECK(SplitSigners(row.text, row.separators) == row.names);
}

TEST_CASE("site list linter points at lines the loader would misread")
{
    const struct { const char* text; std::vector<std::pair<size_t, const char*>> warnings; } table[] = {
        {"# trusted\r\n+example.com\r\n\r\n; denied\r\n-=bad.example.com\r\n+*.cdn.example.net\n", {}},
        {"", {}},
        // Each kind of mistake on its own line, CR LF counting once.
        {"+ok.example\r\n example.com\r\n+ lead.example\r\n+\r\n-http://x.example\r\n+*.\r\ntrail",
         {{2, "ignored"}, {3, "blanks"}, {4, "empty"}, {5, "'/'"}, {6, "no domain"}, {7, ""}}},
        // Lone CR and LF each end a line; a trailing blank is caught.
        {"+a\r+b\n+c \r\n+d", {{3, ""}}},
        // A blank inside the entry, or a port, is a character no domain has.
        {"+exa mple.com\n-host:8080", {{1, ""}, {2, ""}}},
    };
    for (const auto& row : table) {
        INFO(std::string(row.text));
        const auto found = TarnTrust::LintSiteList(row.text);
        REQUIRE(found.size() == row.warnings.size());
        for (size_t i = 0; i < found.size(); ++i) {
            CHECK(found[i].line == row.warnings[i].first);
            CHECK(found[i].text.find(row.warnings[i].second) != std::string::npos);
        }
    }
}

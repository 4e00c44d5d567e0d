#include "TarnSM/AltTrustList.h"
#include "TarnBase/Exceptions.h"
#include "LogCapture.h"

#include <doctest.h>

using namespace TarnSMX;
using Names = std::vector<std::string>;

namespace {

const char kDecodeFailed[] =
    "AddAltTrustList: Failed to decode alternative trust list item, token %s. Token will be ignored";

std::string DecodeFailedFor(const std::string& token)
{
    std::string message = kDecodeFailed;
    message.replace(message.find("%s"), 2, token);
    return message;
}

int g_decodeCalls = 0;

// Fails on every token that starts with '!'; other tokens decode to themselves.
bool FailOnBang(const std::string& token, std::string& decoded)
{
    ++g_decodeCalls;
    if (!token.empty() && token[0] == '!')
        return false;
    decoded = token;
    return true;
}

// Throws a library exception on the token "boom".
bool ThrowOnBoom(const std::string& token, std::string& decoded)
{
    if (token == "boom")
        throw TarnBase::OutOfMemoryException();
    decoded = token;
    return true;
}

} // namespace

TEST_CASE("alternative trust list tokens become lower-case container names")
{
    TarnTest::LogCapture capture;
    Names containers{"mshta.exe"};

    SUBCASE("separator runs give no empty tokens; names are appended after the existing list")
    {
        AddAltTrustList(containers, ";;bXlob3N0LmV4ZQ==;");
        CHECK(containers == Names{"mshta.exe", "myhost.exe"});
        CHECK(capture.Records().empty());
    }
    SUBCASE("names are lower-cased, kept in order and not de-duplicated")
    {
        // TXlIb3N0LkVYRQ== is MyHost.EXE; bXlob3N0LmV4ZQ is myhost.exe without padding.
        AddAltTrustList(containers, "TXlIb3N0LkVYRQ==;bXlob3N0LmV4ZQ;b3RoZXIuZXhl");
        CHECK(containers == Names{"mshta.exe", "myhost.exe", "myhost.exe", "other.exe"});
    }
    SUBCASE("the browser itself is never added, whatever its case")
    {
        // SUVYUExPUkUuRVhF is IEXPLORE.EXE; aWV4cGxvcmUuZXhlAA== is iexplore.exe and a zero byte.
        AddAltTrustList(containers, "SUVYUExPUkUuRVhF;aWV4cGxvcmUuZXhlAA==;aWV4cGxvcmUuZXhlMg==");
        CHECK(containers == Names{"mshta.exe", "iexplore.exe2"});
    }
    SUBCASE("an empty list adds nothing and decodes nothing")
    {
        g_decodeCalls = 0;
        AddAltTrustList(containers, "", &FailOnBang);
        AddAltTrustList(containers, ";;;", &FailOnBang);
        CHECK(g_decodeCalls == 0);
        CHECK(containers == Names{"mshta.exe"});
    }
}

TEST_CASE("undecodable tokens and library exceptions never stop the host")
{
    TarnTest::LogCapture capture;
    Names containers;

    SUBCASE("a token that keeps failing is retried a few times, then passed over")
    {
        g_decodeCalls = 0;
        AddAltTrustList(containers, "First.exe;!bad;Last.exe", &FailOnBang);
        CHECK(containers == Names{"first.exe", "last.exe"});
        CHECK(g_decodeCalls == 5);
        CHECK(capture.Count(DecodeFailedFor("!bad")) == 3);
        for (const auto& r : capture.Records()) {
            CHECK(r.level == 2);
            CHECK(r.className == "TarnSMX::TarnSM");
        }
    }
    SUBCASE("a library exception ends processing, keeping the names added so far")
    {
        AddAltTrustList(containers, "a.exe;boom;b.exe", &ThrowOnBoom);
        CHECK(containers == Names{"a.exe"});
        CHECK(capture.Has("AddAltTrustList: TarnBase::BaseException encountered during processing. "
                          "Error identifier: OUT_OF_MEMORY_ERROR.",
                          2));
    }
}

TEST_CASE("ASCII lower-casing leaves other bytes alone")
{
    CHECK(ToLowerAscii("@[`{AZaz09\xC4") == "@[`{azaz09\xC4");
}

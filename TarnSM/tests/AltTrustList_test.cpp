#include "TarnSM/AltTrustList.h"
#include "TarnBase/Exceptions.h"
#include "LogCapture.h"

#include <doctest.h>

using namespace TarnSMX;
using Names = std::vector<std::string>;

namespace {

int g_decodeCalls = 0;

// Fails on every token that starts with '!' and throws a library exception on "boom"; other
// tokens decode to themselves.
bool FakeDecode(const std::string& token, std::string& decoded)
{
    ++g_decodeCalls;
    if (token == "boom")
        throw TarnBase::OutOfMemoryException();
    decoded = token;
    return token.empty() || token[0] != '!';
}

} // namespace

TEST_CASE("alternative trust list tokens become lower-case container names, never the browser")
{
    const struct { const char* list; Names added; } table[] = {
        // Separator runs give no empty tokens; names are appended after the existing list.
        {";;bXlob3N0LmV4ZQ==;", {"myhost.exe"}},
        // MyHost.EXE, myhost.exe without padding, other.exe: lower-cased, in order, not de-duplicated.
        {"TXlIb3N0LkVYRQ==;bXlob3N0LmV4ZQ;b3RoZXIuZXhl", {"myhost.exe", "myhost.exe", "other.exe"}},
        // IEXPLORE.EXE, iexplore.exe and a zero byte, iexplore.exe2.
        {"SUVYUExPUkUuRVhF;aWV4cGxvcmUuZXhlAA==;aWV4cGxvcmUuZXhlMg==", {"iexplore.exe2"}},
        {"", {}},
    };
    for (const auto& row : table) {
        TarnTest::LogCapture capture;
        Names containers{"mshta.exe"};
        AddAltTrustList(containers, row.list);
        Names expected{"mshta.exe"};
        expected.insert(expected.end(), row.added.begin(), row.added.end());
        CHECK(containers == expected);
        CHECK(capture.Records().empty());
    }
    CHECK(ToLowerAscii("@[`{AZaz09\xC4") == "@[`{azaz09\xC4");
}

// A departure that protects the host: a token that keeps failing is retried a bounded number
// of times and passed over, where the documented rule would repeat its message without end.
TEST_CASE("departure: an undecodable token is retried a few times, then passed over")
{
    TarnTest::LogCapture capture;
    Names containers;
    g_decodeCalls = 0;
    AddAltTrustList(containers, "First.exe;!bad;Last.exe", &FakeDecode);
    CHECK(containers == Names{"first.exe", "last.exe"});
    CHECK(g_decodeCalls == 5);
    const TarnTest::ExpectedRecord failed{
        "TarnSMX::TarnSM", 2, "AddAltTrustList: Failed to decode alternative trust list item, token !bad. Token will be ignored"};
    TarnTest::Expect(capture, {failed, failed, failed});
}

TEST_CASE("a library exception ends processing, keeping the names added so far")
{
    TarnTest::LogCapture capture;
    Names containers;
    AddAltTrustList(containers, "a.exe;boom;b.exe", &FakeDecode);
    CHECK(containers == Names{"a.exe"});
    TarnTest::Expect(capture, {{"TarnSMX::TarnSM", 2, "AddAltTrustList: TarnBase::BaseException encountered during processing. "
                                                      "Error identifier: OUT_OF_MEMORY_ERROR."}});
}

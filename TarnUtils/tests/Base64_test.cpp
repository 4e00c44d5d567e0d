#include "TarnUtils/Base64Utils.h"
#include "TarnBase/Exceptions.h"
#include "LogCapture.h"

#include <doctest.h>

using TarnUtils::Base64Utils;

namespace {

std::string Decoded(const std::string& text)
{
    std::string out = "stale";
    REQUIRE(Base64Utils::Decode(text, out));
    return out;
}

} // namespace

TEST_CASE("Base64 decoding is lenient about everything outside the alphabet")
{
    SUBCASE("full groups, padding and short final groups")
    {
        CHECK(Decoded("QUJD") == "ABC");
        CHECK(Decoded("QUI=") == "AB");
        CHECK(Decoded("QUI") == "AB");
        CHECK(Decoded("QUJDRA==") == "ABCD");
    }
    SUBCASE("white space, padding and stray characters are skipped wherever they are")
    {
        CHECK(Decoded("QUJD\n") == "ABC");
        CHECK(Decoded("QU JD") == "ABC");
        CHECK(Decoded("\tQ=U*J-D\r\n") == "ABC");
    }
    SUBCASE("the whole alphabet carries its values, + and / included")
    {
        CHECK(Decoded("+/+/") == "\xFB\xFF\xBF");
        CHECK(Decoded("YWJjZGVmZ2hpamtsbW5vcHFyc3R1dnd4eXpBQkNERUZHSElKS0xNTk9QUVJTVFVWV1hZWjAxMjM0NTY3ODk=")
              == "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789");
    }
    SUBCASE("a lone last character, or no alphabet character at all, gives nothing more")
    {
        CHECK(Decoded("QUJDR") == "ABC");
        CHECK(Decoded("Q") == "");
        CHECK(Decoded("= =\n") == "");
    }
    SUBCASE("a zero byte ends the input")
    {
        CHECK(Decoded(std::string("QUJD\0RUZH", 9)) == "ABC");
        CHECK(Decoded(std::string("\0QUJD", 5)) == "");
    }
    SUBCASE("decoding a string into itself")
    {
        std::string text = "QUJD";
        REQUIRE(Base64Utils::Decode(text, text));
        CHECK(text == "ABC");
    }
}

TEST_CASE("empty Base64 input is an invalid argument, logged before the throw")
{
    TarnTest::LogCapture capture;
    std::string out = "untouched";
    CHECK_THROWS_AS(Base64Utils::Decode("", out), TarnBase::InvalidParameterException);
    CHECK(out == "untouched");
    const auto records = capture.Records();
    REQUIRE(records.size() == 2);
    CHECK(records[0].className == "TarnUtils::Base64Utils");
    CHECK(records[0].level == 1);
    CHECK(records[0].message == "Decode - Invalid argument detected for parameter pstraEncodedText.");
    CHECK(records[1].level == 0);
    CHECK(records[1].message.rfind("Throwing TarnBase::InvalidParameterException exception type. File: Base64Utils Line: ", 0) == 0);
}

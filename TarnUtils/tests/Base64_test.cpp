#include "TarnUtils/Base64Utils.h"
#include "TarnBase/Exceptions.h"
#include "LogCapture.h"

#include <doctest.h>

using TarnUtils::Base64Utils;

TEST_CASE("Base64 decoding is lenient about everything outside the alphabet")
{
    const struct { std::string text, decoded; } table[] = {
        {"QUJD", "ABC"}, {"QUI=", "AB"}, {"QUI", "AB"}, {"QUJDRA==", "ABCD"},  // padding, short last group
        {"QUJD\n", "ABC"}, {"QU JD", "ABC"}, {"\tQ=U*J-D\r\n", "ABC"},       // skipped wherever they are
        {"+/+/", "\xFB\xFF\xBF"},
        {"YWJjZGVmZ2hpamtsbW5vcHFyc3R1dnd4eXpBQkNERUZHSElKS0xNTk9QUVJTVFVWV1hZWjAxMjM0NTY3ODk=",
         "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"},
        {"QUJDR", "ABC"}, {"Q", ""}, {"= =\n", ""},                            // a lone last character
        {std::string("QUJD\0RUZH", 9), "ABC"}, {std::string("\0QUJD", 5), ""},  // a zero byte ends the input
    };
    for (const auto& row : table) {
        std::string out = "stale";
        REQUIRE(Base64Utils::Decode(row.text, out));
        CHECK(out == row.decoded);
    }
}

TEST_CASE("empty Base64 input is an invalid argument, logged before the throw")
{
    TarnTest::LogCapture capture;
    std::string out = "untouched";
    CHECK_THROWS_AS(Base64Utils::Decode("", out), TarnBase::InvalidParameterException);
    CHECK(out == "untouched");
    TarnTest::Expect(capture, {
        {"TarnUtils::Base64Utils", 1, "Decode - Invalid argument detected for parameter pstraEncodedText."},
        {"", 0, "Throwing TarnBase::InvalidParameterException exception type. File: Base64Utils Line: ..."},
    });
}

#include "TarnUtils/X500Name.h"
#include "TarnBase/Exceptions.h"
#include "LogCapture.h"

#include <doctest.h>

#include <cstring>
#include <string>
#include <vector>

using TarnUtils::ExtractX500Name;
using TarnUtils::ExtractX500NameString;

TEST_CASE("an attribute's value is found by its exact type; malformed names end the search inside the text")
{
    const struct { const char* subject; const char* type; const char* value; } table[] = {
        {"2.5.4.6=US, 2.5.4.3=PlainSigner", "2.5.4.3", "PlainSigner"},
        {"2.5.4.6=US, 2.5.4.3=PlainSigner", "2.5.4.6", "US"},
        {"  2.5.4.3  =   Spaced Name   , 2.5.4.6=US", "2.5.4.3", "Spaced Name"},
        // Quoted values keep commas and blanks; a doubled quote stands for one.
        {"2.5.4.3=\"Org, Inc.\"", "2.5.4.3", "Org, Inc."},
        {"2.5.4.6=US, 2.5.4.3=\"Org, Inc.\", 2.5.4.7=Town", "2.5.4.7", "Town"},
        {"2.5.4.3=\" Say \"\"Hi\"\", ok \"", "2.5.4.3", " Say \"Hi\", ok "},
        // A CN forged inside another attribute's quoted value is not the CN.
        {"2.5.4.10=\"x, 2.5.4.3=Fake\", 2.5.4.3=Real", "2.5.4.3", "Real"},
        // An unquoted value ends at '+' as well as ','.
        {"2.5.4.10=Org + 2.5.4.11=\"x, 2.5.4.3=PlainSigner, y\", 2.5.4.3=ForgedSigner", "2.5.4.3", "ForgedSigner"},
        {"2.5.4.10=Org+2.5.4.3=Real, 2.5.4.6=US", "2.5.4.3", "Real"},
        {"2.5.4.11=\"a+b\" + 2.5.4.3=Name", "2.5.4.3", "Name"},
        {"2.5.4.10=Org + 2.5.4.11=\"2.5.4.3=PlainSigner\"", "2.5.4.3", ""},
        // The first of the type wins; types compare whole and by case.
        {"2.5.4.3=First, 2.5.4.3=Second", "2.5.4.3", "First"},
        {"2.5.4.31=Long, 2.5.4.3=Short", "2.5.4.3", "Short"},
        {"CN=Name", "cn", ""},
        {"CN=Name", "CN", "Name"},
        // Malformed.
        {"no equals sign", "2.5.4.3", ""},
        {"2.5.4.3=", "2.5.4.3", ""},
        {"2.5.4.3=\"unterminated, still", "2.5.4.3", "unterminated, still"},
        {"2.5.4.3=\"ends in a pair\"\"", "2.5.4.3", "ends in a pair\""},
        {"2.5.4.6=\"open, 2.5.4.3=X", "2.5.4.3", ""},
        {"2.5.4.6=\"US\"junk, 2.5.4.3=After", "2.5.4.3", "After"},
    };
    for (const auto& row : table) {
        INFO(std::string(row.subject));
        // A heap copy lets the address sanitizer see any read beyond the terminator.
        std::vector<char> copy(row.subject, row.subject + std::strlen(row.subject) + 1);
        CHECK(ExtractX500NameString(copy.data(), row.type) == row.value);
    }
    CHECK(ExtractX500Name("2.5.4.3=\"a\"\"b\"", "2.5.4.3", nullptr, 0) == 4);  // length with the terminator
    CHECK(ExtractX500Name("2.5.4.3=", "2.5.4.3", nullptr, 0) == 1);
    CHECK(ExtractX500Name("2.5.4.31=Long", "2.5.4.3", nullptr, 0) == 0);     // absent
}

TEST_CASE("copying into a caller's buffer never writes past its size")
{
    const char* subject = "2.5.4.3=\"Org, Inc.\"";
    const struct { const char* type; size_t size; size_t result; const char* text; size_t untouchedFrom; } table[] = {
        {"2.5.4.3", 16, 10, "Org, Inc.", 16},
        {"2.5.4.3", 5, 10, "Org,", 5},
        {"2.5.4.6", 16, 0, nullptr, 0},  // absent: the buffer is not touched
    };
    for (const auto& row : table) {
        char buffer[16];
        std::memset(buffer, 'x', sizeof buffer);
        CHECK(ExtractX500Name(subject, row.type, buffer, row.size) == row.result);
        if (row.text)
            CHECK(std::strcmp(buffer, row.text) == 0);
        for (size_t i = row.untouchedFrom; i < sizeof buffer; ++i)
            CHECK(buffer[i] == 'x');
    }
}

TEST_CASE("an empty name or type is an invalid argument, logged before the throw")
{
    TarnTest::LogCapture capture;
    CHECK_THROWS_AS(ExtractX500Name("", "2.5.4.3", nullptr, 0), TarnBase::InvalidParameterException);
    CHECK_THROWS_AS(ExtractX500Name(nullptr, "2.5.4.3", nullptr, 0), TarnBase::InvalidParameterException);
    CHECK_THROWS_AS(ExtractX500NameString("2.5.4.3=X", std::string()), TarnBase::InvalidParameterException);
    const TarnTest::ExpectedRecord invalid{"TarnUtilsLib::Authenticode", 1,
                                           "ExtractX500Name - Invalid argument detected for parameter pszName."};
    const TarnTest::ExpectedRecord thrown{"TarnUtilsLib::Authenticode", 0,
                                          "Throwing TarnBase::InvalidParameterException exception type. File: Authenticode Line: ..."};
    TarnTest::Expect(capture, {invalid, thrown, invalid, thrown, invalid, thrown});
}

#include "TarnUtils/X500Name.h"
#include "TarnBase/Exceptions.h"
#include "LogCapture.h"

#include <doctest.h>

#include <cstring>
#include <string>
#include <vector>

using TarnUtils::ExtractX500Name;
using TarnUtils::ExtractX500NameString;

TEST_CASE("an attribute's value is found by its exact type")
{
    SUBCASE("plain values run to the comma, blanks around the type and value dropped")
    {
        const char* subject = "2.5.4.6=US, 2.5.4.3=PlainSigner";
        CHECK(ExtractX500NameString(subject, "2.5.4.3") == "PlainSigner");
        CHECK(ExtractX500NameString(subject, "2.5.4.6") == "US");
        CHECK(ExtractX500Name(subject, "2.5.4.3", nullptr, 0) == 12);
        CHECK(ExtractX500NameString("  2.5.4.3  =   Spaced Name   , 2.5.4.6=US", "2.5.4.3") == "Spaced Name");
    }
    SUBCASE("quoted values keep commas and blanks; a doubled quote stands for one")
    {
        CHECK(ExtractX500NameString("2.5.4.3=\"Org, Inc.\"", "2.5.4.3") == "Org, Inc.");
        CHECK(ExtractX500NameString("2.5.4.6=US, 2.5.4.3=\"Org, Inc.\", 2.5.4.7=Town", "2.5.4.7") == "Town");
        CHECK(ExtractX500NameString("2.5.4.3=\" Say \"\"Hi\"\", ok \"", "2.5.4.3") == " Say \"Hi\", ok ");
        CHECK(ExtractX500Name("2.5.4.3=\"a\"\"b\"", "2.5.4.3", nullptr, 0) == 4);
        // A quoted value of another attribute must not be split at its comma.
        CHECK(ExtractX500NameString("2.5.4.10=\"x, 2.5.4.3=Fake\", 2.5.4.3=Real", "2.5.4.3") == "Real");
    }
    SUBCASE("the first attribute of the type wins; types compare whole and case-sensitively")
    {
        CHECK(ExtractX500NameString("2.5.4.3=First, 2.5.4.3=Second", "2.5.4.3") == "First");
        CHECK(ExtractX500NameString("2.5.4.31=Long, 2.5.4.3=Short", "2.5.4.3") == "Short");
        CHECK(ExtractX500Name("2.5.4.31=Long", "2.5.4.3", nullptr, 0) == 0);
        CHECK(ExtractX500Name("CN=Name", "cn", nullptr, 0) == 0);
        CHECK(ExtractX500NameString("CN=Name", "CN") == "Name");
    }
}

TEST_CASE("malformed names end the search without reading past the text")
{
    // Heap copies let the address sanitizer see any read beyond the terminator.
    auto extract = [](const std::string& text, const char* type) {
        std::vector<char> copy(text.begin(), text.end());
        copy.push_back('\0');
        return ExtractX500NameString(copy.data(), type);
    };
    CHECK(ExtractX500Name("no equals sign", "2.5.4.3", nullptr, 0) == 0);
    CHECK(extract("2.5.4.3=", "2.5.4.3").empty());
    CHECK(ExtractX500Name("2.5.4.3=", "2.5.4.3", nullptr, 0) == 1);
    CHECK(extract("2.5.4.3=   ", "2.5.4.3").empty());
    CHECK(extract("2.5.4.3=\"unterminated, still", "2.5.4.3") == "unterminated, still");
    CHECK(extract("2.5.4.3=\"ends in a pair\"\"", "2.5.4.3") == "ends in a pair\"");
    CHECK(extract("2.5.4.3=\"", "2.5.4.3").empty());
    CHECK(extract("2.5.4.6=\"open, 2.5.4.3=X", "2.5.4.3").empty());
    CHECK(extract("=,=,", "2.5.4.3").empty());
    CHECK(extract("2.5.4.6=US,", "2.5.4.3").empty());
    CHECK(extract("2.5.4.6=\"US\"junk, 2.5.4.3=After", "2.5.4.3") == "After");
}

TEST_CASE("copying into a caller's buffer never writes past its size")
{
    const char* subject = "2.5.4.3=\"Org, Inc.\"";
    char buffer[16];

    std::memset(buffer, 'x', sizeof buffer);
    CHECK(ExtractX500Name(subject, "2.5.4.3", buffer, sizeof buffer) == 10);
    CHECK(std::strcmp(buffer, "Org, Inc.") == 0);

    std::memset(buffer, 'x', sizeof buffer);
    CHECK(ExtractX500Name(subject, "2.5.4.3", buffer, 5) == 10);
    CHECK(std::strcmp(buffer, "Org,") == 0);
    CHECK(buffer[5] == 'x');

    std::memset(buffer, 'x', sizeof buffer);
    CHECK(ExtractX500Name(subject, "2.5.4.3", buffer, 1) == 10);
    CHECK(buffer[0] == '\0');
    CHECK(buffer[1] == 'x');

    CHECK(ExtractX500Name(subject, "2.5.4.3", buffer, 0) == 10);
    CHECK(buffer[0] == '\0');

    std::memset(buffer, 'x', sizeof buffer);
    CHECK(ExtractX500Name(subject, "2.5.4.6", buffer, sizeof buffer) == 0);
    CHECK(buffer[0] == 'x');
}

TEST_CASE("an empty name or type is an invalid argument, logged before the throw")
{
    TarnTest::LogCapture capture;
    CHECK_THROWS_AS(ExtractX500Name("", "2.5.4.3", nullptr, 0), TarnBase::InvalidParameterException);
    CHECK_THROWS_AS(ExtractX500Name(nullptr, "2.5.4.3", nullptr, 0), TarnBase::InvalidParameterException);
    CHECK_THROWS_AS(ExtractX500Name("2.5.4.3=X", "", nullptr, 0), TarnBase::InvalidParameterException);
    CHECK_THROWS_AS(ExtractX500NameString("2.5.4.3=X", std::string()), TarnBase::InvalidParameterException);

    CHECK(capture.Count("ExtractX500Name - Invalid argument detected for parameter pszName.") == 4);
    const auto records = capture.Records();
    REQUIRE(records.size() == 8);
    CHECK(records[0].className == "TarnUtilsLib::Authenticode");
    CHECK(records[0].level == 1);
    CHECK(records[1].level == 0);
    CHECK(records[1].message.rfind("Throwing TarnBase::InvalidParameterException exception type. File: Authenticode Line: ", 0) == 0);
}

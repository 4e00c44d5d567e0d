#include "SiteFile.h"

#include "ChildProcess.h"
#include "Scratch.h"

#include <doctest.h>

using TarnTrust::ParseSiteFile;

TEST_CASE("a site file becomes the strings the control reads; odd lines are named by line")
{
    const auto site = ParseSiteFile("# shop\r\n[https]\r\n+secure.example.com\r\n-admin.secure.example.com\r\n"
                                    "[http]\n+example.com\n#note\n[signers]\nPlainSigner\nOrg, Inc.\n");
    CHECK(site.errors.empty());
    CHECK(site.warnings.empty());
    CHECK(site.strings.at(101) == "+secure.example.com\r\n-admin.secure.example.com\r\n");
    CHECK(site.strings.at(102) == "+example.com\r\n");  // comments stay out of the module
    CHECK(site.strings.at(103) == "PlainSigner\nOrg, Inc.\n");

    // Entry lines are linted like the control's own lists; the file adds a missing [https]
    // section and a signer with a leading blank.
    CHECK(ParseSiteFile("[http]\n+example.com\n[signers]\n PlainSigner\n").warnings.size() == 2);
}

TEST_CASE("unknown sections, stray lines and lists over the loader's limit are errors")
{
    std::string huge = "[http]\n";
    for (int i = 0; i < 2000; ++i)
        huge += "+host" + std::to_string(i) + ".example.com\n";
    for (const std::string& text : {std::string("[ftp]\n+a.example\n"), std::string("+outside.example\n[http]\n"), huge})
        CHECK_FALSE(ParseSiteFile(text).errors.empty());
}

TEST_CASE("build, show and check agree with each other")
{
    TarnTest::TempDir dir(L"tarntrust");
    REQUIRE(TarnTest::WriteBytes(dir / L"site.txt",
                                 "[https]\n+secure.example.com\n-admin.secure.example.com\n[http]\n+example.com\nstray\n"));
    auto tool = [](std::vector<std::wstring> args) {
        args.insert(args.begin(), TarnTest::BuildPath("tools/tarntrust/tarntrust.exe"));
        return TarnTest::RunChild(args);
    };
    const auto built = tool({L"build", dir / L"site.txt", dir / L"trust.dll"});
    CHECK(built.exitCode == 0);
    CHECK(built.err.find(":6: warning:") != std::string::npos);
    const auto shown = tool({L"show", dir / L"trust.dll"});
    CHECK(shown.out.find("secure.example.com") != std::string::npos);
    CHECK(shown.out.find("signature: NOT valid") != std::string::npos);  // not signed yet
    // Matching is reported even for an unsigned file, whose answer is still "no".
    const auto trusted = tool({L"check", dir / L"trust.dll", L"shop.example.com", L"http"});
    CHECK(trusted.out.find("trusted (entry +example.com)") != std::string::npos);
    CHECK(trusted.exitCode == 1);
    CHECK(tool({L"check", dir / L"trust.dll", L"admin.secure.example.com"}).out.find(
              "denied by entry -admin.secure.example.com") != std::string::npos);
    CHECK(tool({L"check", dir / L"site.txt", L"x.example"}).exitCode == 1);  // not a module
    CHECK(tool({L"frobnicate"}).exitCode == 2);
}

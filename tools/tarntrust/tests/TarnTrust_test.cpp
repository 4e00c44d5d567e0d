#include "SiteFile.h"

#include "ChildProcess.h"

#include <doctest.h>

#include <fstream>

using TarnTrust::ParseSiteFile;

namespace {

bool HasWarning(const TarnTrust::SiteFile& site, int line, const std::string& part)
{
    for (const auto& w : site.warnings)
        if (w.line == line && w.text.find(part) != std::string::npos)
            return true;
    return false;
}

std::string TempPath(const char* name)
{
    char folder[MAX_PATH] = {};
    ::GetTempPathA(MAX_PATH, folder);
    return std::string(folder) + "tarntrust-" + std::to_string(::GetCurrentProcessId()) + "-" + name;
}

TarnTest::ChildResult Tool(std::vector<std::wstring> args)
{
    args.insert(args.begin(), TarnTest::BuildPath("tools/tarntrust/tarntrust.exe"));
    return TarnTest::RunChild(args);
}

} // namespace

TEST_CASE("a site file becomes the strings the control reads")
{
    const auto site = ParseSiteFile("# shop\r\n[https]\r\n+secure.example.com\r\n-admin.secure.example.com\r\n"
                                    "[http]\n+example.com\n#note\n[signers]\nPlainSigner\nOrg, Inc.\n");
    CHECK(site.errors.empty());
    CHECK(site.warnings.empty());
    CHECK(site.strings.at(101) == "+secure.example.com\r\n-admin.secure.example.com\r\n");
    CHECK(site.strings.at(102) == "+example.com\r\n");  // comments stay out of the module
    CHECK(site.strings.at(103) == "PlainSigner\nOrg, Inc.\n");
}

TEST_CASE("lines the control would ignore or never match are named by line")
{
    const auto site = ParseSiteFile("[http]\n+ example.com\nexample.org\n+*.\n[signers]\n PlainSigner\n");
    CHECK(HasWarning(site, 2, "blank"));
    CHECK(HasWarning(site, 3, "ignored"));
    CHECK(HasWarning(site, 4, ""));
    CHECK(HasWarning(site, 6, "blanks"));
    CHECK(HasWarning(site, 0, "missing section [https]"));
    CHECK(site.errors.empty());
}

TEST_CASE("unknown sections, stray lines and lists over the loader's limit are errors")
{
    CHECK_FALSE(ParseSiteFile("[ftp]\n+a.example\n").errors.empty());
    CHECK_FALSE(ParseSiteFile("+outside.example\n[http]\n").errors.empty());
    std::string huge = "[http]\n";
    for (int i = 0; i < 2000; ++i)
        huge += "+host" + std::to_string(i) + ".example.com\n";
    const auto site = ParseSiteFile(huge);
    REQUIRE_FALSE(site.errors.empty());
    CHECK(site.errors[0].text.find("loader") != std::string::npos);
}

TEST_CASE("build, show and check agree with each other")
{
    const std::string source = TempPath("site.txt");
    const std::string module = TempPath("trust.dll");
    std::ofstream(source) << "[https]\n+secure.example.com\n-admin.secure.example.com\n[http]\n+example.com\nstray\n";
    const auto built = Tool({L"build", TarnTest::Widen(source), TarnTest::Widen(module)});
    CHECK(built.exitCode == 0);
    CHECK(built.err.find(":6: warning:") != std::string::npos);

    const auto shown = Tool({L"show", TarnTest::Widen(module)});
    CHECK(shown.exitCode == 0);
    CHECK(shown.out.find("secure.example.com") != std::string::npos);
    CHECK(shown.out.find("signature: NOT valid") != std::string::npos);  // not signed yet

    // Matching is reported even for an unsigned file, whose answer is still "no".
    const auto trusted = Tool({L"check", TarnTest::Widen(module), L"shop.example.com", L"http"});
    CHECK(trusted.out.find("trusted (entry +example.com)") != std::string::npos);
    CHECK(trusted.exitCode == 1);
    const auto denied = Tool({L"check", TarnTest::Widen(module), L"admin.secure.example.com"});
    CHECK(denied.out.find("denied by entry -admin.secure.example.com") != std::string::npos);

    CHECK(Tool({L"check", TarnTest::Widen(source), L"x.example"}).exitCode == 1);  // not a module
    CHECK(Tool({L"frobnicate"}).exitCode == 2);
    ::DeleteFileA(source.c_str());
    ::DeleteFileA(module.c_str());
}

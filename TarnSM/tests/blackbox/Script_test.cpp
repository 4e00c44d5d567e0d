// Pages create the control from script with new ActiveXObject; cscript is the script
// client here.
#include "PageHost.h"
#include "ChildProcess.h"

#include <doctest.h>

#include <fstream>

namespace {

TarnTest::ChildResult RunJScript(const std::string& script)
{
    char directory[MAX_PATH] = {};
    ::GetTempPathA(MAX_PATH, directory);
    char path[MAX_PATH] = {};
    ::GetTempFileNameA(directory, "tsm", 0, path);
    const std::string file = std::string(path) + ".js";
    ::DeleteFileA(path);
    std::ofstream(file) << script;
    TarnTest::ChildResult result = TarnTest::RunChild({L"cscript.exe", L"//nologo", TarnTest::Widen(file)});
    ::DeleteFileA(file.c_str());
    return result;
}

} // namespace

TEST_CASE("a JScript page creates the control by both ProgIDs and round-trips its properties")
{
    const auto run = RunJScript(R"(
        var a = new ActiveXObject("TarnSM.TarnSM");
        var b = new ActiveXObject("TarnSM.TarnSM.1");
        a.TrustedSiteDataFileURL = "../data/sites.dll";
        WScript.Echo("url=" + a.TrustedSiteDataFileURL + "|b=" + b.TrustedSiteDataFileURL + "|");
        a.TrustedSiteDataFileURL = null;
        WScript.Echo("null=" + (a.TrustedSiteDataFileURL === "" || a.TrustedSiteDataFileURL === null));
        a.TrustedSiteDataFileURL = "";
        WScript.Echo("empty=[" + a.TrustedSiteDataFileURL + "]");
        b.VendorID = "scripted";
        WScript.Echo("vendor=" + a.VendorID);
        a.VendorID = null;
        WScript.Echo("vendor null=[" + b.VendorID + "]");
        WScript.Echo("answers=" + a.IsCurrentSiteAvailable() + "," + a.IsCurrentSiteLocal() + "," +
                     a.IsCurrentSiteTrusted() + "," + a.IsCurrentContainerTrusted(""));
        try { a.IsSiteTrusted("example.com"); WScript.Echo("no error"); }
        catch (e) { WScript.Echo("IsSiteTrusted=" + (e.number >>> 0).toString(16)); }
        try { a.IsContainerTrusted("", "host.exe"); WScript.Echo("no error"); }
        catch (e) { WScript.Echo("IsContainerTrusted=" + (e.number >>> 0).toString(16)); }
        WScript.Quit(42);
    )");
    REQUIRE(run.started);
    CHECK(run.exitCode == 42);
    CHECK(run.out ==
          "url=../data/sites.dll|b=|\n"
          "null=true\n"
          "empty=[]\n"
          "vendor=scripted\n"
          "vendor null=[]\n"
          "answers=false,false,false,false\n"
          "IsSiteTrusted=80004001\n"
          "IsContainerTrusted=80004001\n");
}

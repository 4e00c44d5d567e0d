// Pages create the control from script with new ActiveXObject; cscript is the script client
// here. Property rules are in Dispatch_test; this is the path from a script engine.
#include "ChildProcess.h"
#include "Scratch.h"

#include <doctest.h>

TEST_CASE("a JScript page creates the control by both ProgIDs, round-trips a property and sees E_NOTIMPL")
{
    TarnTest::TempDir dir(L"script");
    REQUIRE(TarnTest::WriteBytes(dir / L"page.js", R"(
        var a = new ActiveXObject("TarnSM.TarnSM");
        var b = new ActiveXObject("TarnSM.TarnSM.1");
        a.TrustedSiteDataFileURL = "../data/sites.dll";
        b.VendorID = "scripted";
        WScript.Echo(a.TrustedSiteDataFileURL + "|" + b.TrustedSiteDataFileURL + "|" + a.VendorID);
        WScript.Echo(a.IsCurrentSiteTrusted() + "," + a.IsCurrentContainerTrusted(""));
        try { a.IsSiteTrusted("example.com"); WScript.Echo("no error"); }
        catch (e) { WScript.Echo((e.number >>> 0).toString(16)); }
        WScript.Quit(42);
    )"));
    const auto run = TarnTest::RunChild({L"cscript.exe", L"//nologo", dir / L"page.js"});
    CHECK(run.exitCode == 42);
    CHECK(run.out == "../data/sites.dll||scripted\nfalse,false\n80004001\n");
}

// The demo page's script: what a publisher's page asks the control before it unlocks
// its powerful functions.
function ask(label, question) {
    try {
        host.Echo("  " + label + " = " + question());
    } catch (e) {
        host.Echo("  " + label + " -> error 0x" + (e.number >>> 0).toString(16) +
                  (e.description ? " (" + e.description + ")" : ""));
    }
}

var c = TarnSM;
host.Echo("Properties");
ask("VendorID (from <param>)", function () { return "'" + c.VendorID + "'"; });
c.TrustedSiteDataFileURL = "trust.dll";
ask("TrustedSiteDataFileURL", function () { return c.TrustedSiteDataFileURL; });

host.Echo("Site");
ask("IsCurrentSiteAvailable()", function () { return c.IsCurrentSiteAvailable(); });
ask("IsCurrentSiteLocal()", function () { return c.IsCurrentSiteLocal(); });
ask("IsCurrentSiteTrusted()", function () { return c.IsCurrentSiteTrusted(); });

host.Echo("Container");
ask("IsCurrentContainerTrusted('')", function () { return c.IsCurrentContainerTrusted(""); });

host.Echo("Not implemented by design");
ask("IsSiteTrusted('example.com')", function () { return c.IsSiteTrusted("example.com"); });
ask("IsContainerTrusted('', 'x.exe')", function () { return c.IsContainerTrusted("", "x.exe"); });

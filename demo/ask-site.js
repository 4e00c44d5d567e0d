// A page asks whether it may unlock its powerful functions.
var c = TarnSM;
host.Echo("  IsCurrentSiteAvailable() = " + c.IsCurrentSiteAvailable());
host.Echo("  IsCurrentSiteLocal()     = " + c.IsCurrentSiteLocal());
host.Echo("  IsCurrentSiteTrusted()   = " + c.IsCurrentSiteTrusted());

// A host application (no page) asks whether it is a trusted container, waits until it has
// been granted dynamic trust (the demo creates the marker file), then asks again.
var c = TarnSM;
host.Echo("  before the grant: IsCurrentContainerTrusted('') = " + c.IsCurrentContainerTrusted(""));
var fso = new ActiveXObject("Scripting.FileSystemObject");
var marker = host.Arg(0);
for (var i = 0; i < 2000000 && !fso.FileExists(marker); ++i) {
}
host.Echo("  after the grant:  IsCurrentContainerTrusted('') = " + c.IsCurrentContainerTrusted(""));
host.Echo("  asked again:      IsCurrentContainerTrusted('') = " + c.IsCurrentContainerTrusted("") + " (kept for the process)");

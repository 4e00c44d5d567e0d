// Creates the control by ProgID, as a page or an administrator's script does, and asks it.
var control = new ActiveXObject("TarnSM.TarnSM");
var answers = [control.IsCurrentSiteAvailable(), control.IsCurrentContainerTrusted("")];
control.VendorID = WScript.Arguments(0);
answers.push(control.VendorID, control.IsCurrentContainerTrusted(""));
WScript.Echo(answers.join(" "));
WScript.Quit(0);

#!/usr/bin/env python3
"""check_cab.py <release folder> <prefix> <verifytrust.exe>: the CAB unpacks with Windows' own
extrac32, its INF names exactly the files in it with their versions and bitness, and
WinVerifyTrust accepts the DLLs, the CAB and the MSI signed by the test root."""
import configparser
import os
import sys
import tempfile

from pkgtest import CLSID, VERSION, artefact, check, finish, pe_format, pe_version, win_path, wine

release, prefix, verifytrust = sys.argv[1:4]
cab, msi = artefact(release, ".cab"), artefact(release, ".msi")
with tempfile.TemporaryDirectory() as out:
    run = wine(prefix, "extrac32.exe", "/Y", "/E", "/L", win_path(out), win_path(cab))
    files = sorted(os.listdir(out))
    check(run.returncode == 0 and files == ["TarnSMX.dll", "TarnSMX.inf", "TarnSMX64.dll"],
          "extrac32 unpacks the INF and both DLLs (got %s)" % files)
    inf_text = open(os.path.join(out, "TarnSMX.inf")).read()
    check(inf_text == open(os.path.join(release, "TarnSMX.inf")).read(), "the INF beside the CAB is the one inside")
    inf = configparser.ConfigParser(interpolation=None, comment_prefixes=(";",), strict=False)
    inf.optionxform = str
    inf.read_string(inf_text)
    listed = sorted(inf["Add.Code"])
    check(listed == ["TarnSMX.dll", "TarnSMX64.dll"], "Add.Code lists both DLLs (lists %s)" % listed)
    machines = {"x86": "pei-i386", "x64": "pei-x86-64"}
    for name in listed:
        section = inf[name] if inf.has_section(name) else {}
        path = os.path.join(out, name)
        check(section.get("FileVersion") == VERSION.replace(".", ",") == pe_version(path).replace(".", ","),
              "%s: INF FileVersion %s is the file's version %s" % (name, section.get("FileVersion"), pe_version(path)))
        check(section.get("clsid") == CLSID, "%s: INF names the class" % name)
        for cpu, machine in machines.items():
            wanted = "thiscab" if pe_format(path) == machine else "ignore"
            check(section.get("file-win32-" + cpu) == wanted, "%s: %s hosts: %s" % (name, cpu, wanted))
    unsigned = wine(prefix, verifytrust, win_path(os.path.join(out, "TarnSMX.inf")))
    check(unsigned.returncode != 0, "WinVerifyTrust refuses an unsigned file: " + unsigned.stdout.strip())
paths = [os.path.join(release, "x64", "TarnSMX.dll"), os.path.join(release, "x86", "TarnSMX.dll"), cab, msi]
trusted = wine(prefix, verifytrust, *[win_path(p) for p in paths])
print(trusted.stdout.strip())
check(trusted.returncode == 0, "WinVerifyTrust accepts both DLLs, the CAB and the MSI")
finish()

#!/usr/bin/env python3
"""check_files.py <release folder> <test root.pem> <prefix>: machine type, exports, version and
default signers of both DLLs (the x86 one cannot run under this machine's 64-bit-only Wine), a
SHA-256 signature by the test root on every DLL, CAB and MSI, the checksums, and a CAB that
Windows' own extrac32 unpacks into exactly the files its INF names, with their versions and bitness."""
import configparser
import os
import re
import subprocess
import sys
import tempfile

from pkgtest import CLSID, VERSION, artefact, check, finish, pe_format, pe_version, win_path, wine

release, root, prefix = sys.argv[1:4]
machines = {"x86": "pei-i386", "x64": "pei-x86-64"}
exports = {"DllCanUnloadNow", "DllGetClassObject", "DllRegisterServer", "DllUnregisterServer"}
for arch, machine in machines.items():
    dll = os.path.join(release, arch, "TarnSMX.dll")
    check(pe_format(dll) == machine, "%s DLL is %s" % (arch, machine))
    table = subprocess.run(["x86_64-w64-mingw32-objdump", "-p", dll], stdout=subprocess.PIPE, text=True).stdout
    table = table.split("[Ordinal/Name Pointer] Table")[-1].split("\n\n")[0]
    names = {line.split("]")[1].strip() for line in table.splitlines() if "]" in line}
    check(names == exports, "%s DLL exports exactly %s (has %s)" % (arch, sorted(exports), sorted(names)))
    check(pe_version(dll) == VERSION, "%s DLL version %s (has %s)" % (arch, VERSION, pe_version(dll)))
    data = open(dll, "rb").read()
    check("Ostrum Code Signing".encode("utf-16-le") in data and "PlainSigner".encode("utf-16-le") not in data,
          "%s DLL trusts the product's default signers, not the test PKI's" % arch)
for name in sorted(os.listdir(release)) + ["x64/TarnSMX.dll", "x86/TarnSMX.dll"]:
    if name.endswith((".dll", ".cab", ".msi")):
        out = subprocess.run(["osslsigncode", "verify", "-CAfile", root, "-in", os.path.join(release, name)],
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True).stdout
        sha256 = re.search(r"Message digest algorithm\s*: SHA256", out) is not None
        check(sha256 and "Signature verification: ok" in out and "MISMATCH" not in out,
              "%s: SHA-256 signature verifies" % name)
sums = subprocess.run(["sha256sum", "--quiet", "-c", "SHA256SUMS"], cwd=release, stdout=subprocess.PIPE,
                      stderr=subprocess.STDOUT, text=True)
check(sums.returncode == 0, "SHA256SUMS matches every file " + sums.stdout.strip())

with tempfile.TemporaryDirectory() as out:
    run = wine(prefix, "extrac32.exe", "/Y", "/E", "/L", win_path(out), win_path(artefact(release, ".cab")))
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
    for name in listed:
        section = inf[name] if inf.has_section(name) else {}
        path = os.path.join(out, name)
        check(section.get("FileVersion") == VERSION.replace(".", ",") == pe_version(path).replace(".", ","),
              "%s: INF FileVersion %s is the file's version %s" % (name, section.get("FileVersion"), pe_version(path)))
        check(section.get("clsid") == CLSID, "%s: INF names the class" % name)
        for cpu, machine in machines.items():
            wanted = "thiscab" if pe_format(path) == machine else "ignore"
            check(section.get("file-win32-" + cpu) == wanted, "%s: %s hosts: %s" % (name, cpu, wanted))
finish()

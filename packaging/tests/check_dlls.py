#!/usr/bin/env python3
"""check_dlls.py <release folder> <test root.pem>: machine type, exports, version and signature
of both DLLs (the x86 one cannot run under this machine's 64-bit-only Wine), and the checksums."""
import os
import re
import subprocess
import sys

from pkgtest import VERSION, check, finish, pe_format, pe_version

release, root = sys.argv[1:3]
exports = {"DllCanUnloadNow", "DllGetClassObject", "DllRegisterServer", "DllUnregisterServer"}
for arch, machine in (("x64", "pei-x86-64"), ("x86", "pei-i386")):
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
finish()

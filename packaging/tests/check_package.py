#!/usr/bin/env python3
"""check_package.py <release folder> <test root.pem> <prefix>: what a broken package would get wrong.
The files: machine type, exports, version and default signers of both DLLs (the x86 one cannot
run under this machine's 64-bit-only Wine), a SHA-256 signature by the test root on every DLL,
CAB and MSI, the checksums, and a CAB that Windows' own extrac32 unpacks into exactly the files
its INF names. The MSI: msiexec /i installs silently with a vendor's configuration, the registry
then holds exactly the expected keys, a script creates the control by ProgID and gets answers,
and msiexec /x removes every key and file it added."""
import configparser
import glob
import os
import re
import struct
import subprocess
import sys
import tempfile

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
VERSION = open(os.path.join(ROOT, "VERSION")).read().strip()
CLSID = "{673D89B5-D69D-4BC1-94F9-E80FFC6D55E9}"
failures = []


def check(ok, what):
    print(("ok:   " if ok else "FAIL: ") + what)
    failures.extend([] if ok else [what])


def finish():
    print("%d failure(s)" % len(failures))
    sys.exit(1 if failures else 0)


def artefact(release, suffix):
    found = glob.glob(os.path.join(release, "TarnSMX-%s*%s" % (VERSION, suffix)))
    return found[0] if len(found) == 1 else sys.exit("no single *%s in %s: run packaging/release.sh --test-cert" % (suffix, release))


def win_path(path):
    return "Z:" + os.path.abspath(path).replace("/", "\\")


def wine(prefix, *args):
    env = dict(os.environ, WINEPREFIX=prefix, WINEDEBUG="-all", WINEDLLOVERRIDES="mscoree=;mshtml=")
    return subprocess.run(["wine"] + list(args), env=env, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, errors="replace")


def pe_format(path):
    out = subprocess.run(["x86_64-w64-mingw32-objdump", "-f", path], stdout=subprocess.PIPE, text=True).stdout
    return out.split("file format ")[1].split()[0] if "file format " in out else "?"


def pe_version(path):
    """FILEVERSION of the version resource, as "a.b.c.d"."""
    data = open(path, "rb").read()
    at = data.find(struct.pack("<I", 0xFEEF04BD))
    ms, ls = struct.unpack_from("<II", data, at + 8) if at >= 0 else (0, 0)
    return "%d.%d.%d.%d" % (ms >> 16, ms & 0xFFFF, ls >> 16, ls & 0xFFFF)


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

msi = win_path(artefact(release, ".msi"))
here = os.path.dirname(os.path.abspath(__file__))
IID, LIBID, APPID = ("{94CC1F71-0223-4A2A-8890-5A59BA98BB2A}", "{940A9063-F717-4AA7-949A-2E886F0D6F53}",
                     "{B96603AC-39C0-4E74-A121-889B2C8B41C5}")
# The installer's own records, and what Wine itself writes meanwhile, are not the product's.
NOT_OURS = re.compile(r"\\installer(\\|$)|\\currentversion\\uninstall\\|\\control\\video\\|^hkey_current_user\\software\\wine")


def expected_keys():
    tlb = ".".join(VERSION.split(".")[:2])
    config = ["Kestrel", r"Kestrel\Config", r"Kestrel\Config\TarnSM", r"Kestrel\Config\TarnSM\TestVendor"]
    config += [r"Kestrel\Config\TestVendor" + s for s in ("", r"\TarnSM", r"\TarnSM\TrustedSigners",
               r"\TarnSM\TrustedSigners\Org, Inc.", r"\TarnSM\TrustedContainers", r"\TarnSM\TrustedContainers\cscript.exe")]
    tree = {r"\software\classes\TarnSM.TarnSM.1": ["CLSID"], r"\software\classes\TarnSM.TarnSM": ["CLSID", "CurVer"],
            r"\software\Ostrum\TarnSMX": ["Setup"]}
    for view in ("", r"\wow6432node"):
        tree[r"\software%s\Ostrum" % view] = config
        tree[r"\software\classes%s\clsid\%s" % (view, CLSID)] = ["ProgID", "VersionIndependentProgID", "Programmable",
                                                                    "InprocServer32", "TypeLib"]
        tree[r"\software\classes%s\interface\%s" % (view, IID)] = ["ProxyStubClsid", "ProxyStubClsid32", "TypeLib"]
        tree[r"\software\classes%s\appid\%s" % (view, APPID)] = []  # shared by both views, shown in each
        tree[r"\software\classes%s\typelib\%s" % (view, LIBID)] = [tlb + s for s in ("", r"\FLAGS", r"\HELPDIR", r"\0",
                                                                                        r"\0\win32", r"\0\win64")]
    return {(r"hkey_local_machine" + key + sub).lower() for key, subs in tree.items() for sub in [""] + ["\\" + s for s in subs]}


def snapshot(tmp, name):
    """(registry keys, files under C:) of the prefix right now."""
    reg = os.path.join(tmp, name + ".reg")
    wine(prefix, "regedit", "/E", win_path(reg))
    text = open(reg, encoding="utf-16").read()
    keys = {line[1:-1].lower() for line in text.splitlines() if line.startswith("[")}
    # Wine reaches the 32-bit classes through two names; count each key once.
    keys = {k.replace(r"\software\wow6432node\classes", r"\software\classes\wow6432node") for k in keys}
    drive = os.path.join(prefix, "drive_c")
    files = {os.path.relpath(os.path.join(d, f), drive) for d, _, fs in os.walk(drive) for f in fs}
    files |= {os.path.relpath(d, drive) + "/" for d, _, _ in os.walk(drive)}
    files = {f for f in files if not re.search(r"(^windows/temp/|/temp/|^windows/logs/|^windows/installer/)", f.lower())}
    return {k for k in keys if not NOT_OURS.search(k)}, files


def query(key, name=None):
    out = wine(prefix, "reg", "query", key, *(["/v", name] if name else ["/ve"])).stdout
    found = re.search(r"\s(REG_\w+)\s+(.*)", out)
    return found and (found.group(1) + " " + found.group(2).strip())


with tempfile.TemporaryDirectory() as tmp:
    keys0, files0 = snapshot(tmp, "before")
    run = wine(prefix, "msiexec", "/i", msi, "/qn", "VENDORID=TestVendor", "TRUSTEDSIGNER1=Org, Inc.",
               "TRUSTEDCONTAINER1=cscript.exe", "DOWNLOADTIMEOUT=2500")
    check(run.returncode == 0, "msiexec /i /qn succeeds " + run.stdout.strip())
    keys1, files1 = snapshot(tmp, "installed")
    added = keys1 - keys0
    expected = expected_keys()
    check(added == expected, "install adds exactly the expected keys; missing %s, unexpected %s"
          % (sorted(expected - added), sorted(added - expected)))
    installed = sorted(files1 - files0)
    check(installed == [f + s for f in ("Program Files (x86)", "Program Files")
                        for s in ("/Ostrum/", "/Ostrum/TarnSMX/", "/Ostrum/TarnSMX/TarnSMX.dll")],
          "install adds both DLLs to Program Files: %s" % installed)
    for view, folder in (("", "Program Files"), ("\\Wow6432Node", "Program Files (x86)")):
        check(query(r"HKLM\Software\Classes%s\CLSID\%s\InprocServer32" % (view, CLSID))
              == "REG_SZ C:\\%s\\Ostrum\\TarnSMX\\TarnSMX.dll" % folder, "class%s: the DLL in %s" % (view, folder))
        check(query(r"HKLM\Software%s\Ostrum\Kestrel\Config\TarnSM\TestVendor" % view, "TrustedSiteDownloadTimeout")
              == "REG_DWORD 0x9c4", "Software%s: the vendor's time-out, a DWORD" % view)
    answers = wine(prefix, "cscript", "//nologo", win_path(os.path.join(here, "create.js")), "TestVendor")
    # Not sited: no page; cscript.exe is trusted only through the vendor's container list.
    check(answers.stdout.split() == ["false", "false", "TestVendor", "true"],
          "the control answers a script: %r" % answers.stdout.strip())
    # What the control and the script engine write when they run is theirs, not the installer's.
    keys_run, files_run = snapshot(tmp, "used")
    run = wine(prefix, "msiexec", "/x", msi, "/qn")
    check(run.returncode == 0, "msiexec /x /qn succeeds " + run.stdout.strip())
    keys2, files2 = snapshot(tmp, "removed")
    left = (keys2 - keys0) - (keys_run - keys1)
    check(left == set(), "uninstall removes every key the install added: %s left" % sorted(left))
    left = (files2 - files0) - (files_run - files1)
    check(left == set(), "uninstall removes every file and folder the install added: %s left" % sorted(left))
    # Wine's msiexec also prunes the container keys that became empty (a fresh 64-bit-only prefix
    # has no 32-bit classes); it must not take anything else.
    pruned = {k for k in keys0 - keys2 if not re.search(r"\\wow6432node\\(clsid|interface)$", k)}
    check(pruned == set(), "uninstall removes nothing it did not add: %s" % sorted(pruned))
finish()

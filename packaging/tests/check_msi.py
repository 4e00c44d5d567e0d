#!/usr/bin/env python3
"""check_msi.py <release folder> <prefix>: msiexec /i installs silently with a vendor's
configuration, the registry then holds exactly the expected keys, a script creates the
control by ProgID and gets answers, and msiexec /x removes every key and file it added."""
import os
import re
import sys
import tempfile

from pkgtest import CLSID, VERSION, artefact, check, finish, win_path, wine

release, prefix = sys.argv[1:3]
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

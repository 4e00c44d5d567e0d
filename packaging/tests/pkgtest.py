"""Shared helpers of the package checks: the release folder, Wine in a prefix of their own."""
import glob
import os
import struct
import subprocess
import sys

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

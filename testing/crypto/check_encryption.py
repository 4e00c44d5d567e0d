#!/usr/bin/env python3
"""Checks tarngrant's stored form of paths against an independent computation.

The table stores a path as RC4 over its UTF-16LE bytes. The key is derived by the
"Microsoft Base Cryptographic Provider v1.0" from the MD5 of a built-in 16-byte secret
with the default 40-bit length: the first 5 bytes of the hash followed by 11 zero bytes,
RC4 keyed with those 16 bytes. The stored form is the cipher text read as UTF-16 units up
to the first zero unit. Here that is computed with hashlib and a few lines of RC4 and
compared with `tarngrant.exe encrypt <path>` run under Wine.

usage: check_encryption.py <tarngrant.exe> [path ...]
Environment: WINEPREFIX (the build tree's prefix); `wine` on PATH.
"""

import hashlib
import os
import subprocess
import sys

SECRET = bytes.fromhex("3f9a1c7e52b04d8a9e16c0f47b2d58e3")

DEFAULT_PATHS = [
    r"C:\Windows\system32\mshta.exe",
    r"C:\Windows\syswow64\mshta.exe",
    r"Z:\tmp\build\tools\tarnhost\tarnhost.exe",
    r"c:\program files\Ostrum\TarnBrowser.exe",
    "x",
    "C:\\" + "a" * 300 + "\\host.exe",
    "C:\\Users\\J\u00f6rg\\\u4e2d\u6587\\host.exe",
]


def rc4(key, data):
    s = list(range(256))
    j = 0
    for i in range(256):
        j = (j + s[i] + key[i % len(key)]) & 0xFF
        s[i], s[j] = s[j], s[i]
    out = bytearray()
    i = j = 0
    for byte in data:
        i = (i + 1) & 0xFF
        j = (j + s[i]) & 0xFF
        s[i], s[j] = s[j], s[i]
        out.append(byte ^ s[(s[i] + s[j]) & 0xFF])
    return bytes(out)


def key():
    return hashlib.md5(SECRET).digest()[:5] + bytes(11)


def path_with_zero_unit():
    """A path whose fifth encrypted unit is zero: its stored form ends there."""
    stream = rc4(key(), bytes(16))
    unit = int.from_bytes(stream[8:10], "little")
    if 0xD800 <= unit <= 0xDFFF or unit < 0x20:
        return None
    return "C:\\x" + chr(unit) + "y.exe"


def stored_form(path):
    cipher = rc4(key(), path.encode("utf-16-le"))
    units = [cipher[k:k + 2] for k in range(0, len(cipher), 2)]
    stored = bytearray()
    for unit in units:
        if unit == b"\x00\x00":
            break
        stored += unit
    return stored.hex()


def tarngrant_form(exe, path):
    env = dict(os.environ, WINEDEBUG="-all")
    run = subprocess.run(["wine", exe, "encrypt", path], capture_output=True, env=env, timeout=60)
    if run.returncode != 0:
        raise RuntimeError("tarngrant exited %d: %s" % (run.returncode, run.stderr.decode("utf-8", "replace")))
    return run.stdout.decode("utf-8").strip()


def main(argv):
    if len(argv) < 2:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    exe = argv[1]
    paths = argv[2:] or DEFAULT_PATHS + [p for p in [path_with_zero_unit()] if p]
    failures = 0
    for path in paths:
        expected = stored_form(path)
        actual = tarngrant_form(exe, path)
        same = expected == actual
        failures += 0 if same else 1
        print("%s %s" % ("ok  " if same else "FAIL", path if len(path) < 70 else path[:67] + "..."))
        if not same:
            print("     expected %s\n     actual   %s" % (expected, actual))
    # Determinism across processes: a second run must give the same bytes.
    if tarngrant_form(exe, paths[0]) != stored_form(paths[0]):
        print("FAIL second run differs")
        failures += 1
    print("%d of %d paths differ" % (failures, len(paths)))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))

#!/usr/bin/env python3
"""Writes a .reg file that makes a Wine prefix (or Windows) trust a root certificate.

    root-reg.py <root.pem> <out.reg>        then: wine regedit /S out.reg

The certificate goes into the machine's Root store as a serialized property: the store's key
is named by the SHA-1 thumbprint and its Blob value holds the certificate property (id 0x20).
"""
import base64
import hashlib
import re
import sys


def der_from_pem(text):
    match = re.search(r"-----BEGIN CERTIFICATE-----(.*?)-----END CERTIFICATE-----", text, re.S)
    if not match:
        raise ValueError("no PEM certificate found")
    return base64.b64decode("".join(match.group(1).split()))


def reg_text(der):
    thumbprint = hashlib.sha1(der).hexdigest().upper()
    blob = (0x20).to_bytes(4, "little") + (1).to_bytes(4, "little") + len(der).to_bytes(4, "little") + der
    pairs = ["%02x" % b for b in blob]
    # Continuation lines keep each line short, as regedit's own exports do.
    lines = [",".join(pairs[i:i + 25]) for i in range(0, len(pairs), 25)]
    value = '"Blob"=hex:' + ",\\\n  ".join(lines)
    key = "HKEY_LOCAL_MACHINE\\Software\\Microsoft\\SystemCertificates\\Root\\Certificates\\" + thumbprint
    return "Windows Registry Editor Version 5.00\n\n[%s]\n%s\n" % (key, value)


def main(argv):
    if len(argv) != 3:
        sys.stderr.write("usage: root-reg.py <root.pem> <out.reg>\n")
        return 2
    with open(argv[1], encoding="ascii") as f:
        der = der_from_pem(f.read())
    # UTF-16 with a byte-order mark, the encoding regedit itself writes version-5 files in.
    with open(argv[2], "w", encoding="utf-16", newline="\r\n") as f:
        f.write(reg_text(der))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))

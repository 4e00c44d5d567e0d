#!/usr/bin/env python3
"""Writes a .reg file that makes a Wine prefix (or Windows) trust a root certificate.

    root-reg.py <root.pem> <out.reg>        then: wine regedit /S out.reg

The certificate goes into the machine's Root store as a serialized property: the store's key
is named by the SHA-1 thumbprint and its Blob value holds the certificate property (id 0x20).
"""
import hashlib
import ssl
import sys

pem, out = sys.argv[1:3]
der = ssl.PEM_cert_to_DER_cert(open(pem, encoding="ascii").read())
blob = ["%02x" % b for b in (0x20).to_bytes(4, "little") + (1).to_bytes(4, "little") + len(der).to_bytes(4, "little") + der]
# Continuation lines keep each line short, as regedit's own exports do.
value = ",\\\n  ".join(",".join(blob[i:i + 25]) for i in range(0, len(blob), 25))
key = "HKEY_LOCAL_MACHINE\\Software\\Microsoft\\SystemCertificates\\Root\\Certificates\\" + hashlib.sha1(der).hexdigest().upper()
# UTF-16 with a byte-order mark, the encoding regedit itself writes version-5 files in.
with open(out, "w", encoding="utf-16", newline="\r\n") as f:
    f.write('Windows Registry Editor Version 5.00\n\n[%s]\n"Blob"=hex:%s\n' % (key, value))

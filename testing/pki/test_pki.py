#!/usr/bin/env python3
"""Checks the test PKI and its helpers: leaves, chains, signing, the .reg file, the extra entry."""
import base64
import hashlib
import os
import struct
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.dont_write_bytecode = True  # keep the source tree clean
sys.path.insert(0, HERE)
append_cert = __import__("append-cert")

LEAVES = {
    "plain": ("PlainSigner", "root", "Code Signing"),
    "expired": ("ExpiredSigner", "root", "Code Signing"),
    "wrongusage": ("WrongUsage", "root", "TLS Web Server Authentication"),
    "org": ("Org, Inc.", "root", "Code Signing"),
    "lowercase": ("plainsigner", "root", "Code Signing"),
    "rogue": ("RogueSigner", "rogue-root", "Code Signing"),
}


def run(*args, check=True):
    return subprocess.run(args, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=check)


def unsigned_pe():
    """The smallest useful x64 DLL image: headers and one empty resource section."""
    image = bytearray(0x400)
    image[0:2] = b"MZ"
    struct.pack_into("<I", image, 0x3C, 0x40)
    image[0x40:0x44] = b"PE\0\0"
    struct.pack_into("<HHIIIHH", image, 0x44, 0x8664, 1, 0, 0, 0, 240, 0x2022)
    opt = 0x58
    struct.pack_into("<H", image, opt, 0x20B)
    struct.pack_into("<QII", image, opt + 24, 0x180000000, 0x1000, 0x200)
    struct.pack_into("<HH", image, opt + 48, 6, 0)
    struct.pack_into("<II", image, opt + 56, 0x2000, 0x200)
    struct.pack_into("<HH", image, opt + 68, 2, 0x160)
    struct.pack_into("<I", image, opt + 108, 16)
    struct.pack_into("<II", image, opt + 112 + 16, 0x1000, 16)
    section = opt + 240
    image[section:section + 5] = b".rsrc"
    struct.pack_into("<IIII", image, section + 8, 16, 0x1000, 0x200, 0x200)
    struct.pack_into("<I", image, section + 36, 0x40000040)
    return bytes(image)


def entries(data):
    """The certificate table's entries as (offset, length, revision, type)."""
    offset, size = append_cert.table(data)
    found, at = [], offset
    while at < offset + size:
        length, revision, kind = struct.unpack_from("<IHH", data, at)
        found.append((at, length, revision, kind))
        at += (length + 7) // 8 * 8
    return found


class Pki(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = tempfile.TemporaryDirectory()
        cls.pki = os.path.join(cls.tmp.name, "pki")
        run(os.path.join(HERE, "make-pki.sh"), cls.pki)
        cls.unsigned = os.path.join(cls.tmp.name, "trust.dll")
        with open(cls.unsigned, "wb") as f:
            f.write(unsigned_pe())

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    def path(self, name):
        return os.path.join(self.pki, name)

    def sign(self, leaf, name):
        out = os.path.join(self.tmp.name, name)
        run(os.path.join(HERE, "sign.sh"), self.path(leaf), self.unsigned, out)
        with open(out, "rb") as f:
            return out, f.read()

    def test_leaves_have_their_names_issuers_usages_and_sha1_signatures(self):
        for leaf, (cn, issuer, usage) in LEAVES.items():
            with self.subTest(leaf=leaf):
                text = run("openssl", "x509", "-in", self.path(leaf + ".pem"), "-noout", "-text",
                           "-nameopt", "utf8,sep_comma_plus,dn_rev").stdout
                subject = run("openssl", "x509", "-in", self.path(leaf + ".pem"), "-noout", "-subject",
                              "-nameopt", "RFC2253").stdout.strip()
                self.assertEqual(subject, "subject=CN=" + cn.replace(",", "\\,"))
                self.assertIn("Signature Algorithm: sha1WithRSAEncryption", text)
                self.assertIn(usage, text)
                with open(self.path(leaf + ".ca.pem")) as a, open(self.path(issuer + ".pem")) as b:
                    self.assertEqual(a.read(), b.read())
                expired = run("openssl", "x509", "-in", self.path(leaf + ".pem"), "-noout", "-checkend", "0",
                              check=False).returncode != 0
                self.assertEqual(expired, leaf == "expired")

    def test_chains(self):
        root = self.path("root.pem")
        for leaf in ("plain", "org", "lowercase", "wrongusage"):
            self.assertIn(": OK", run("openssl", "verify", "-CAfile", root, self.path(leaf + ".pem")).stdout)
        self.assertIn("expired", run("openssl", "verify", "-CAfile", root, self.path("expired.pem"), check=False).stdout)
        self.assertNotEqual(run("openssl", "verify", "-CAfile", root, self.path("rogue.pem"), check=False).returncode, 0)
        run("openssl", "verify", "-CAfile", self.path("rogue-root.pem"), self.path("rogue.pem"))

    def test_signing_gives_one_verifiable_entry(self):
        out, data = self.sign("plain", "signed.dll")
        self.assertIn("Succeeded", run("osslsigncode", "verify", "-in", out, "-CAfile", self.path("root.pem")).stdout)
        table = entries(data)
        self.assertEqual(len(table), 1)
        self.assertEqual(table[0][2:], (0x200, 2))  # revision 2.0, PKCS#7 signed data
        self.assertEqual(len(data) % 8, 0)
        rogue, _ = self.sign("rogue", "rogue.dll")
        self.assertNotEqual(run("osslsigncode", "verify", "-in", rogue, "-CAfile", self.path("root.pem"),
                                check=False).returncode, 0)

    def test_a_second_entry_is_appended_aligned_with_the_directory_and_checksum_updated(self):
        first, first_data = self.sign("lowercase", "first.dll")
        second, second_data = self.sign("plain", "second.dll")
        out = os.path.join(self.tmp.name, "two.dll")
        run(sys.executable, os.path.join(HERE, "append-cert.py"), first, out, "--from", second)
        with open(out, "rb") as f:
            data = f.read()
        table = entries(data)
        self.assertEqual(len(table), 2)
        offset, size = append_cert.table(data)
        self.assertEqual(offset + size, len(data))
        self.assertEqual(table[1][0] % 8, 0)
        self.assertEqual(len(data) % 8, 0)
        checksum, security = append_cert.layout(data)

        def without_header_fields(b):
            b = bytearray(b[:len(first_data)])
            b[checksum:checksum + 4] = b[security + 4:security + 8] = bytes(4)
            return bytes(b)

        # Only the checksum and the table's size change in front of the new entry.
        self.assertEqual(without_header_fields(data), without_header_fields(first_data))
        self.assertEqual(struct.unpack_from("<I", data, security + 4)[0], len(data) - offset)
        own = append_cert.first_entry(second_data)
        self.assertEqual(data[table[1][0]:table[1][0] + table[1][1]], own)
        self.assertEqual(struct.unpack_from("<I", data, checksum)[0], append_cert.pe_checksum(data, checksum))
        # Without --from the file's own first entry is repeated.
        again = os.path.join(self.tmp.name, "again.dll")
        run(sys.executable, os.path.join(HERE, "append-cert.py"), first, again)
        with open(again, "rb") as f:
            data = f.read()
        self.assertEqual([e[1] for e in entries(data)], [table[0][1]] * 2)

    def test_append_refuses_unsigned_files(self):
        result = run(sys.executable, os.path.join(HERE, "append-cert.py"), self.unsigned,
                     os.path.join(self.tmp.name, "x.dll"), check=False)
        self.assertEqual(result.returncode, 1)
        self.assertIn("not signed", result.stdout)

    def test_root_reg_names_the_thumbprint_and_holds_the_certificate(self):
        reg = os.path.join(self.tmp.name, "root.reg")
        run(sys.executable, os.path.join(HERE, "root-reg.py"), self.path("root.pem"), reg)
        with open(reg, "rb") as f:
            raw = f.read()
        self.assertEqual(raw[:2], b"\xff\xfe")
        text = raw.decode("utf-16")
        with open(self.path("root.pem")) as f:
            der = base64.b64decode("".join(l for l in f if not l.startswith("-----")))
        fingerprint = run("openssl", "x509", "-in", self.path("root.pem"), "-noout", "-fingerprint", "-sha1").stdout
        thumbprint = fingerprint.strip().split("=", 1)[1].replace(":", "")
        self.assertEqual(thumbprint, hashlib.sha1(der).hexdigest().upper())
        self.assertTrue(text.startswith("Windows Registry Editor Version 5.00\r\n"))
        self.assertIn("[HKEY_LOCAL_MACHINE\\Software\\Microsoft\\SystemCertificates\\Root\\Certificates\\"
                      + thumbprint + "]\r\n", text)
        value = text.split('"Blob"=hex:', 1)[1]
        blob = bytes(int(h, 16) for h in value.replace("\\", "").replace("\r\n", "").replace(" ", "").split(","))
        self.assertEqual(blob[:12], struct.pack("<III", 0x20, 1, len(der)))
        self.assertEqual(blob[12:], der)


if __name__ == "__main__":
    unittest.main()

#!/usr/bin/env python3
"""Appends entries to the certificate table of an Authenticode-signed PE file.

    append-cert.py <signed-in> <out> --from <other-signed-file>
    append-cert.py <signed-in> <out> --empty <count>

--from appends a copy of the other file's first entry: a first signature by one signer and
a second by another (signing tools nest further signatures inside the first entry instead).
--empty appends <count> entries of a header and 8 zero bytes: a table claiming thousands of
entries. The signature over the image stays valid, as the certificate table lies outside the
signed hash; the PE checksum is recomputed.
"""
import struct
import sys


def layout(data):
    """Offsets of the checksum field, the certificate-table directory, and that table."""
    opt = struct.unpack_from("<I", data, 0x3C)[0] + 24
    security = opt + (96 if struct.unpack_from("<H", data, opt)[0] == 0x10B else 112) + 32
    return opt + 64, security, struct.unpack_from("<II", data, security)


def pe_checksum(data, at):
    total = 0
    for i in range(0, len(data), 2):
        if not at <= i < at + 4:
            total += data[i] | (data[i + 1] << 8)
            total = (total & 0xFFFF) + (total >> 16)
    return ((total & 0xFFFF) + (total >> 16) + len(data)) & 0xFFFFFFFF


def main(signed, out, mode, arg):
    data = open(signed, "rb").read()
    checksum, security, (offset, size) = layout(data)
    if offset == 0 or offset + size != len(data):
        sys.exit("append-cert.py: %s is not signed, or data follows its certificate table" % signed)
    if mode == "--from":
        donor = open(arg, "rb").read()
        first = layout(donor)[2][0]
        entry = donor[first:first + struct.unpack_from("<I", donor, first)[0]]
    else:
        entry = (struct.pack("<IHH", 16, 0x0200, 0x0002) + b"\0" * 8) * int(arg)
    # Entries start on 8-byte boundaries; the table's size covers the padding.
    result = bytearray(data + b"\0" * (-len(data) % 8) + entry)
    result += b"\0" * (-len(result) % 8)
    struct.pack_into("<II", result, security, offset, len(result) - offset)
    struct.pack_into("<I", result, checksum, pe_checksum(result, checksum))
    open(out, "wb").write(result)


if __name__ == "__main__":
    main(*sys.argv[1:5])

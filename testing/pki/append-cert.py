#!/usr/bin/env python3
"""Appends a second entry to the certificate table of an Authenticode-signed PE file.

    append-cert.py <signed-in> <out> [--from <other-signed-file>]
    append-cert.py <signed-in> <out> --empty <count>

The new entry is a copy of the first entry of --from (default: of <signed-in> itself), so a
test can give a file a first signature by one signer and a second by another. Signing tools
nest further signatures inside the first entry instead; a real second entry has to be made
by hand. With --empty, <count> entries of a header and 8 zero bytes are appended instead: a
certificate table claiming thousands of entries. The signature over the image stays valid: the certificate table lies outside the
signed hash. The PE checksum is recomputed.
"""
import struct
import sys


class PeError(Exception):
    pass


def layout(data):
    """Offsets of the checksum field and the certificate-table data directory."""
    if len(data) < 64 or data[:2] != b"MZ":
        raise PeError("not a PE file")
    pe = struct.unpack_from("<I", data, 0x3C)[0]
    if pe + 24 + 2 > len(data) or data[pe:pe + 4] != b"PE\0\0":
        raise PeError("no PE signature")
    opt = pe + 24
    magic = struct.unpack_from("<H", data, opt)[0]
    if magic == 0x10B:
        dirs = opt + 96
    elif magic == 0x20B:
        dirs = opt + 112
    else:
        raise PeError("unknown optional header magic 0x%x" % magic)
    count = struct.unpack_from("<I", data, dirs - 4)[0]
    if count < 5 or dirs + 40 > len(data):
        raise PeError("no certificate table directory")
    return opt + 64, dirs + 4 * 8


def table(data):
    _, security = layout(data)
    offset, size = struct.unpack_from("<II", data, security)
    if offset == 0 or size < 8 or offset + size > len(data):
        raise PeError("the file is not signed")
    return offset, size


def first_entry(data):
    offset, size = table(data)
    length = struct.unpack_from("<I", data, offset)[0]
    if length < 8 or length > size:
        raise PeError("the first certificate entry is malformed")
    return data[offset:offset + length]


def pe_checksum(data, checksum_offset):
    total = 0
    padded = data + b"\0" * (len(data) % 2)
    for i in range(0, len(padded), 2):
        if checksum_offset <= i < checksum_offset + 4:
            continue
        total += padded[i] | (padded[i + 1] << 8)
        total = (total & 0xFFFF) + (total >> 16)
    total = (total & 0xFFFF) + (total >> 16)
    return (total + len(data)) & 0xFFFFFFFF


def append_entry(data, entry):
    checksum, security = layout(data)
    offset, size = table(data)
    if offset + size != len(data):
        raise PeError("data follows the certificate table")
    out = bytearray(data)
    # Entries start on 8-byte boundaries; the table's size covers the padding.
    out += b"\0" * (-len(out) % 8)
    out += entry
    out += b"\0" * (-len(out) % 8)
    struct.pack_into("<II", out, security, offset, len(out) - offset)
    struct.pack_into("<I", out, checksum, pe_checksum(bytes(out), checksum))
    return bytes(out)


def main(argv):
    args = argv[1:]
    donor = None
    empty = 0
    if len(args) == 4 and args[2] == "--from":
        donor = args[3]
        args = args[:2]
    elif len(args) == 4 and args[2] == "--empty":
        empty = int(args[3])
        args = args[:2]
    if len(args) != 2:
        sys.stderr.write("usage: append-cert.py <signed-in> <out> [--from <other-signed-file>]\n")
        return 2
    with open(args[0], "rb") as f:
        data = f.read()
    source = data
    if donor:
        with open(donor, "rb") as f:
            source = f.read()
    try:
        blank = struct.pack("<IHH", 16, 0x0200, 0x0002) + b"\0" * 8
        out = append_entry(data, blank * empty if empty else first_entry(source))
    except PeError as e:
        sys.stderr.write("append-cert.py: %s\n" % e)
        return 1
    with open(args[1], "wb") as f:
        f.write(out)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))

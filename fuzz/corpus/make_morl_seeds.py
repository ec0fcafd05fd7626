#!/usr/bin/python3
"""Writes the seed corpora of the MORL fuzz targets from valid packets.

Run from anywhere: python3 fuzz/corpus/make_morl_seeds.py
The checksum is CRC-32/JAMCRC (zlib's CRC-32 without the final inversion).
"""
import ctypes
import os
import struct
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))


def jamcrc(data):
    return zlib.crc32(bytes(data)) ^ 0xFFFFFFFF


def with_crc(body):
    return bytes(body) + struct.pack("<I", jamcrc(body))


def header(kind, flags, seq, src, dst, length):
    return with_crc(struct.pack("<BBH", kind, flags, seq) + src + dst + struct.pack("<H", length))


def info(uuid, name, version):
    return with_crc(b"\x01" + uuid + name.ljust(30, b"\0") + version.ljust(20, b"\0"))


def service(kind, value):
    return with_crc(struct.pack("<BBH", 3, kind, value))


def tame(owner):
    return with_crc(b"\x04" + owner)


def first_sequence(uuid):
    """The first request number of a node: the C library's rand() seeded from its UUID."""
    libc = ctypes.CDLL("libc.so.6")
    libc.srand(ctypes.c_uint(jamcrc(uuid)))
    return libc.rand() % 65535


FINDER = b"\x01" * 12
OWNER = b"\x02" * 12
PEER = b"\x07" * 12
ZERO = b"\x00" * 12
REQ, RESP, UNI = 1, 2, 4

device = info(PEER, b"pallor-7", b"2.4.1")
services = b"".join(service(k % 5, 0x100 + k) for k in range(10))
full = device + services + tame(OWNER)
unknown = with_crc(b"\x02\xa1\xa2\xa3\xa4\xa5")
damaged = bytearray(tame(OWNER))
damaged[3] ^= 0x10
seq = first_sequence(FINDER)

corpora = {
    "morl_header_fuzz": {
        "discovery-request": header(0, REQ | UNI, 0x1234, FINDER, ZERO, 0),
        "tame-response": header(2, RESP, 7, PEER, FINDER, 17),
        "whistle-with-tail": header(3, REQ, 0xFFFF, PEER, FINDER, 0) + b"\xff\x00",
    },
    "morl_blocks_fuzz": {
        "device-info": device,
        "service": service(2, 1),
        "service-unknown-type": service(7, 1),
        "tame-status": tame(ZERO),
    },
    "morl_parser_fuzz": {
        "ten-services": full,
        "info-and-tame": info(PEER, b"d14e", b"current") + tame(OWNER),
        "unknown-between-services": service(0, 1) + unknown + service(2, 2) + tame(PEER),
        "damaged-then-valid": bytes(damaged) + services,
    },
    "morl_manager_fuzz": {
        "discovery-request": header(0, REQ | UNI, 0x1234, PEER, ZERO, 0),
        "directed-discovery": header(1, REQ, 9, PEER, FINDER, 0),
        "whistle": header(3, REQ | UNI, 10, PEER, FINDER, 0),
        "tame-request": header(2, REQ, 11, PEER, ZERO, 0),
        "discovery-response": header(0, RESP | UNI, seq, PEER, FINDER, len(full)) + full,
        "tame-response": header(2, RESP, seq, PEER, FINDER, 17) + tame(PEER),
    },
}

for target, seeds in corpora.items():
    folder = os.path.join(HERE, target)
    os.makedirs(folder, exist_ok=True)
    for name, data in seeds.items():
        with open(os.path.join(folder, name), "wb") as f:
            f.write(data)

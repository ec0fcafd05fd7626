#!/usr/bin/env python3
"""Writes a pcap of COUNT MORL datagrams to FILE for the dissector benchmark:
requests, responses of several sizes, a tame response, and the malformed
kinds (bad CRCs, unknown blocks, a wrong length, a short packet) in turn. As
in a run, the requests come from the finder (10.0.0.1, UUID 01 x 12) and the
responses from a device (10.0.0.2, UUID AB x 12) answer them.
  bench/morl-capture.py FILE COUNT"""
import struct
import sys
import zlib


def block(body):
    return body + struct.pack("<I", ~zlib.crc32(body) & 0xFFFFFFFF)


def packet(kind, flags, payload, length=None):
    uuids = bytes([1] * 12) + bytes(12) if flags & 1 else bytes([0xAB] * 12) + bytes([1] * 12)
    head = struct.pack("<BBH", kind, flags, 0x1234) + uuids
    return block(head + struct.pack("<H", len(payload) if length is None else length)) + payload


def info(name, version):
    return block(b"\x01" + bytes(range(12)) + name.encode().ljust(30, b"\0") + version.encode().ljust(20, b"\0"))


def service(kind):
    return block(struct.pack("<BBH", 3, kind, 1))


owner = block(b"\x04" + bytes(12))
answer = info("Dorn-Hall-2", "1.0.3") + service(0) + owner
damaged = bytearray(answer)
damaged[70] ^= 1
kinds = [
    packet(0, 5, b""),
    packet(0, 6, answer),
    packet(0, 6, info("Fell-Lab", "0.9.8") + service(3) + service(4) + owner),
    packet(0, 6, info("A", "1") + service(1) + block(b"\x02hello") + service(9) + owner),
    packet(2, 6, owner),
    packet(0, 6, bytes(damaged)),
    packet(0, 6, answer, length=5),
    b"\x00" * 20,
]
with open(sys.argv[1], "wb") as out:
    out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
    for i in range(int(sys.argv[2])):
        p = kinds[i % len(kinds)]
        udp = struct.pack(">HHHH", 4792, 4792, 8 + len(p), 0) + p
        hosts = (1, 2) if p[1] & 1 else (2, 1)
        ip = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 20 + len(udp), 0, 0, 64, 17, 0,
                         bytes([10, 0, 0, hosts[0]]), bytes([10, 0, 0, hosts[1]]))
        frame = b"\x02" * 6 + b"\x04" * 6 + b"\x08\x00" + ip + udp
        out.write(struct.pack("<IIII", i // 1000, i % 1000 * 1000, len(frame), len(frame)) + frame)

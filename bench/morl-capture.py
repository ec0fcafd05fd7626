#!/usr/bin/env python3
"""Writes a pcap of COUNT MORL datagrams to FILE for the dissector benchmark
and its tests. By default a run's: requests, responses of several sizes, a tame
response, and the malformed kinds (bad CRCs, unknown blocks, a wrong length, a
short packet) in turn; the requests come from the finder (10.0.0.1, UUID 01 x
12) and the responses from a device (10.0.0.2, UUID AB x 12) answer them.
With --garbage, what a flood or a fuzzer sends, from SEED (1 by default): random
bytes, and the run's datagrams truncated, bit-flipped, with another length,
spliced from two, with bytes inserted or deleted (half of these with the header
made valid again, so that the payload is what is checked), or with another
type, flags or length under a valid header.
  bench/morl-capture.py [--garbage [--seed SEED]] FILE COUNT"""
import random
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


def mutated(rng):
    """One datagram of garbage: random, or one of `kinds` altered."""
    p = bytearray(rng.choice(kinds))
    how = rng.randrange(7)
    if how == 0:
        return rng.randbytes(rng.randrange(1, 1500))
    if how == 1:
        del p[rng.randrange(1, len(p)):]
    elif how == 2:
        for _ in range(rng.randrange(1, 4)):
            p[rng.randrange(len(p))] ^= 1 << rng.randrange(8)
    elif how == 3 and len(p) >= 34:
        # Another type, flags or length, under a valid header CRC.
        if rng.randrange(2):
            p[0:2] = bytes([rng.choice([3, 4, rng.randrange(256)]), rng.randrange(256)])
        else:
            p[28:30] = struct.pack("<H", rng.choice([0, len(p) - 33, len(p) - 35, rng.randrange(65536)]) % 65536)
        p[30:34] = block(bytes(p[:30]))[30:]
        return bytes(p)
    elif how == 4:
        other = rng.choice(kinds)
        p = p[:rng.randrange(1, len(p) + 1)] + other[rng.randrange(len(other) + 1):]
    elif how == 5:
        at = rng.randrange(len(p))
        p[at:at + rng.randrange(3)] = rng.randbytes(rng.randrange(1, 3))
    else:
        p = p + rng.randbytes(rng.randrange(1200))
    if rng.randrange(2) and len(p) >= 34:
        p[28:30] = struct.pack("<H", len(p) - 34)
        p[30:34] = block(bytes(p[:30]))[30:]
    return bytes(p)


def main(args):
    garbage = args[0] == "--garbage"
    seed = 1
    if garbage:
        args = args[1:]
        if args[0] == "--seed":
            seed, args = int(args[1]), args[2:]
    rng = random.Random(seed)
    with open(args[0], "wb") as out:
        out.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        for i in range(int(args[1])):
            p = mutated(rng) if garbage else kinds[i % len(kinds)]
            udp = struct.pack(">HHHH", 4792, 4792, 8 + len(p), 0) + p
            hosts = (1, 2) if len(p) > 1 and p[1] & 1 else (2, 1)
            ip = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 20 + len(udp), 0, 0, 64, 17, 0,
                             bytes([10, 0, 0, hosts[0]]), bytes([10, 0, 0, hosts[1]]))
            frame = b"\x02" * 6 + b"\x04" * 6 + b"\x08\x00" + ip + udp
            out.write(struct.pack("<IIII", i // 1000, i % 1000 * 1000, len(frame), len(frame)) + frame)


main(sys.argv[1:])

#!/usr/bin/python3
"""A scriptable MORL node for tests, run inside a namespace of the simulated LAN.

  morl_peer.py answer [--uuid HEX] [--times N] [--seq-offset N] [--dest HEX] BLOCK...
      waits for one Discovery request on UDP 4792 and answers it N times to the
      requester's address with a response carrying the given blocks
  morl_peer.py probe --uuid HEX [--flags N] [--wait MS] REQ...
      sends each request TYPE:DESTHEX:SEQ to 255.255.255.255:4792 and prints
      every datagram that arrives until MS milliseconds after the last one
  morl_peer.py listen [--wait MS]
      prints every datagram that arrives within MS milliseconds
  morl_peer.py send --to IP SIZE...
      sends one datagram of each SIZE (bytes i % 251) to IP:4792

BLOCK is info:NAME:VERSION[:UUIDHEX], service:TYPE:VALUE, tame:OWNERHEX or
raw:HEX (a type byte and body; the CRC is appended). Received datagrams are
printed as "SENDERIP HEX". "ready" is printed once the socket is bound.
"""
import argparse
import signal
import socket
import struct
import sys
import time
import zlib

PORT = 4792


def crc(data):
    # CRC-32/JAMCRC: the standard CRC-32 without its final inversion.
    return (~zlib.crc32(data)) & 0xFFFFFFFF


def sealed(data):
    return data + struct.pack("<I", crc(data))


def header(kind, flags, seq, src, dst, length):
    return sealed(struct.pack("<BBH12s12sH", kind, flags, seq, src, dst, length))


def block(spec, own_uuid):
    kind, _, rest = spec.partition(":")
    if kind == "info":
        parts = rest.split(":")
        uuid = bytes.fromhex(parts[2]) if len(parts) > 2 else own_uuid
        name = parts[0].encode()[:30].ljust(30, b"\0")
        version = parts[1].encode()[:20].ljust(20, b"\0")
        return sealed(b"\x01" + uuid + name + version)
    if kind == "service":
        stype, value = rest.split(":")
        return sealed(struct.pack("<BBH", 3, int(stype), int(value)))
    if kind == "tame":
        return sealed(b"\x04" + bytes.fromhex(rest))
    if kind == "raw":
        return sealed(bytes.fromhex(rest))
    raise SystemExit("unknown block " + spec)


def bound_socket():
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
    s.bind(("0.0.0.0", PORT))
    print("ready", flush=True)
    return s


def dump_until(s, seconds):
    end = time.monotonic() + seconds
    while True:
        left = end - time.monotonic()
        if left <= 0:
            return
        s.settimeout(left)
        try:
            data, addr = s.recvfrom(4096)
        except socket.timeout:
            return
        print(addr[0], data.hex(), flush=True)


def answer(args):
    own = bytes.fromhex(args.uuid)
    payload = b"".join(block(b, own) for b in args.blocks)
    s = bound_socket()
    while True:
        data, addr = s.recvfrom(4096)
        if len(data) >= 34 and data[0] == 0 and data[1] & 1:
            break
    seq = (struct.unpack_from("<H", data, 2)[0] + args.seq_offset) & 0xFFFF
    dest = bytes.fromhex(args.dest) if args.dest else data[4:16]
    packet = header(0, 0x06, seq, own, dest, len(payload)) + payload
    for _ in range(args.times):
        s.sendto(packet, (addr[0], PORT))
    print("answered", addr[0], flush=True)


def probe(args):
    own = bytes.fromhex(args.uuid)
    s = bound_socket()
    for req in args.requests:
        kind, dest, seq = req.split(":")
        s.sendto(header(int(kind), args.flags, int(seq), own, bytes.fromhex(dest), 0),
                 ("255.255.255.255", PORT))
    dump_until(s, args.wait / 1000.0)


def listen(args):
    dump_until(bound_socket(), args.wait / 1000.0)


def send(args):
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
    for size in args.sizes:
        s.sendto(bytes(i % 251 for i in range(size)), (args.to, PORT))


def main():
    # Stopped by the test: end quietly with status 0, all output already flushed.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    p = argparse.ArgumentParser()
    sub = p.add_subparsers(dest="cmd", required=True)
    a = sub.add_parser("answer")
    a.add_argument("--uuid", default="0b" * 12)
    a.add_argument("--times", type=int, default=1)
    a.add_argument("--seq-offset", type=int, default=0)
    a.add_argument("--dest")
    a.add_argument("blocks", nargs="*")
    b = sub.add_parser("probe")
    b.add_argument("--uuid", required=True)
    b.add_argument("--flags", type=int, default=1)
    b.add_argument("--wait", type=int, default=500)
    b.add_argument("requests", nargs="+")
    c = sub.add_parser("listen")
    c.add_argument("--wait", type=int, default=1000)
    d = sub.add_parser("send")
    d.add_argument("--to", required=True)
    d.add_argument("sizes", type=int, nargs="+")
    args = p.parse_args()
    {"answer": answer, "probe": probe, "listen": listen, "send": send}[args.cmd](args)


if __name__ == "__main__":
    sys.exit(main())

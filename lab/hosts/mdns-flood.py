"""Sends RATE 34-byte mDNS queries a second (PTR "_http._tcp.local", class IN)
to 224.0.0.251:5353 from SOURCE:PORT for SECONDS, or until SIGTERM; PORT 0
takes an ephemeral port, which makes each a one-shot query. Never reads a
reply: they are counted in the node's kernel counters. Prints "sent N".
Run it only in a node of the simulated LAN:
  mdns-flood.py SOURCE PORT RATE SECONDS"""
import signal
import socket
import sys
import time

QUERY = bytes(5) + b"\x01" + bytes(6) + b"\x05_http\x04_tcp\x05local\x00" + b"\x00\x0c\x00\x01"
assert len(QUERY) == 34

source, port, rate, seconds = sys.argv[1], int(sys.argv[2]), float(sys.argv[3]), float(sys.argv[4])
signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
sock.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_LOOP, 0)
sock.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(source))
sock.bind((source, port))
group = ("224.0.0.251", 5353)
sent, start = 0, time.monotonic()
try:
    while True:
        elapsed = time.monotonic() - start
        if elapsed >= seconds:
            break
        due = min(int(elapsed * rate) + 1, int(seconds * rate))
        while sent < due:
            try:
                sock.sendto(QUERY, group)
            except BlockingIOError:
                break
            sent += 1
        time.sleep(0.001)
finally:
    print(f"sent {sent}", flush=True)

"""A misbehaving HTTP host on port 80, for the hostile-LAN soak.

argv[1] is how it answers every connection: "garbage" (1 KiB of random bytes),
"close" (closes at once), "slow" (a valid head, one byte a second), "never"
(reads the request and stays silent) or "body" (a JSON reply whose body is
argv[3], byte for byte); argv[2] is how many seconds it serves before it ends
by itself. Prints "ready" once it listens.
"""
import os
import socket
import sys
import threading
import time

mode, end = sys.argv[1], time.monotonic() + float(sys.argv[2])
body = os.fsencode(sys.argv[3]) if mode == "body" else b""
head = b"HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: %d\r\n\r\n"
head %= len(body) if mode == "body" else 40


def serve(c):
    try:
        if mode != "close":
            c.recv(4096)
            if mode == "garbage":
                c.sendall(os.urandom(1024))
            if mode == "body":
                c.sendall(head + body)
            for b in head if mode == "slow" else b"":
                if time.monotonic() > end:
                    break
                c.send(bytes([b]))
                time.sleep(1)
            while mode == "never" and time.monotonic() < end:
                time.sleep(0.5)
    except OSError:
        pass
    c.close()


s = socket.socket()
s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
s.bind(("0.0.0.0", 80))
s.listen(64)
s.settimeout(0.5)
print("ready", flush=True)
while time.monotonic() < end:
    try:
        threading.Thread(target=serve, args=(s.accept()[0],), daemon=True).start()
    except socket.timeout:
        pass

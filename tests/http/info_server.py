#!/usr/bin/python3
"""A device's HTTP info endpoint for tests: answers every GET the way the
arguments say and can record each request it receives as one JSON line.

  info_server.py [--port 80] [--status 200] [--content-type TYPE] [--body TEXT]
                 [--delay-ms N] [--silent] [--record FILE]

--content-type "" sends no Content-Type header. --silent reads the request and
never answers (the connection stays open until the server is stopped).
"""
import argparse
import json
import sys
import threading
import time
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

DEFAULT_BODY = '{"data":{"name":"A","version":"1.2","device_type":"x","other":1}}'


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--port", type=int, default=80)
    p.add_argument("--status", type=int, default=200)
    p.add_argument("--content-type", default="application/json")
    p.add_argument("--body", default=DEFAULT_BODY)
    p.add_argument("--delay-ms", type=int, default=0)
    p.add_argument("--silent", action="store_true")
    p.add_argument("--record", default="")
    args = p.parse_args()
    lock = threading.Lock()

    class Handler(BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"

        def log_message(self, *_):
            pass

        def do_GET(self):
            length = int(self.headers.get("Content-Length") or 0)
            body = self.rfile.read(length).decode("latin-1") if length else ""
            if args.record:
                entry = {
                    "method": self.command,
                    "target": self.path,
                    "version": self.request_version,
                    "headers": [[k, v] for k, v in self.headers.items()],
                    "body": body,
                }
                with lock, open(args.record, "a") as f:
                    f.write(json.dumps(entry) + "\n")
            if args.silent:
                while True:
                    time.sleep(3600)
            if args.delay_ms:
                time.sleep(args.delay_ms / 1000.0)
            data = args.body.encode()
            self.send_response(args.status)
            if args.content_type:
                self.send_header("Content-Type", args.content_type)
            self.send_header("Content-Length", str(len(data)))
            self.send_header("Connection", "close")
            self.end_headers()
            self.wfile.write(data)
            self.close_connection = True

    class Server(ThreadingHTTPServer):
        daemon_threads = True
        request_queue_size = 1024
        allow_reuse_address = True

    server = Server(("0.0.0.0", args.port), Handler)
    print("ready", flush=True)
    server.serve_forever()


if __name__ == "__main__":
    sys.exit(main())

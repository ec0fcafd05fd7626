"""Browses _http._tcp.local with python3-zeroconf for SECONDS and prints, for
each service found, its name, addresses, port and TXT, one line each, sorted.
Run inside a network namespace of the simulated LAN: zeroconf-browse.py SECONDS"""
import sys
import time

from zeroconf import ServiceBrowser, ServiceListener, Zeroconf, IPVersion

SERVICE = "_http._tcp.local."


class Collector(ServiceListener):
    def __init__(self):
        self.names = set()

    def add_service(self, zc, type_, name):
        self.names.add(name)

    def update_service(self, zc, type_, name):
        self.names.add(name)

    def remove_service(self, zc, type_, name):
        pass


zc = Zeroconf(ip_version=IPVersion.V4Only)
collector = Collector()
browser = ServiceBrowser(zc, SERVICE, collector)
time.sleep(float(sys.argv[1]))
lines = []
for name in sorted(collector.names):
    info = zc.get_service_info(SERVICE, name, timeout=3000)
    if info is None:
        lines.append(f"{name} unresolved")
        continue
    txt = b" ".join(info.text.split(b"\x00")) if info.text else b""
    lines.append(f"{name} {info.server} {','.join(info.parsed_addresses())} {info.port} "
                 f"{sorted(k.decode() + '=' + (v or b'').decode() for k, v in info.properties.items())}")
browser.cancel()
zc.close()
print("\n".join(sorted(lines)))

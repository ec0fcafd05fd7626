#!/usr/bin/env bash
# Whole-tool load check: a simulated LAN of MORL_COUNT MORL devices and
# MDNS_COUNT devices found through mDNS and asked over HTTP, and one
# `varnock -M 1 -T 1 --json` in the finder. Reports how many devices it lists,
# its wall time against the 1 s both waits impose, CPU time, peak memory and
# peak threads; then browses the same mDNS devices with python3-zeroconf's
# ServiceBrowser from the finder for comparison. Runs itself inside
# lab/isolated.sh, so everything vanishes with it. Needs root.
#   bench/varnock_load.sh BUILD_DIR [MORL_COUNT [MDNS_COUNT]]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
[ $# -ge 1 ] || { echo "usage: $0 BUILD_DIR [MORL_COUNT [MDNS_COUNT]]" >&2; exit 2; }
build=$(cd "$1" && pwd)
morl=${2:-250}
mdns=${3:-50}
[ "$(id -u)" -eq 0 ] || { echo "varnock_load: needs root" >&2; exit 2; }
[ $((morl + mdns)) -le 500 ] || { echo "varnock_load: at most 500 devices" >&2; exit 2; }
if [ -z "${VARNOCK_LOAD_ISOLATED:-}" ]; then
  VARNOCK_LOAD_ISOLATED=1 exec "$root/lab/isolated.sh" "$0" "$build" "$morl" "$mdns"
fi

lan=vload
L="$root/lab/lan.sh"
work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  "$L" down "$lan" || true
  rm -rf "$work"
}
trap cleanup EXIT

# Host numbers 2.. for MORL devices, then the mDNS devices; past 254 the LAN is a /23.
morl_hosts=() mdns_hosts=()
h=2
next() { h=$((h + 1)); [ "$h" -eq 255 ] && h=257; return 0; }
for _ in $(seq "$morl"); do morl_hosts+=("$h"); next; done
for _ in $(seq "$mdns"); do mdns_hosts+=("$h"); next; done
"$L" up "$lan" "${morl_hosts[@]}" "${mdns_hosts[@]}"

for h in "${morl_hosts[@]}"; do
  "$L" exec "$lan" "d$h" -- "$build/device/varnock-device" --name "morl-$h" --service "$((h % 5)):1" \
    --no-http >"$work/d$h.log" 2>&1 &
  pids+=($!)
done
for h in "${mdns_hosts[@]}"; do
  "$L" exec "$lan" "d$h" -- "$build/device/varnock-device" --name "http-$h" --service 2:1 \
    --no-morl >"$work/d$h.log" 2>&1 &
  pids+=($!)
  "$root/lab/mdns-responder.sh" "$("$L" ns "$lan" "d$h")" "device$h" >"$work/avahi-$h.log" 2>&1 &
  pids+=($!)
done
wait_for() {  # FILE TEXT
  for _ in $(seq 1200); do grep -q "$2" "$1" 2>/dev/null && return 0; sleep 0.05; done
  echo "varnock_load: '$2' never appeared in $1" >&2; exit 1
}
for h in "${morl_hosts[@]}" "${mdns_hosts[@]}"; do wait_for "$work/d$h.log" ready; done
for h in "${mdns_hosts[@]}"; do wait_for "$work/avahi-$h.log" "successfully established"; done
echo "LAN up: $morl MORL devices, $mdns mDNS + HTTP devices"

# Peak threads: sampled every millisecond from /proc while the run lasts.
cat >"$work/threads.py" <<'PY'
import os, sys, time
runner = int(sys.argv[1]); peak = 0; target = None
def threads(pid):
    try:
        with open(f"/proc/{pid}/status") as f: status = f.read()
    except OSError: return None
    if not status.startswith("Name:\tvarnock\n"): return None
    return int(status.split("Threads:\t")[1].split()[0])
while os.path.exists(f"/proc/{runner}"):
    if target is None:
        for pid in os.listdir("/proc"):
            if pid.isdigit() and threads(pid) is not None: target = pid; break
    else:
        n = threads(target)
        if n is None: break
        peak = max(peak, n)
print(peak)
PY
"$L" exec "$lan" finder -- /usr/bin/time -f "%e %U %S %M" -o "$work/time" \
  "$build/app/varnock" -M 1 -T 1 --json >"$work/out.json" 2>"$work/err" &
runner=$!
peak=$(/usr/bin/python3 "$work/threads.py" "$runner")
wait "$runner" || true
read -r wall user sys rss <"$work/time"
listed=$(grep -c '"ip"' "$work/out.json" || true)
missing=0
for h in "${morl_hosts[@]}" "${mdns_hosts[@]}"; do
  grep -q "\"ip\" : \"$("$L" ip "$lan" "$h")\"" "$work/out.json" || missing=$((missing + 1))
done
echo "varnock -M 1 -T 1 --json: listed $listed of $((morl + mdns)) (missing $missing)"
echo "  wall ${wall} s (waits impose 1 s; over by $(awk "BEGIN{printf \"%.2f\", $wall - 1}") s)," \
  "CPU ${user} s user + ${sys} s system, peak RSS $((rss / 1024)) MiB, peak threads $peak"
[ -s "$work/err" ] && { echo "  standard error:"; cat "$work/err"; }

# The same mDNS devices through an established browser.
cat >"$work/browse.py" <<'PY'
import sys, time
from zeroconf import Zeroconf, ServiceBrowser, ServiceListener
want = int(sys.argv[1]); limit = float(sys.argv[2])
class Count(ServiceListener):
    def __init__(self): self.names = set(); self.last = 0.0
    def add_service(self, zc, type_, name): self.names.add(name); self.last = time.monotonic()
    def update_service(self, zc, type_, name): pass
    def remove_service(self, zc, type_, name): pass
start = time.monotonic()
zc = Zeroconf(); c = Count(); ServiceBrowser(zc, "_http._tcp.local.", c)
while time.monotonic() - start < limit and len(c.names) < want: time.sleep(0.01)
print(len(c.names), round(c.last - start if c.names else 0.0, 3)); zc.close()
PY
read -r found took < <("$L" exec "$lan" finder -- /usr/bin/python3 "$work/browse.py" "$mdns" 10)
echo "python3-zeroconf ServiceBrowser: $found of $mdns mDNS devices, the last after ${took} s"
[ "$missing" -eq 0 ]

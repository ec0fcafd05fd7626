#!/usr/bin/env bash
# Load check of the mDNS discovery: a simulated LAN with COUNT device
# namespaces, each with its own avahi-daemon announcing "_http._tcp", and one
# discovery run in the finder with a 1-second silence time. Passes when every
# device address is found. Runs itself inside lab/isolated.sh, so the LAN
# and every responder vanish with it. Needs root.
#   bench/mdns_load.sh BUILD_DIR [COUNT]
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
[ $# -ge 1 ] || { echo "usage: $0 BUILD_DIR [COUNT]" >&2; exit 2; }
build=$(cd "$1" && pwd)
count=${2:-50}
driver=$build/bench/mdns_discover_driver
[ -x "$driver" ] || { echo "mdns_load: build the mdns_discover_driver target in $build first" >&2; exit 2; }
[ "$(id -u)" -eq 0 ] || { echo "mdns_load: needs root" >&2; exit 2; }
[ "$count" -ge 1 ] && [ "$count" -le 250 ] || { echo "mdns_load: COUNT from 1 to 250" >&2; exit 2; }

if [ -z "${VARNOCK_MDNS_LOAD_ISOLATED:-}" ]; then
  VARNOCK_MDNS_LOAD_ISOLATED=1 exec "$root/lab/isolated.sh" "$0" "$build" "$count"
fi

lan=mload
work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill -TERM "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  "$root/lab/lan.sh" down "$lan" || true
  rm -rf "$work"
}
trap cleanup EXIT

hosts=$(seq 2 $((count + 1)))
start=$(date +%s.%N)
# shellcheck disable=SC2086
"$root/lab/lan.sh" up "$lan" $hosts
for h in $hosts; do
  "$root/lab/mdns-responder.sh" "$("$root/lab/lan.sh" ns "$lan" "d$h")" "device$h" \
    >"$work/avahi-$h.log" 2>&1 &
  pids+=($!)
done
for h in $hosts; do
  for _ in $(seq 600); do
    grep -q "successfully established" "$work/avahi-$h.log" && break
    sleep 0.1
  done
  grep -q "successfully established" "$work/avahi-$h.log" ||
    { echo "mdns_load: responder of host $h did not start" >&2; cat "$work/avahi-$h.log" >&2; exit 1; }
done
ready=$(date +%s.%N)
echo "LAN of $count responders up in $(awk "BEGIN{printf \"%.1f\", $ready - $start}") s"

"$root/lab/lan.sh" exec "$lan" finder -- "$driver" 1 >"$work/found" 2>"$work/stats"
cat "$work/stats"
missing=0
for h in $hosts; do
  ip=$("$root/lab/lan.sh" ip "$lan" "$h")
  grep -qx "$ip" "$work/found" || { echo "missing $ip"; missing=$((missing + 1)); }
done
ipv4=$(grep -c '^10\.' "$work/found" || true)
echo "found $ipv4 of $count device addresses ($(wc -l <"$work/found") records in all)"
[ "$missing" -eq 0 ] && [ "$ipv4" -eq "$count" ]

#!/usr/bin/env bash
# MORL discovery under load: N varnock-device instances on the simulated LAN
# answer one discovery at the same moment; every one must become a record.
# Prints, per LAN size, the records found, the time discover(1) took and the
# finder namespace's UDP receive-buffer errors during the run.
#
#   lab/isolated.sh bench/morl_load.sh BUILD_DIR [N...]     (default N: 250 500)
#
# Hosts from 2 on, skipping those whose last byte would be 0 or 255: N up to
# 253 gives a /24, up to 1000 a /22 (lab/lan.sh). Needs root; every namespace
# and process is gone when isolated.sh returns.
set -euo pipefail

build=${1:?usage: morl_load.sh BUILD_DIR [N...]}
shift
sizes=("$@")
[ ${#sizes[@]} -gt 0 ] || sizes=(250 500)
here=$(cd "$(dirname "$0")/.." && pwd)
lan=$here/lab/lan.sh
device=$build/device/varnock-device
driver=$build/bench/morl_discover_driver
[ -x "$device" ] && [ -x "$driver" ] || { echo "build varnock-device and morl_discover_driver in $build" >&2; exit 2; }

rcvbuf_errors() {  # NS: the Udp RcvbufErrors counter of a namespace
  ip netns exec "$1" awk '/^Udp:/ { if (!n) { for (i = 1; i <= NF; i++) if ($i == "RcvbufErrors") c = i; n = 1 } else print $c }' /proc/net/snmp
}

run_one() {
  local count=$1 name=ml$1 hosts=() h=2 logs pids=() started
  while [ ${#hosts[@]} -lt "$count" ]; do
    [ $((h % 256)) -ne 0 ] && [ $((h % 256)) -ne 255 ] && hosts+=("$h")
    h=$((h + 1))
  done
  logs=$(mktemp -d)
  "$lan" up "$name" "${hosts[@]}"
  for h in "${hosts[@]}"; do
    ip netns exec "$name-d$h" "$device" --uuid "$(printf 'dd%022x' "$h")" --name "dev-$h" \
      --software-version "1.$h" --service "$((h % 5)):$h" --no-http >"$logs/$h" 2>&1 &
    pids+=($!)
  done
  started=$(date +%s)
  while [ "$(cat "$logs"/* | grep -c '^ready$')" -lt "$count" ]; do
    [ $(($(date +%s) - started)) -lt 120 ] || { echo "devices did not start" >&2; break; }
    sleep 0.2
  done
  local before after out
  before=$(rcvbuf_errors "$name-f")
  out=$(ip netns exec "$name-f" "$driver" 1)
  after=$(rcvbuf_errors "$name-f")
  local net
  net=$(ip netns exec "$name-f" ip -4 -o addr show dev eth0 | sed 's|.*/\([0-9]*\) .*|/\1|')
  echo "devices $count on a $net: $out, RcvbufErrors $((after - before))"
  kill "${pids[@]}" 2>/dev/null || true
  wait "${pids[@]}" 2>/dev/null || true
  "$lan" down "$name"
  rm -rf "$logs"
}

for n in "${sizes[@]}"; do run_one "$n"; done

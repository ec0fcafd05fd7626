#!/usr/bin/env bash
# How fast tshark decodes MORL with the dissector (wireshark/morl.lua): a
# capture of COUNT datagrams (100,000 by default; every kind the dissector
# knows, malformed ones among them, from bench/morl-capture.py) read RUNS times
# with the dissector and RUNS times without it (plain UDP), printing
# min/median/max of the wall time and the time per 100,000 packets. Needs
# tshark, no network.
#   bench/dissector_bench.sh [--runs N] [COUNT]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
runs=5
if [ "${1:-}" = "--runs" ]; then runs=$2; shift 2; fi
count=${1:-100000}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
python3 "$root/bench/morl-capture.py" "$work/morl.pcap" "$count"

stats() {  # min/median/max of the numbers on stdin
  sort -g | awk '{ v[NR] = $1 } END { printf "%.2f / %.2f / %.2f", v[1], v[int((NR + 1) / 2)], v[NR] }'
}
timed() {  # ARGS...: the wall time of one tshark run over the capture, in seconds
  local start end
  start=$(date +%s.%N)
  tshark -r "$work/morl.pcap" "$@" >/dev/null 2>&1
  end=$(date +%s.%N)
  awk -v s="$start" -v e="$end" 'BEGIN { printf "%.3f\n", e - s }'
}
echo "dissector_bench: $count MORL datagrams, $(du -h "$work/morl.pcap" | cut -f1) of capture, $runs runs each;" \
  "load average $(cut -d' ' -f1-3 /proc/loadavg)"
for mode in with without; do
  : >"$work/$mode"
  for _ in $(seq "$runs"); do
    if [ "$mode" = with ]; then timed -X "lua_script:$root/wireshark/morl.lua" -V >>"$work/$mode"
    else timed -V >>"$work/$mode"; fi
  done
  median=$(sort -g "$work/$mode" | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }')
  echo "  $mode the dissector (tshark -V): $(stats <"$work/$mode") s;" \
    "$(awk -v m="$median" -v n="$count" 'BEGIN { printf "%.2f", m * 100000 / n }') s per 100,000 packets (median)"
done

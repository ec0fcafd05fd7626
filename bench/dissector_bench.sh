#!/usr/bin/env bash
# How fast tshark decodes MORL with the dissector (wireshark/morl.lua), against
# plain tshark on the same capture (plain UDP): two captures of COUNT datagrams
# (100,000 by default) from bench/morl-capture.py, a run's (every kind the
# dissector knows, malformed ones among them) and garbage (random and mutated
# datagrams, as a flood or a fuzzer sends), each read RUNS times with the
# dissector and RUNS times without it by tshark -V, printing min/median/max of
# the wall time and the median CPU time (user + system) of each, and the ratio
# of the medians. With --root, the tshark of that Debian root (see
# scripts/debian-root.sh) runs as nobody, as Wireshark 4.4 and later need for
# Lua. Needs tshark, no network.
#   bench/dissector_bench.sh [--runs N] [--root ROOT] [COUNT]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
runs=5
debian_root=""
while [ $# -gt 0 ]; do
  case "$1" in
    --runs) runs=$2; shift 2 ;;
    --root) debian_root=$2; shift 2 ;;
    *) break ;;
  esac
done
count=${1:-100000}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
chmod 755 "$work"
tshark=(tshark)
if [ -n "$debian_root" ]; then
  tshark=(bash "$root/scripts/debian-root.sh" --run "$debian_root" --user --bind "$work" --bind "$root/wireshark" tshark)
fi
python3 "$root/bench/morl-capture.py" "$work/run.pcap" "$count"
python3 "$root/bench/morl-capture.py" --garbage "$work/garbage.pcap" "$count"
chmod 644 "$work"/*.pcap

stats() {  # min/median/max of the numbers on stdin
  sort -g | awk '{ v[NR] = $1 } END { printf "%.2f / %.2f / %.2f", v[1], v[int((NR + 1) / 2)], v[NR] }'
}
median() { sort -g | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }
timed() {  # FILE ARGS...: "WALL CPU" of one tshark -V over the capture, in seconds
  local file=$1; shift
  /usr/bin/time -f "%e %U %S" -o "$work/time" "${tshark[@]}" -r "$work/$file" -V "$@" >/dev/null 2>&1
  awk '{ printf "%.3f %.3f\n", $1, $2 + $3 }' "$work/time"
}
echo "dissector_bench: $("${tshark[@]}" -v 2>/dev/null | head -1), $count datagrams a capture, $runs runs each;" \
  "load average $(cut -d' ' -f1-3 /proc/loadavg)"
for capture in run garbage; do
  : >"$work/with" && : >"$work/without"
  # Alternated, so that a change in the machine's load falls on both.
  for _ in $(seq "$runs"); do
    timed "$capture.pcap" -X "lua_script:$root/wireshark/morl.lua" >>"$work/with"
    timed "$capture.pcap" >>"$work/without"
  done
  for mode in with without; do
    echo "  $capture capture ($(du -h "$work/$capture.pcap" | cut -f1)), $mode the dissector:" \
      "wall $(cut -d' ' -f1 "$work/$mode" | stats) s, CPU $(cut -d' ' -f2 "$work/$mode" | median) s (median)"
  done
  echo "  $capture capture: with / without, medians: wall" \
    "$(awk -v a="$(cut -d' ' -f1 "$work/with" | median)" -v b="$(cut -d' ' -f1 "$work/without" | median)" 'BEGIN { printf "%.2f", a / b }'), CPU" \
    "$(awk -v a="$(cut -d' ' -f2 "$work/with" | median)" -v b="$(cut -d' ' -f2 "$work/without" | median)" 'BEGIN { printf "%.2f", a / b }')"
done

#!/usr/bin/env bash
# Whole-tool load benchmark: for each SIZE (MORLxMDNS, default 250x50 1000x0
# 1000x100), a simulated LAN of MORL devices and of devices found by mDNS and
# asked over HTTP, and RUNS runs of `varnock -M 1 -T 1 --json` in the finder.
# For each size it prints min/median/max of the wall time minus the 1 s the
# waits impose, the CPU time, the peak RSS (GNU time, from wait4) and the peak
# threads (sampled every 10 ms), and every device missed in any run with its
# address, its method and where it was lost, from kernel counters read around
# the run: the device's own UDP and TCP counters, the finder's UDP receive
# buffer drops and the kernel's backlog drops.
#
# The LAN: a bridge, finder 10.0.0.1, devices from 10.0.0.2 on in a /22 at
# most (lab/lan.sh: fixed MACs and permanent neighbour entries, so that no
# one has to resolve anyone); MORL devices first, then the mDNS devices, each
# with a varnock-device HTTP server and its own avahi-daemon. Runs itself
# inside lab/isolated.sh, so everything vanishes with it. Needs root.
#   bench/varnock_load.sh [--runs N] BUILD_DIR [SIZE...]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
runs=5
if [ "${1:-}" = "--runs" ]; then runs=$2; shift 2; fi
[ $# -ge 1 ] || { echo "usage: $0 [--runs N] BUILD_DIR [MORLxMDNS...]" >&2; exit 2; }
build=$(cd "$1" && pwd)
shift
sizes=("$@")
[ ${#sizes[@]} -gt 0 ] || sizes=(250x50 1000x0 1000x100)
[ "$(id -u)" -eq 0 ] || { echo "varnock_load: needs root" >&2; exit 2; }
for s in "${sizes[@]}"; do
  [[ "$s" =~ ^([0-9]+)x([0-9]+)$ ]] && [ $((BASH_REMATCH[1] + BASH_REMATCH[2])) -le 1100 ] ||
    { echo "varnock_load: size $s is not MORLxMDNS with at most 1100 devices" >&2; exit 2; }
done
if [ -z "${VARNOCK_LOAD_ISOLATED:-}" ]; then
  VARNOCK_LOAD_ISOLATED=1 exec "$root/lab/isolated.sh" "$0" --runs "$runs" "$build" "${sizes[@]}"
fi

lan=vload
L="$root/lab/lan.sh"
work=$(mktemp -d)
pids=()
stop_all() {
  [ ${#pids[@]} -eq 0 ] && return
  kill -TERM "${pids[@]}" 2>/dev/null || true
  wait "${pids[@]}" 2>/dev/null || true
  pids=()
}
cleanup() {
  stop_all
  "$L" down "$lan" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# Kernel counters of the network namespace of each "NAME PID" line on stdin,
# read from /proc/PID/net without entering it: NAME, UDP InDatagrams,
# RcvbufErrors, OutDatagrams, TCP PassiveOpens.
cat >"$work/counters.py" <<'PY'
import sys
for line in sys.stdin:
    name, pid = line.split()
    try:
        rows = [l.split() for l in open(f"/proc/{pid}/net/snmp")]
    except OSError:
        print(name, "- - - -"); continue
    get = lambda proto, key: next(v for k, v in zip(*[r for r in rows if r[0] == proto + ":"]) if k == key)
    print(name, get("Udp", "InDatagrams"), get("Udp", "RcvbufErrors"), get("Udp", "OutDatagrams"),
          get("Tcp", "PassiveOpens"))
PY
softnet_drops() {  # packets the kernel dropped from its per-CPU backlogs, all namespaces
  local total=0 cpu dropped rest
  while read -r cpu dropped rest; do total=$((total + 16#$dropped)); done </proc/net/softnet_stat
  echo "$total"
}
types=(extender_dorn extender_brask pallor_module extender_quin extender_fell)

stats() {  # min/median/max of the numbers on stdin
  sort -g | awk '{ v[NR] = $1 } END { printf "%g / %g / %g", v[1], (NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2), v[NR] }'
}

run_size() {  # MORL MDNS
  local morl=$1 mdns=$2 hosts=() h=2 i
  while [ ${#hosts[@]} -lt $((morl + mdns)) ]; do
    [ $((h % 256)) -ne 0 ] && [ $((h % 256)) -ne 255 ] && hosts+=("$h")
    h=$((h + 1))
  done
  local morl_hosts=("${hosts[@]:0:morl}") mdns_hosts=("${hosts[@]:morl}")
  local t0=$SECONDS
  "$L" up "$lan" "${hosts[@]}"
  : >"$work/pids" >"$work/expected"
  for h in "${morl_hosts[@]}"; do
    "$L" exec "$lan" "d$h" -- "$build/device/varnock-device" --name "morl-$h" --software-version "1.$h" \
      --service "$((h % 5)):1" --no-http >"$work/d$h.log" 2>&1 &
    pids+=($!)
    echo "d$h $!" >>"$work/pids"
    echo "$("$L" ip "$lan" "$h") morl-$h 1.$h ${types[h % 5]} MORL" >>"$work/expected"
  done
  for h in "${mdns_hosts[@]}"; do
    "$L" exec "$lan" "d$h" -- "$build/device/varnock-device" --name "http-$h" --software-version "2.$h" \
      --service 2:1 --no-morl >"$work/d$h.log" 2>&1 &
    pids+=($!)
    echo "d$h $!" >>"$work/pids"
    echo "$("$L" ip "$lan" "$h") http-$h 2.$h pallor_module mDNS+HTTP" >>"$work/expected"
    "$root/lab/mdns-responder.sh" "$("$L" ns "$lan" "d$h")" "device$h" >"$work/avahi-$h.log" 2>&1 &
    pids+=($!)
  done
  local deadline=$((SECONDS + 300)) ready=0 established=0
  while [ "$ready" -lt "${#hosts[@]}" ] || [ "$established" -lt "$mdns" ]; do
    [ $SECONDS -lt $deadline ] || { echo "varnock_load: the devices did not start" >&2; exit 1; }
    sleep 0.5
    ready=$(cat "$work"/d*.log | grep -c '^ready$' || true)
    established=$(cat "$work"/avahi-*.log 2>/dev/null | grep -c 'successfully established' || true)
  done
  # Starting a thousand processes leaves the load high for a while: wait (up
  # to 2 minutes) for the one-minute load average to come down first.
  local up=$((SECONDS - t0)) settle=$((SECONDS + 120))
  while [ "$(awk '{ print ($1 >= 2.5) }' /proc/loadavg)" = 1 ] && [ $SECONDS -lt $settle ]; do sleep 2; done
  echo
  echo "== $morl MORL + $mdns mDNS/HTTP devices, finder $("$L" ip "$lan" 1)/$(
    "$L" exec "$lan" finder -- ip -4 -o addr show dev eth0 | sed 's|.*/\([0-9]*\) .*|\1|')" \
    "(LAN and devices up in $up s, load settled in $((SECONDS - t0 - up)) s); $(uptime | sed 's/.*load/load/')"
  : >"$work/over" >"$work/cpu" >"$work/rss" >"$work/threads" >"$work/missed"
  for i in $(seq "$runs"); do
    "$L" exec "$lan" finder -- cat /proc/net/snmp | awk '/^Udp:/ { if (n++) print $6 }' >"$work/f0"
    python3 "$work/counters.py" <"$work/pids" >"$work/c0"
    softnet_drops >"$work/s0"
    "$L" exec "$lan" finder -- /usr/bin/time -f "%e %U %S %M" -o "$work/time" \
      "$build/app/varnock" -M 1 -T 1 --json >"$work/out.json" 2>"$work/err" &
    local runner=$!
    python3 "$root/bench/peak_threads.py" "$runner" >"$work/peak" &
    local sampler=$!
    wait "$runner" || true
    wait "$sampler" || true
    "$L" exec "$lan" finder -- cat /proc/net/snmp | awk '/^Udp:/ { if (n++) print $6 }' >"$work/f1"
    python3 "$work/counters.py" <"$work/pids" >"$work/c1"
    softnet_drops >"$work/s1"
    local wall user sys rss listed missing=0
    read -r wall user sys rss < <(tail -1 "$work/time")
    awk -v w="$wall" 'BEGIN { printf "%.2f\n", w - 1 }' >>"$work/over"
    awk -v u="$user" -v s="$sys" 'BEGIN { printf "%.2f\n", u + s }' >>"$work/cpu"
    echo $((rss / 1024)) >>"$work/rss"
    cat "$work/peak" >>"$work/threads"
    listed=$(python3 -c '
import json, sys
for d in json.load(open(sys.argv[1]))["devices"]: print(d["ip"], d["name"], d["version"], d["device_type"])' \
      "$work/out.json" 2>/dev/null || true)
    while read -r ip name version type method; do
      if ! grep -qx "$ip $name $version $type" <<<"$listed"; then
        missing=$((missing + 1))
        local node c0 c1
        node=d$(("$(cut -d. -f3 <<<"$ip")" * 256 + "$(cut -d. -f4 <<<"$ip")"))
        read -r _ a0 b0 o0 p0 < <(grep "^$node " "$work/c0")
        read -r _ a1 b1 o1 p1 < <(grep "^$node " "$work/c1")
        echo "run $i: $ip ($method) missed; the device's UDP in +$((a1 - a0)), receive-buffer drops" \
          "+$((b1 - b0)), out +$((o1 - o0)), TCP connections accepted +$((p1 - p0)); finder's receive-buffer" \
          "drops +$(($(cat "$work/f1") - $(cat "$work/f0"))); kernel backlog drops +$(($(cat "$work/s1") - $(cat "$work/s0")))" \
          >>"$work/missed"
      fi
    done <"$work/expected"
    echo "  run $i: wall $wall s, CPU $user + $sys s, peak RSS $((rss / 1024)) MiB, peak threads $(cat "$work/peak")," \
      "listed $(grep -c . <<<"$listed") of $((morl + mdns)), missed $missing; finder's UDP receive-buffer drops" \
      "+$(($(cat "$work/f1") - $(cat "$work/f0"))), kernel backlog drops +$(($(cat "$work/s1") - $(cat "$work/s0")))" \
      "$( [ -s "$work/err" ] && echo "; standard error: $(head -c 300 "$work/err")")"
  done
  echo "  over the 1 s of waits (min / median / max, s): $(stats <"$work/over")"
  echo "  CPU time, user + system (s):                    $(stats <"$work/cpu")"
  echo "  peak RSS (MiB):                                 $(stats <"$work/rss")"
  echo "  peak threads:                                   $(stats <"$work/threads")"
  if [ -s "$work/missed" ]; then sed 's/^/  missed: /' "$work/missed"; else echo "  missed: none in $runs runs"; fi
  echo "  $(uptime | sed 's/.*load/load/')"
  stop_all
  "$L" down "$lan"
  rm -f "$work"/d*.log "$work"/avahi-*.log
}

# The MORL socket holds what the host's rmem_max grants (README: limits of the
# host); the figures depend on it.
echo "host: net.core.rmem_max $(sysctl -n net.core.rmem_max), $(nproc) cores"
for s in "${sizes[@]}"; do run_size "${s%x*}" "${s#*x}"; done

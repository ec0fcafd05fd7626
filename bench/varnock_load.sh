#!/usr/bin/env bash
# Whole-tool load benchmark: for each SIZE (MORLxMDNS, default 250x50 1000x0
# 1000x100 2000x2000), a simulated LAN of MORL devices and of devices found by mDNS and
# asked over HTTP, and RUNS runs of `varnock -M 1 -T 1 --json` in the finder.
# For each size it prints min/median/max of the wall time minus the 1 s the
# waits impose, the CPU time, the peak RSS (GNU time, from wait4) and the peak
# threads (sampled every 10 ms), and every device missed in any run with its
# address, its method and where it was lost, from kernel counters read around
# the run: the UDP and TCP counters of the device's site, the finder's UDP
# receive buffer drops and the kernel's backlog drops.
#
# The LAN and its devices are lab/lan/lib.sh's load LAN (load_lan_up). Runs itself
# inside lab/lan/isolated.sh, so everything vanishes with it. Needs root.
#   bench/varnock_load.sh [--runs N] BUILD_DIR [SIZE...]
set -euo pipefail
# shellcheck source=lab/lan/lib.sh
source "$(dirname "$0")/../lab/lan/lib.sh"
runs=5
if [ "${1:-}" = "--runs" ]; then runs=$2; shift 2; fi
[ $# -ge 1 ] || die "usage: $0 [--runs N] BUILD_DIR [MORLxMDNS...]"
build=$(cd "$1" && pwd)
shift
sizes=("$@")
[ ${#sizes[@]} -gt 0 ] || sizes=(250x50 1000x0 1000x100 2000x2000)
need_root
for s in "${sizes[@]}"; do
  # Hosts skip the .0 and .255 addresses; 4,000 of them still fit in the /20.
  { [[ "$s" =~ ^([0-9]+)x([0-9]+)$ ]] && [ $((BASH_REMATCH[1] + BASH_REMATCH[2])) -le 4000 ]; } ||
    die "size $s is not MORLxMDNS with at most 4000 devices"
done
isolate --runs "$runs" "$build" "${sizes[@]}"

lan=vload
clean_up_on_exit

stats() {  # min/median/max of the numbers on stdin
  sort -g | awk '{ v[NR] = $1 } END { printf "%g / %g / %g", v[1], (NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2), v[NR] }'
}

run_size() {  # MORL MDNS
  local morl=$1 mdns=$2 i t0=$SECONDS
  load_lan_up "$lan" "$build" "$morl" "$mdns"
  # Building the LAN leaves the load high for a while: wait (up to 2 minutes)
  # for the one-minute load average to come down first.
  local up=$((SECONDS - t0)) settle=$((SECONDS + 120))
  while [ "$(awk '{ print ($1 >= 2.5) }' /proc/loadavg)" = 1 ] && [ $SECONDS -lt $settle ]; do sleep 2; done
  echo
  echo "== $morl MORL + $mdns mDNS/HTTP devices, finder $(host_addr 10.0.0 1)/$(
    in_node "$lan" finder ip -4 -o addr show dev eth0 | sed 's|.*/\([0-9]*\) .*|\1|')" \
    "(LAN and devices up in $up s, load settled in $((SECONDS - t0 - up)) s); $(uptime | sed 's/.*load/load/')"
  : >"$work/over"
  : >"$work/cpu"
  : >"$work/rss"
  : >"$work/threads"
  : >"$work/missed"
  for i in $(seq "$runs"); do
    local wall user sys rss threads listed missed finder backlog
    read -r wall user sys rss threads listed missed finder backlog < <(load_run "$lan" "$build" "$i")
    awk -v w="$wall" 'BEGIN { printf "%.2f\n", w - 1 }' >>"$work/over"
    awk -v u="$user" -v s="$sys" 'BEGIN { printf "%.2f\n", u + s }' >>"$work/cpu"
    echo $((rss / 1024)) >>"$work/rss"
    echo "$threads" >>"$work/threads"
    echo "  run $i: wall $wall s, CPU $user + $sys s, peak RSS $((rss / 1024)) MiB, peak threads $threads," \
      "listed $listed of $((morl + mdns)), missed $missed; finder's UDP receive-buffer drops +$finder," \
      "kernel backlog drops +$backlog$( [ -s "$work/err" ] && echo "; standard error: $(head -c 300 "$work/err")")"
  done
  echo "  over the 1 s of waits (min / median / max, s): $(stats <"$work/over")"
  echo "  CPU time, user + system (s):                    $(stats <"$work/cpu")"
  echo "  peak RSS (MiB):                                 $(stats <"$work/rss")"
  echo "  peak threads:                                   $(stats <"$work/threads")"
  if [ -s "$work/missed" ]; then sed 's/^/  missed: /' "$work/missed"; else echo "  missed: none in $runs runs"; fi
  echo "  $(uptime | sed 's/.*load/load/')"
  lan_down "$lan"
  rm -f "$work"/d*.log "$work"/site-*.json
}

# The MORL socket holds what the host's rmem_max grants (README: limits of the
# host); the figures depend on it.
echo "host: net.core.rmem_max $(sysctl -n net.core.rmem_max), $(nproc) cores"
for s in "${sizes[@]}"; do run_size "${s%x*}" "${s#*x}"; done

#!/usr/bin/env bash
# varnock-device under a flood of mDNS queries: one device, then a site of 100
# in one process, each flooded at 5,000 and 20,000 34-byte PTR queries a second
# for SECONDS (20): eight in ten from port 5353 of one host (answered by
# multicast), one in ten one-shot from another (answered by unicast), one in
# ten one-shot from 10.99.0.2, a second address of a third host that is off the
# devices' subnet, as if behind a router. A second into each flood, varnock,
# avahi-browse and python3-zeroconf browse from the finder, one after another.
# A line a flood: queries sent, packets that reached the devices' node,
# datagrams its full socket buffers dropped (the looped-back copies of its own
# multicast answers among them), answers a second by multicast and by unicast, UDP
# payload bytes out over bytes in, answers that reached the off-link address,
# the process's CPU share during the flood and its RSS before and after (KiB),
# and how many of the devices each client listed. Counters are the kernel's, in
# each node's namespace. Runs itself inside lab/lan/isolated.sh. Needs root.
#   bench/mdns_flood.sh [--seconds N] [--rates "RATE..."] [--sizes "COUNT..."] BUILD_DIR
set -euo pipefail
# shellcheck source=lab/lan/lib.sh
source "$(dirname "$0")/../lab/lan/lib.sh"

usage="usage: $0 [--seconds N] [--rates \"RATE...\"] [--sizes \"COUNT...\"] BUILD_DIR"
seconds=20 rates="5000 20000" sizes="1 100"
while [ $# -gt 1 ]; do
  case "$1" in
    --seconds) seconds=$2 ;;
    --rates) rates=$2 ;;
    --sizes) sizes=$2 ;;
    *) die "$usage" ;;
  esac
  shift 2
done
[ $# -eq 1 ] || die "$usage"
build=$(cd "$1" && pwd)
{ [ -x "$build/device/varnock-device" ] && [ -x "$build/app/varnock" ]; } ||
  die "build varnock and varnock-device in $build first"
{ [[ "$seconds" =~ ^[0-9]+$ ]] && [ "$seconds" -ge 1 ]; } || die "--seconds takes a whole number from 1"
for n in $rates $sizes; do { [[ "$n" =~ ^[0-9]+$ ]] && [ "$n" -ge 1 ]; } || die "$usage"; done
for n in $sizes; do [ "$n" -le 240 ] || die "a site of at most 240 devices"; done
need_root
isolate --seconds "$seconds" --rates "$rates" --sizes "$sizes" "$build"

lan=mflood
clean_up_on_exit

node_stats() {  # NODE: eth0's received packets, sent packets and bytes; UDP in, errors, no-port, out; multicast out
  in_node "$lan" "$1" cat /proc/net/dev | awk '$1 == "eth0:" {printf "%s %s %s ", $3, $11, $10}'
  in_node "$lan" "$1" cat /proc/net/snmp /proc/net/netstat |
    snmp_counters "Udp:InDatagrams Udp:InErrors Udp:NoPorts Udp:OutDatagrams Udp:RcvbufErrors IpExt:OutMcastPkts" - |
    cut -d' ' -f2-
}

process_stats() {  # PID: CPU ticks (user + system) and RSS in KiB
  local stat
  stat=$(cat "/proc/$1/stat")
  stat=${stat##*) }
  read -r -a fields <<<"$stat"
  echo "$((fields[11] + fields[12])) $(awk '/^VmRSS:/ {print $2}' "/proc/$1/status")"
}

listed() {  # FILE COLUMN SEPARATOR: how many expected addresses the client's output lists
  awk -v col="$2" -F "$3" 'NR == FNR {want[$1] = 1; next} ($col in want) {got[$col] = 1}
    END {print length(got)}' "$work/expected" "$1"
}

clients() {  # runs the three clients in the finder, one after another
  in_node "$lan" finder "$build/app/varnock" -M 1 -T 1 -a 2>&1 | sed 's/:.*//; s/^ *//' >"$work/varnock"
  "$lab_dir/../hosts/avahi-browse.sh" "$(lan_ns "$lan" finder)" >"$work/avahi" 2>&1 || true
  in_node "$lan" finder /usr/bin/python3 "$lab_dir/../hosts/zeroconf-browse.py" 2 >"$work/zeroconf" 2>&1 || true
}

printf '%7s %6s %8s %8s %7s %8s %8s %7s %8s %5s %7s %7s %13s\n' devices rate sent "in" dropped \
  "mc-ans/s" "uc-ans/s" "out/in" off-link "cpu%" rss0 rss1 "varnock/avahi/zc"
for size in $sizes; do
  mapfile -t hosts < <(host_list "$size")
  : >"$work/expected"
  load_site MDNS "${hosts[@]}"
  cut -d' ' -f1 "$work/expected" >"$work/addresses" && mv "$work/addresses" "$work/expected"
  lan_up "$lan" "$(IFS=,; echo "${hosts[*]}")" 250 251 252 >/dev/null
  in_node "$lan" d252 ip addr add 10.99.0.2/32 dev eth0
  start_in "$lan" d2 "$work/device.log" "$build/device/varnock-device" --site "$work/site-d2.json"
  device=$!
  wait_ready "$work/device.log"
  sleep 3  # past the announcements
  for rate in $rates; do
    read -r ticks0 rss0 < <(process_stats "$device")
    read -r -a d0 < <(node_stats d2)
    read -r -a o0 < <(node_stats d252)
    flooders=()
    start_in "$lan" d250 "$work/f0" /usr/bin/python3 "$lab_dir/../hosts/mdns-flood.py" "$(host_addr 10.0.0 250)" 5353 \
      $((rate * 8 / 10)) "$seconds"
    flooders+=($!)
    start_in "$lan" d251 "$work/f1" /usr/bin/python3 "$lab_dir/../hosts/mdns-flood.py" "$(host_addr 10.0.0 251)" 0 \
      $((rate / 10)) "$seconds"
    flooders+=($!)
    start_in "$lan" d252 "$work/f2" /usr/bin/python3 "$lab_dir/../hosts/mdns-flood.py" 10.99.0.2 0 $((rate / 10)) "$seconds"
    flooders+=($!)
    sleep 1
    clients &
    browsing=$!
    wait "${flooders[@]}"
    read -r ticks1 rss1 < <(process_stats "$device")
    read -r -a d1 < <(node_stats d2)
    read -r -a o1 < <(node_stats d252)
    wait "$browsing"
    sent=$(cat "$work/f0" "$work/f1" "$work/f2" | awk '$1 == "sent" {n += $2} END {print n + 0}')
    # d: rx-packets tx-packets tx-bytes udp-in udp-errors udp-noport udp-out rcvbuf-errors mcast-out
    mc=$((d1[8] - d0[8]))
    uc=$((d1[6] - d0[6] - mc))
    out=$((d1[2] - d0[2] - 42 * (d1[1] - d0[1])))
    offlink=$((o1[3] - o0[3] + o1[4] - o0[4] + o1[5] - o0[5]))
    printf '%7s %6s %8s %8s %7s %8s %8s %7s %8s %5s %7s %7s %13s\n' "$size" "$rate" "$sent" \
      $((d1[0] - d0[0])) $((d1[7] - d0[7])) "$(awk "BEGIN {printf \"%.1f\", $mc / $seconds}")" \
      "$(awk "BEGIN {printf \"%.1f\", $uc / $seconds}")" "$(awk "BEGIN {printf \"%.3f\", $out / ($sent * 34)}")" \
      "$offlink" "$(awk "BEGIN {printf \"%.0f\", 100 * ($ticks1 - $ticks0) / $(getconf CLK_TCK) / $seconds}")" \
      "$rss0" "$rss1" "$(listed "$work/varnock" 1 ' ')/$(listed "$work/avahi" 8 ';')/$(listed "$work/zeroconf" 3 ' ')"
    sleep 2
  done
  lan_down "$lan"
done

#!/usr/bin/env bash
# mDNS discovery under load: a simulated LAN with COUNT device namespaces,
# each with its own avahi-daemon announcing "_http._tcp", and one discovery
# run in the finder with a 1-second silence time. Prints how long the LAN took
# to come up, the driver's figures, how many device addresses were found and
# every one missed. Runs itself inside lab/lan/isolated.sh, so the LAN and every
# responder vanish with it. Needs root.
#   bench/mdns_load.sh BUILD_DIR [COUNT]
set -euo pipefail
# shellcheck source=lab/lan/lib.sh
source "$(dirname "$0")/../lab/lan/lib.sh"

[ $# -ge 1 ] || die "usage: $0 BUILD_DIR [COUNT]"
build=$(cd "$1" && pwd)
count=${2:-50}
driver=$build/bench/mdns_discover_driver
[ -x "$driver" ] || die "build the mdns_discover_driver target in $build first"
{ [ "$count" -ge 1 ] && [ "$count" -le 250 ]; } || die "COUNT from 1 to 250"
need_root
isolate "$build" "$count"

lan=mload
clean_up_on_exit
mapfile -t hosts < <(host_list "$count")
start=$(date +%s.%N)
lan_up "$lan" "${hosts[@]}"
logs=()
for h in "${hosts[@]}"; do
  start_responder "$lan" "$h" "device$h" "$work/avahi-$h.log"
  logs+=("$work/avahi-$h.log")
done
wait_ready "${logs[@]}"
ready=$(date +%s.%N)
echo "LAN of $count responders up in $(awk "BEGIN{printf \"%.1f\", $ready - $start}") s"

in_node "$lan" finder "$driver" 1 >"$work/found" 2>"$work/stats"
cat "$work/stats"
while read -r ip; do
  grep -qx "$ip" "$work/found" || echo "missing $ip"
done < <(host_addr 10.0.0 "${hosts[@]}")
echo "found $(grep -c '^10\.' "$work/found" || true) of $count device addresses ($(wc -l <"$work/found") records in all)"

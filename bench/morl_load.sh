#!/usr/bin/env bash
# MORL discovery under load: N varnock-device instances on the simulated LAN
# answer one discovery at the same moment; every one must become a record.
# Prints, per LAN size, the records found, the time discover(1) took and the
# finder namespace's UDP receive-buffer errors during the run.
#
#   bench/morl_load.sh BUILD_DIR [N...]     (default N: 250 500)
#
# Hosts from 2 on, skipping those whose last byte would be 0 or 255: N up to
# 253 gives a /24, up to 1000 a /22 (lab/lan/lan.sh). Runs itself inside
# lab/lan/isolated.sh, so every namespace and process is gone when it ends. Needs
# root.
set -euo pipefail
# shellcheck source=lab/lan/lib.sh
source "$(dirname "$0")/../lab/lan/lib.sh"

[ $# -ge 1 ] || die "usage: morl_load.sh BUILD_DIR [N...]"
build=$(cd "$1" && pwd)
shift
sizes=("$@")
[ ${#sizes[@]} -gt 0 ] || sizes=(250 500)
device=$build/device/varnock-device
driver=$build/bench/morl_discover_driver
{ [ -x "$device" ] && [ -x "$driver" ]; } || die "build varnock-device and morl_discover_driver in $build"
need_root
isolate "$build" "${sizes[@]}"
clean_up_on_exit

run_one() {
  local count=$1 lan=ml$1 hosts h logs=()
  mapfile -t hosts < <(host_list "$count")
  lan_up "$lan" "${hosts[@]}"
  for h in "${hosts[@]}"; do
    start_in "$lan" "d$h" "$work/$h" "$device" --uuid "$(printf 'dd%022x' "$h")" --name "dev-$h" \
      --software-version "1.$h" --service "$((h % 5)):$h" --no-http
    logs+=("$work/$h")
  done
  wait_ready "${logs[@]}"
  local before after out net
  before=$(node_counters "$lan" finder Udp:RcvbufErrors)
  out=$(in_node "$lan" finder "$driver" 1)
  after=$(node_counters "$lan" finder Udp:RcvbufErrors)
  net=$(in_node "$lan" finder ip -4 -o addr show dev eth0 | sed 's|.*/\([0-9]*\) .*|/\1|')
  echo "devices $count on a $net: $out, RcvbufErrors $((after - before))"
  lan_down "$lan"
  rm -f "$work"/*
}

for n in "${sizes[@]}"; do run_one "$n"; done

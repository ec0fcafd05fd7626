#!/usr/bin/env bash
# Installs what is needed, builds, and shows Varnock at work on a simulated
# LAN: a handful of simulated devices in network namespaces of their own
# (MORL devices of several types, a device found only through mDNS and asked
# over HTTP, a device that speaks both), with real mDNS responders. Runs
# varnock and varnock --json from the LAN's finder host, prints what they
# print, and removes everything again. With --capture FILE, the finder's
# traffic (MORL, mDNS and HTTP) is written to FILE as a pcap as well. With
# --build DIR (or VARNOCK_BUILD=DIR, as lab/lan/guide.sh takes it), it shows
# the binaries of the build tree DIR instead of building build/. Needs root.
#   scripts/demo.sh [--capture FILE] [--build DIR]
set -euo pipefail
# shellcheck source=lab/lan/lib.sh
source "$(dirname "$0")/../lab/lan/lib.sh"
root=$(cd "$(dirname "$0")/.." && pwd)
args=("$@") capture="" bin=${VARNOCK_BUILD:+$(realpath "$VARNOCK_BUILD")}
while [ $# -gt 0 ]; do
  case "$1" in
    --capture) capture=$(realpath -m "$2"); shift 2 ;;
    --build) bin=$(realpath "$2"); shift 2 ;;
    *) die "usage: demo.sh [--capture FILE] [--build DIR]" ;;
  esac
done
cd "$root"
need_root
# Private mount and PID namespaces: nothing the demo starts, the build
# included, can outlive it.
isolate "${args[@]}"
if [ -n "$bin" ]; then bash scripts/setup.sh --no-build; else bash scripts/setup.sh; fi
bin=${bin:-$root/build}

lan=demo
clean_up_on_exit
device() {  # HOST ARGS...
  start_in "$lan" "d$1" "$work/d$1.log" "$bin/device/varnock-device" "${@:2}"
}

echo "Building a simulated LAN: finder 10.0.0.1, devices 10.0.0.10-12, 10.0.0.20-21"
lan_up $lan 10 11 12 20 21
device 10 --name Pallor-Main --software-version 2.4.1 --service 2:1 --no-http
device 11 --name Dorn-Hall-2 --software-version 1.0.3 --service 0:7 --no-http
device 12 --name Brask-Gate --software-version 2.0.0 --service 1:1
device 20 --name Fell-Lab --software-version 0.9.8 --service 4:2 --no-morl
device 21 --name Quin-Roof --software-version 1.1.0 --service 3:1 --service 3:2 --no-http
start_responder $lan 12 device-12 "$work/mdns12.log"
start_responder $lan 20 device-20 "$work/mdns20.log"
wait_ready "$work"/d{10,11,12,20,21}.log "$work"/mdns{12,20}.log
echo "  MORL only: 10.0.0.10, 10.0.0.11, 10.0.0.21; mDNS + HTTP only: 10.0.0.20; both: 10.0.0.12"
if [ -n "$capture" ]; then
  start_in $lan finder "$work/tcpdump.log" tcpdump -i eth0 -U -w "$capture" \
    'udp port 4792 or udp port 5353 or tcp port 80'
  capture_pid=$!
  wait_text "$work/tcpdump.log" "listening on"
fi

echo
echo "\$ varnock -M 2 -T 2"
in_node $lan finder "$bin/app/varnock" -M 2 -T 2
echo
echo "\$ varnock --json -M 2 -T 2"
in_node $lan finder "$bin/app/varnock" --json -M 2 -T 2
if [ -n "$capture" ]; then
  kill -INT "$capture_pid"
  wait "$capture_pid" || true
  echo
  echo "Captured the finder's traffic in $capture; see it with"
  echo "  tshark -X lua_script:$root/wireshark/morl.lua -r $capture"
fi

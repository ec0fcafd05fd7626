#!/usr/bin/env bash
# Installs what is needed, builds, and shows Varnock at work on a simulated
# LAN: a handful of simulated devices in network namespaces of their own
# (MORL devices of several types, a device found only through mDNS and asked
# over HTTP, a device that speaks both), with real mDNS responders. Runs
# varnock and varnock --json from the LAN's finder host, prints what they
# print, and removes everything again. Needs root.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

if [ "${1:-}" != "--in-lan" ]; then
  [ "$(id -u)" -eq 0 ] || { echo "demo.sh: run as root (it builds network namespaces)" >&2; exit 1; }
  bash scripts/setup.sh
  # Private mount and PID namespaces: nothing the demo starts can outlive it.
  exec lab/isolated.sh bash "$0" --in-lan
fi

lan=demo
bin="$root/build"
logs=$(mktemp -d)
trap 'lab/lan.sh down $lan; rm -rf "$logs"' EXIT

wait_for() {  # FILE TEXT
  for _ in $(seq 1 300); do grep -q "$2" "$1" 2>/dev/null && return 0; sleep 0.05; done
  echo "demo.sh: timed out waiting for '$2' in $1" >&2; cat "$1" >&2; return 1
}
device() {  # HOST ARGS...
  local host=$1; shift
  lab/lan.sh exec $lan "d$host" -- "$bin/device/varnock-device" "$@" >"$logs/d$host.log" 2>&1 &
}
responder() {  # HOST
  lab/mdns-responder.sh "$lan-d$1" "device-$1" >"$logs/mdns$1.log" 2>&1 &
}

echo "Building a simulated LAN: finder 10.0.0.1, devices 10.0.0.10-12, 10.0.0.20-21"
lab/lan.sh up $lan 10 11 12 20 21
device 10 --name Pallor-Main --software-version 2.4.1 --service 2:1 --no-http
device 11 --name Dorn-Hall-2 --software-version 1.0.3 --service 0:7 --no-http
device 12 --name Brask-Gate --software-version 2.0.0 --service 1:1
device 20 --name Fell-Lab --software-version 0.9.8 --service 4:2 --no-morl
device 21 --name Quin-Roof --software-version 1.1.0 --service 3:1 --service 3:2 --no-http
responder 12
responder 20
for h in 10 11 12 20 21; do wait_for "$logs/d$h.log" ready; done
for h in 12 20; do wait_for "$logs/mdns$h.log" "successfully established"; done
echo "  MORL only: 10.0.0.10, 10.0.0.11, 10.0.0.21; mDNS + HTTP only: 10.0.0.20; both: 10.0.0.12"

echo
echo "\$ varnock -M 2 -T 2"
lab/lan.sh exec $lan finder -- "$bin/app/varnock" -M 2 -T 2
echo
echo "\$ varnock --json -M 2 -T 2"
lab/lan.sh exec $lan finder -- "$bin/app/varnock" --json -M 2 -T 2

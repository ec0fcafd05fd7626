#!/usr/bin/env bash
# The field guide's LAN ("When a device is missing", docs/field-guide.md) in
# one command, and each reason a device is not listed, set up and fixed on it.
# Needs root; everything lives in network namespaces of the LAN (lan.sh).
#
#   guide.sh up            the LAN: finder 10.0.0.1, router 10.0.0.5 (no
#                          device), Dorn-10 (MORL only, with its type),
#                          Ctrl-12 (MORL without a type, the type over HTTP;
#                          no mDNS), Http-20 (mDNS and HTTP, no MORL)
#   guide.sh down          stops its devices and removes it
#   guide.sh list          the causes, one a line
#   guide.sh break CAUSE   sets CAUSE up, after undoing any cause set up before
#   guide.sh fix CAUSE     fixes it as the guide says (nothing, when CAUSE is
#                          not the one set up)
#   guide.sh shell [NODE]  a shell in the finder (or dHOST), the built
#                          varnock and varnock-device first on its PATH
#
# Any verb may be given again, in any order. VARNOCK_BUILD is the build
# directory whose programs run (build/ of this tree by default, else PATH);
# VARNOCK_GUIDE_LAN the LAN's name ("guide").
set -euo pipefail

# shellcheck source=lab/lan/lib.sh
source "$(dirname "$0")/lib.sh"

lan=${VARNOCK_GUIDE_LAN:-guide}
build=${VARNOCK_BUILD:-$lab_dir/../../build}
[ -x "$build/app/varnock" ] && PATH=$(cd "$build" && pwd)/app:$(cd "$build" && pwd)/device:$PATH
state=/tmp/varnock-guide-$lan
mkdir -p "$state"
on() { ip netns exec "$(lan_ns "$lan" "$1")" "${@:2}"; }  # NODE COMMAND...
quiet() { "$@" >/dev/null 2>&1 || true; }

causes() {
  cat <<'EOF'
link-down       the finder's only link is down (a cable unplugged)
tentative       the link has just come up: its IPv6 address is still tentative
no-route        the finder has no default route, so the broadcast has no way out
two-links       the finder's default route leads to a second link (wlan0)
firewall        the finder drops incoming UDP but to the mDNS port
port-taken      another program holds UDP 4792 on the finder
http-blocked    a firewall drops the finder's HTTP requests (TCP 80)
router          Dorn-10 sits on 10.0.9.0/24, behind the router (host 5)
EOF
}

device() {  # HOST ARGS...: a varnock-device in dHOST that outlives this script, until it prints "ready"
  : >"$state/d$1.log"  # now, so that no "ready" of an earlier run is read
  setsid ip netns exec "$(lan_ns "$lan" "d$1")" varnock-device "${@:2}" >"$state/d$1.log" 2>&1 </dev/null &
  wait_ready "$state/d$1.log"
}

port_holder() { on finder ss -Hulpn 'sport = :4792' | sed -n 's/.*pid=\([0-9]*\).*/\1/p' | head -n 1; }

untentative() {  # waits until the finder has no tentative address
  local end=$((SECONDS + VARNOCK_WAIT))
  while [ -n "$(on finder ip addr show tentative)" ]; do
    [ "$SECONDS" -lt "$end" ] || die "an address still tentative after ${VARNOCK_WAIT}s (VARNOCK_WAIT)"
    sleep 0.1
  done
}

healthy() {  # undoes every cause and every fix: the LAN as `up` left it
  local pid br
  br=$(lan_ns "$lan" br)
  rm -f "$state/broken"
  quiet on finder nft delete table inet host
  quiet on finder nft delete table inet path
  quiet on finder ip link del wlan0
  quiet on finder sysctl -qw net.ipv6.conf.eth0.accept_dad=0
  on finder ip link set eth0 up
  quiet on finder ip route del 255.255.255.255/32
  quiet on finder ip route del 10.0.9.0/24
  on finder ip route replace default dev eth0
  untentative
  pid=$(port_holder)
  if [ -n "$pid" ]; then
    kill "$pid"
    while alive "$pid"; do sleep 0.05; done
  fi
  if ip -n "$br" link show br9 >/dev/null 2>&1; then
    ip -n "$br" link del r5
    ip -n "$br" link set d10 nomaster
    ip -n "$br" link set d10 master br0
    ip -n "$br" link del br9
    on d5 sysctl -qw net.ipv4.ip_forward=0
    on d10 ip addr flush dev eth0
    on d10 ip addr add 10.0.0.10/24 broadcast + dev eth0
    on d10 ip route replace default dev eth0
  fi
}

cmd_up() {
  [ ! -e "/run/netns/$(lan_ns "$lan" finder)" ] || { healthy; return 0; }
  command -v varnock-device >/dev/null || die "no varnock-device: build it (scripts/setup.sh) or install it"
  rm -f "$state"/*
  "$lan_sh" up "$lan" 5 10 12 20
  device 10 --name Dorn-10 --service 0:1 --no-http --no-mdns
  device 12 --name Ctrl-12 --no-service --no-mdns \
    --http-body "{\"data\":{\"name\":\"Ctrl-12\",\"version\":\"1.0.0\",\"device_type\":\"${device_types[2]}\"}}"
  device 20 --name Http-20 --no-morl
}

cmd_break() {
  healthy
  echo "$1" >"$state/broken"
  case "$1" in
    link-down) on finder ip link set eth0 down ;;
    tentative)
      # Duplicate address detection, on by default on real hosts (off in the
      # lab), keeps a new address tentative for a while after the link comes up.
      on finder sysctl -qw net.ipv6.conf.eth0.accept_dad=1 net.ipv6.conf.eth0.dad_transmits=5
      on finder ip link set eth0 down
      on finder ip link set eth0 up
      on finder ip route replace default dev eth0
      ;;
    no-route) on finder ip route del default ;;
    two-links)
      # The second link's far end stays in the finder: what leaves by it is lost.
      on finder ip link add wlan0 type veth peer name wlan0p
      on finder ip addr add 192.168.7.2/24 dev wlan0
      on finder ip link set wlan0p up
      on finder ip link set wlan0 up
      on finder ip route replace default via 192.168.7.1 dev wlan0 onlink
      ;;
    firewall)
      on finder nft -f - <<'EOF'
table inet host {
  chain input {
    type filter hook input priority filter; policy drop;
    iif lo accept
    ct state established,related accept
    meta l4proto ipv6-icmp accept
    udp dport 5353 accept
  }
}
EOF
      ;;
    port-taken)
      : >"$state/holder.log"
      setsid ip netns exec "$(lan_ns "$lan" finder)" varnock-device --no-mdns --no-http \
        >"$state/holder.log" 2>&1 </dev/null &
      wait_ready "$state/holder.log"
      ;;
    http-blocked)
      on finder nft -f - <<'EOF'
table inet path {
  chain output {
    type filter hook output priority filter;
    tcp dport 80 drop
  }
}
EOF
      ;;
    router)
      local br
      br=$(lan_ns "$lan" br)
      # A segment of its own: a second bridge with the device and the router's eth1.
      ip -n "$br" link add br9 type bridge stp_state 0 forward_delay 0
      ip -n "$br" link set br9 up
      ip -n "$br" link set d10 nomaster
      ip -n "$br" link set d10 master br9
      ip -n "$br" link add r5 type veth peer name eth1 netns "$(lan_ns "$lan" d5)"
      ip -n "$br" link set r5 master br9 up
      on d5 ip addr add 10.0.9.1/24 dev eth1
      on d5 ip link set eth1 up
      on d5 sysctl -qw net.ipv4.ip_forward=1
      on d10 ip addr flush dev eth0
      on d10 ip addr add 10.0.9.10/24 broadcast + dev eth0
      on d10 ip route add default via 10.0.9.1
      on finder ip route add 10.0.9.0/24 via 10.0.0.5
      ;;
  esac
}

cmd_fix() {
  if [ "$(cat "$state/broken" 2>/dev/null)" != "$1" ]; then
    echo "guide.sh: $1 is not broken now; nothing to fix" >&2
    return 0
  fi
  echo "$1 fixed" >"$state/broken"
  case "$1" in
    link-down)  # the host's network configuration, once the cable is back
      on finder ip link set eth0 up
      on finder ip route replace default dev eth0
      ;;
    tentative) untentative ;;
    no-route | two-links) on finder ip route replace 255.255.255.255/32 dev eth0 ;;
    firewall)
      on finder nft add rule inet host input udp dport 4792 accept
      on finder nft add rule inet host input udp sport 5353 accept
      ;;
    port-taken)
      local pid
      pid=$(port_holder)
      [ -z "$pid" ] || kill "$pid"
      while [ -n "$pid" ] && alive "$pid"; do sleep 0.05; done
      ;;
    http-blocked) on finder nft delete table inet path ;;
    router) on d5 ip route replace 255.255.255.255/32 dev eth1 ;;
  esac
}

usage="usage: guide.sh up|down|list|break CAUSE|fix CAUSE|shell [NODE]"
[ $# -ge 1 ] || die "$usage"
case "$1" in
  list) causes; exit 0 ;;
  break | fix)
    [ $# -eq 2 ] || die "$usage"
    causes | grep -q "^$2 " || die "unknown cause '$2'; guide.sh list names them"
    ;;
esac
need_root
[[ $1 == up || $1 == down || -e /run/netns/$(lan_ns "$lan" finder) ]] || die "no LAN $lan: guide.sh up builds it"
case "$1" in
  up) cmd_up ;;
  down) "$lan_sh" down "$lan"; rm -rf "$state" ;;
  break) cmd_break "$2" ;;
  fix) cmd_fix "$2" ;;
  shell) exec ip netns exec "$(lan_ns "$lan" "${2:-finder}")" bash ;;
  *) die "$usage" ;;
esac

#!/usr/bin/env bash
# The usual reasons a device is not listed, set up on a simulated LAN (lan.sh)
# and then fixed the way the README's "When a device is missing" says. Needs root.
#
#   faults.sh LAN break|fix CAUSE
#
#   link-down      the finder's only link is down (a cable unplugged); fixed by
#                  bringing it up with its default route, as the host's network
#                  configuration does when the cable is back
#   no-route       the finder has no default route, so the limited broadcast
#                  has no way out; fixed by a route for 255.255.255.255 on eth0
#   two-links      the finder's default route leads to a second link (wlan0),
#                  so the broadcast leaves by it; fixed the same way
#   firewall       the finder drops incoming UDP but the mDNS port, as a desktop
#                  firewall does; fixed by accepting MORL (to 4792) and mDNS
#                  answers (from 5353)
#   port-taken     another program holds UDP 4792 on the finder (a
#                  varnock-device: $VARNOCK_DEVICE, or the one on PATH); fixed
#                  by stopping the program that ss names
#   http-blocked   a firewall drops the finder's HTTP requests (TCP 80); fixed
#                  by taking it away
#   router         device host 10 sits on 10.0.9.0/24 behind host 5, which
#                  routes; fixed by giving host 5, a host of that segment, a
#                  route for the broadcast to it (varnock then runs there)
set -euo pipefail

# shellcheck source=lab/lib.sh
source "$(dirname "$0")/lib.sh"

[ $# -eq 3 ] || die "usage: faults.sh LAN break|fix CAUSE"
lan=$1 verb=$2 cause=$3
need_root
on() { ip netns exec "$(lan_ns "$lan" "$1")" "${@:2}"; }  # NODE COMMAND...
[ -e "/run/netns/$(lan_ns "$lan" finder)" ] || die "no LAN $lan"

case "$verb $cause" in
  "break link-down") on finder ip link set eth0 down ;;
  "fix link-down")
    on finder ip link set eth0 up
    on finder ip route add default dev eth0
    ;;
  "break no-route") on finder ip route del default ;;
  "fix no-route" | "fix two-links") on finder ip route add 255.255.255.255/32 dev eth0 ;;
  "break two-links")
    # The second link's far end stays in the finder: what leaves by it is lost.
    on finder ip link add wlan0 type veth peer name wlan0p
    on finder ip addr add 192.168.7.2/24 dev wlan0
    on finder ip link set wlan0p up
    on finder ip link set wlan0 up
    on finder ip route replace default via 192.168.7.1 dev wlan0 onlink
    ;;
  "break firewall")
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
  "fix firewall")
    on finder nft add rule inet host input udp dport 4792 accept
    on finder nft add rule inet host input udp sport 5353 accept
    ;;
  "break port-taken")
    on finder "${VARNOCK_DEVICE:-varnock-device}" --no-mdns --no-http >/dev/null 2>&1 &
    for _ in $(seq 100); do
      [ -z "$(on finder ss -Hlun 'sport = :4792')" ] || exit 0
      sleep 0.05
    done
    die "nothing holds UDP 4792"
    ;;
  "fix port-taken")
    pid=$(on finder ss -Hulpn 'sport = :4792' | sed -n 's/.*pid=\([0-9]*\).*/\1/p')
    [ -n "$pid" ] || die "nothing holds UDP 4792"
    kill "$pid"
    while kill -0 "$pid" 2>/dev/null; do sleep 0.05; done
    ;;
  "break http-blocked")
    on finder nft -f - <<'EOF'
table inet path {
  chain output {
    type filter hook output priority filter;
    tcp dport 80 drop
  }
}
EOF
    ;;
  "fix http-blocked") on finder nft delete table inet path ;;
  "break router")
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
  "fix router") on d5 ip route add 255.255.255.255/32 dev eth1 ;;
  *) die "unknown: $verb $cause" ;;
esac

#!/usr/bin/env bash
# Runs avahi-daemon in node NODE of the simulated LAN LAN, announcing one
# "_http._tcp" service on PORT under HOST-NAME, and prints "ready" once the
# service is announced. It gets a mount namespace of its own with a private
# /run and its own services folder, so any number of them can run side by side
# and none touches the machine's own avahi. Runs in the foreground; SIGTERM
# stops avahi, and its folder is removed.
#   mdns-responder.sh LAN NODE HOST-NAME [PORT]
set -euo pipefail
# shellcheck source=lab/lan/lib.sh
source "$(dirname "$0")/../lan/lib.sh"
[ $# -ge 3 ] || die "usage: mdns-responder.sh LAN NODE HOST-NAME [PORT]"
ns=$(lan_ns "$1" "$2") host=$3 port=${4:-80}
[ -e "/run/netns/$ns" ] || die "no namespace $ns"
clean_up_on_exit
dir=$work
mkdir -p "$dir/services"
cat >"$dir/avahi-daemon.conf" <<CONF
[server]
host-name=$host
domain-name=local
use-ipv4=yes
use-ipv6=yes
allow-interfaces=eth0
enable-dbus=no
ratelimit-interval-usec=0
ratelimit-burst=1000
[wide-area]
enable-wide-area=no
[publish]
publish-hinfo=no
publish-workstation=no
publish-aaaa-on-ipv4=no
publish-a-on-ipv6=no
[reflector]
[rlimits]
CONF
cat >"$dir/services/http.service" <<SVC
<?xml version="1.0" standalone='no'?>
<!DOCTYPE service-group SYSTEM "avahi-service.dtd">
<service-group>
  <name>$host</name>
  <service><type>_http._tcp</type><port>$port</port></service>
</service-group>
SVC
# avahi's log passes through; the line that says the service is announced is
# followed by "ready".
announced() {
  local line
  while IFS= read -r line; do
    printf '%s\n' "$line"
    [[ $line != *"successfully established"* ]] || echo ready
  done
}
# shellcheck disable=SC2016  # $1 is the inner shell's: the folder passed to it
ip netns exec "$ns" unshare --mount -- sh -c '
  mount --make-rprivate / &&
  mount -t tmpfs -o size=1m varnock-avahi /run &&
  mkdir -p /run/avahi-daemon &&
  mount --bind "$1/services" /etc/avahi/services &&
  exec avahi-daemon --file="$1/avahi-daemon.conf" --no-drop-root --no-chroot --no-rlimits
' sh "$dir" > >(announced) 2>&1 &
lab_pids+=($!)
wait $!

#!/usr/bin/env bash
# Runs avahi-daemon inside network namespace NS, announcing one "_http._tcp"
# service on PORT under HOST-NAME. It gets a mount namespace of its own with a
# private /run and its own services folder, so any number of them can run side
# by side and none touches the machine's own avahi. Runs in the foreground.
#   mdns-responder.sh NS HOST-NAME [PORT]
set -euo pipefail
ns=$1 host=$2 port=${3:-80}
[ -e "/run/netns/$ns" ] || { echo "mdns-responder.sh: no namespace $ns" >&2; exit 2; }
dir=$(mktemp -d /tmp/varnock-avahi.XXXXXX)
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
trap 'rm -rf "$dir"' EXIT
ip netns exec "$ns" unshare --mount -- sh -c '
  mount --make-rprivate / &&
  mount -t tmpfs -o size=1m varnock-avahi /run &&
  mkdir -p /run/avahi-daemon &&
  mount --bind "$1/services" /etc/avahi/services &&
  exec avahi-daemon --file="$1/avahi-daemon.conf" --no-drop-root --no-chroot --no-rlimits
' sh "$dir" &
child=$!
trap 'kill -TERM $child 2>/dev/null; wait $child; rm -rf "$dir"' EXIT TERM INT
wait $child

#!/usr/bin/env bash
# Runs a command in fresh mount and PID namespaces with a private /run/netns,
# so every network namespace and process it leaves behind vanishes with it,
# even when it is killed. Without root it runs the command as it is (tests that
# need the simulated LAN then skip themselves). Scripts run themselves here
# through lib.sh's isolate; VARNOCK_ISOLATED tells them they are inside.
#   isolated.sh COMMAND...
set -euo pipefail
# shellcheck source=lab/lan/lib.sh
source "$(dirname "$0")/lib.sh"
if ! have_root || ! command -v unshare >/dev/null; then exec "$@"; fi
mkdir -p /run/netns
export VARNOCK_ISOLATED=1
exec unshare --mount --pid --fork --kill-child --mount-proc -- \
  sh -c 'mount --make-rprivate / && mount -t tmpfs -o size=1m varnock-netns /run/netns && exec "$@"' sh "$@"

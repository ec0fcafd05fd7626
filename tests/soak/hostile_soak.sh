#!/usr/bin/env bash
# Hostile-LAN soak (docs/testing.md): `varnock -M 2 -T 3 --json` among five
# valid devices (a site in d10) while d30 sends MORL junk (and 1 % well-formed
# requests) at MORL_RATE a second, d31 malformed mDNS replies for FLOOD s and
# replies from SPOOFED addresses of the /20 (10.0.4.1 on; their HTTP requests
# go to d31, which drops them), and d20-d23 answer HTTP badly. Every run must
# exit 0 with nothing on standard error, list exactly the valid devices, end
# within the waits plus the 15 s of HTTP deadlines after the last mDNS flood
# packet (+1 s), stay within the RSS and thread bounds, and see the attacks
# delivered. One more run of the first build caps its threads at THREAD_CAP.
# The hosts share the machine's cores, so the valid devices run at nice -10 and
# the attackers at -5, lest a starved device drop the finder's request or a
# starved attacker fall short of its rate. Runs itself inside
# lab/lan/isolated.sh. Needs root. Builds with AddressSanitizer run with
# ASAN_OPTIONS=detect_leaks=1:abort_on_error=1.
#   tests/soak/hostile_soak.sh [--runs N] [--flood SECONDS] BUILD [BUILD...]
set -euo pipefail
# shellcheck source=lab/lan/lib.sh
source "$(dirname "$0")/../../lab/lan/lib.sh"
runs=5 flood=10
while [ $# -gt 0 ]; do
  case "$1" in --runs) runs=$2 ;; --flood) flood=$2 ;; *) break ;; esac
  shift 2
done
[ $# -ge 1 ] || die "usage: $0 [--runs N] [--flood SECONDS] BUILD [BUILD...]"
need_root
builds=()
for b in "$@"; do
  for exe in app/varnock device/varnock-device lab/varnock-hostile; do
    [ -x "$b/$exe" ] || die "build $exe in $b first"
  done
  builds+=("$(cd "$b" && pwd)")
done
isolate --runs "$runs" --flood "$flood" "${builds[@]}"

MDNS_WAIT=2 MORL_WAIT=3 MORL_RATE=15000 MDNS_RATE=10000 SPOOFED=2000 THREAD_CAP=600
lan=soak
tools=${builds[0]}
clean_up_on_exit
say() { printf '%s\n' "$*"; }
failures=0
fail() { say "  FAIL: $*"; failures=$((failures + 1)); }

# Valid devices, one site in d10 (one varnock-device process answering MORL,
# HTTP and mDNS from each device's own address): MORL with the type from MORL
# (.10 also by mDNS), "uknown" kept as it is (.13), and one found by mDNS and
# asked over HTTP (.14).
valid=(10 11 12 13 14)
hostile_http=(20 21 22 23)
lan_up "$lan" --prefix 20 "$(IFS=,; echo "${valid[*]}")" "${hostile_http[@]}" 30 31 >/dev/null
ip() { host_addr 10.0.0 "$1"; }
node() {  # HOST LOG ARGS...: run in the background in dHOST
  start_in "$lan" "d$1" "$work/$2" "${@:3}"
}
cat >"$work/site.json" <<JSON
{"devices": [
  {"address": "$(ip 10)", "name": "Dorn-Hall", "software-version": "1.0.3", "services": ["0:7"]},
  {"address": "$(ip 11)", "name": "Brask-Gate", "software-version": "2.0.0", "services": ["1:1"], "http": false},
  {"address": "$(ip 12)", "name": "Fell-Lab", "software-version": "0.9.8", "services": ["3:1", "4:2"], "http": false},
  {"address": "$(ip 13)", "name": "Odd-One", "software-version": "7.7", "services": ["7:1"], "http": false},
  {"address": "$(ip 14)", "name": "Pallor-Main", "software-version": "2.4.1", "services": ["2:1"], "morl": false}
]}
JSON
node 10 d10.log nice -n -10 "$tools/device/varnock-device" --site "$work/site.json"
expected=$(printf '%s\n' "$(ip 10) Dorn-Hall 1.0.3 ${device_types[0]}" \
  "$(ip 11) Brask-Gate 2.0.0 ${device_types[1]}" "$(ip 12) Fell-Lab 0.9.8 ${device_types[4]}" \
  "$(ip 13) Odd-One 7.7 uknown" "$(ip 14) Pallor-Main 2.4.1 ${device_types[2]}")

# Misbehaving HTTP hosts; they end by themselves when the soak's time is up.
budget=$(((flood + MDNS_WAIT + 25) * (runs * ${#builds[@]} + 1) + 60))
modes=(garbage close slow never)
for i in 0 1 2 3; do
  node "${hostile_http[$i]}" "d${hostile_http[$i]}.log" python3 "$lab_dir/../hosts/bad-http.py" "${modes[$i]}" "$budget"
done
ready=()
for h in "${hostile_http[@]}"; do
  start_responder "$lan" "$h" "soak$h" "$work/avahi$h.log"
  ready+=("$work/avahi$h.log")
done
for h in 10 "${hostile_http[@]}"; do ready+=("$work/d$h.log"); done
wait_ready "${ready[@]}"

# Spoofed addresses: SPOOFED usable hosts of the /20 from 10.0.4.1 (host 1025)
# on. The finder reaches every one through d31, without resolving it.
mapfile -t spoofed < <(host_list "$SPOOFED" 1025)
mapfile -t spoofed < <(host_addr 10.0.0 "${spoofed[@]}")
printf '%s\n' "${spoofed[@]}" | sed "s/.*/neigh replace & lladdr $(host_mac 31) dev eth0 nud permanent/" \
  >"$work/spoofed.batch"
in_node "$lan" finder ip -batch "$work/spoofed.batch"

counters() { for n in finder d10; do printf '%s ' "$(node_counters "$lan" "$n" Udp:RcvbufErrors)"; done; }

# Thread bound: while the records are asked, the main thread, four I/O
# threads and one thread per record asked (the discovery threads have ended);
# a record per spoofed address and at most one per other LAN node (11), plus
# the one that every IPv6 sender collapses into ("[fe80"). Exact, not a guess.
thread_bound=$((SPOOFED + 11 + 1 + 5))
# RSS bound: a base plus a cost per request thread (the stack pages it
# touches, its stream, buffers and allocator caches), each about twice what
# the soak measures (plain: about 8 MiB + 11 KiB a thread; with AddressSanitizer
# about 20 MiB + 135 KiB a thread).
rss_bound() {  # VARNOCK: in KiB
  if nm "$1" 2>/dev/null | grep __asan_init >/dev/null; then echo $((48 * 1024 + thread_bound * 256))
  else echo $((16 * 1024 + thread_bound * 24)); fi
}

# One attacked run; CAP > 0 caps the process's threads (pid_max of a PID namespace).
run() {  # BUILD LABEL CAP
  local b=$1 label=$2 cap=$3 out="$work/$2" verbose=()
  mkdir -p "$out"
  [ "$cap" -gt 0 ] && verbose=(-v)
  local before load
  before=$(counters)
  load=$(cut -d' ' -f1-3 /proc/loadavg)
  node 30 "$label.morl" nice -n -5 "$tools/lab/varnock-hostile" morl "$(ip 1)" "$MORL_RATE" $((flood + MDNS_WAIT + 25)) 1
  local morl_pid=$!
  node 31 "$label.mdns" nice -n -5 "$tools/lab/varnock-hostile" mdns "$(ip 1)" "$MDNS_RATE" "$flood" "${spoofed[0]}" "$SPOOFED"
  local mdns_pid=$!
  sleep 0.2
  local cmd=(/usr/bin/time -f "%x %e %U %S %M" -o "$out/time" "$b/app/varnock" -M "$MDNS_WAIT"
    -T "$MORL_WAIT" --json "${verbose[@]}")
  [ "$cap" -gt 0 ] && cmd=(unshare --pid --fork --mount --mount-proc sh -c
    "echo $cap >/proc/sys/kernel/pid_max && exec \"\$@\"" sh "${cmd[@]}")
  local start end p
  start=$(date +%s.%N)
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
    in_node "$lan" finder "${cmd[@]}" >"$out/out" 2>"$out/err" &
  local runner=$!
  (sleep "$MORL_WAIT.2" && counters >"$out/mid") &
  local mid=$!
  python3 "$lab_dir/peak-threads.py" "$runner" >"$out/threads" &
  local sampler=$!
  wait "$runner" || true
  end=$(date +%s.%N)
  for p in "$sampler" "$mid" "$mdns_pid"; do wait "$p" || true; done
  kill -TERM "$morl_pid" 2>/dev/null || true
  wait "$morl_pid" || true
  local after status wall user sys rss threads last
  after=$(counters)
  read -r status wall user sys rss < <(tail -1 "$out/time") || status=-1
  threads=$(cat "$out/threads")
  last=$(sed -n 's/.*last=\([0-9.]*\).*/\1/p' "$work/$label.mdns")
  say "$label: exit $status, wall ${wall:-?} s, CPU ${user:-?} + ${sys:-?} s, peak RSS $((${rss:-0} / 1024)) MiB," \
    "peak threads $threads; load average $load before, $(cut -d' ' -f1-3 /proc/loadavg) after"
  say "  $(cat "$work/$label.morl")"
  say "  $(cat "$work/$label.mdns")"
  local a m z early="" late="" i
  read -ra a <<<"$after"
  read -ra m <"$out/mid" || true
  read -ra z <<<"$before"
  for i in "${!a[@]}"; do early+="$((m[i] - z[i])) " late+="$((a[i] - m[i])) "; done
  say "  UDP receive-buffer drops (finder, the valid devices' site) during the MORL wait: $early; after it: $late"
  [ "$status" = 0 ] || fail "exit status $status"
  if [ -s "$out/err" ]; then fail "standard error:"; head -20 "$out/err"; fi
  local listed
  listed=$(sed -n '/^{/,$p' "$out/out" | python3 -c '
import json, sys
for d in json.load(sys.stdin)["devices"]: print(d["ip"], d["name"], d["version"], d["device_type"])' | sort) ||
    listed="(no JSON)"
  [ "$listed" = "$(sort <<<"$expected")" ] || { fail "listed:"; say "$listed"; }
  if [ -n "$last" ]; then
    local over
    over=$(python3 -c "print(round($end - max($start + $MORL_WAIT, $last + $MDNS_WAIT) - 15, 2))")
    say "  ended $(python3 -c "print(round($end - $last, 2))") s after the last mDNS flood packet ($over s past the waits + 15 s)"
    python3 -c "import sys; sys.exit($over > 1)" || fail "ended too late"
  else
    fail "the mDNS attack never started"
  fi
  local morl_rate
  morl_rate=$(sed -n 's/.*(\([0-9]*\)\/s, half.*/\1/p' "$work/$label.morl")
  [ "${morl_rate:-0}" -ge 10000 ] || fail "MORL attack at ${morl_rate:-0}/s, below 10,000/s"
  if [ "$cap" -gt 0 ]; then
    local skipped
    skipped=$(grep -c "^Error when opening socket to .*: Resource temporarily unavailable" "$out/out" || true)
    say "  threads capped at $cap: $skipped request threads could not start (logged and skipped)"
    [ "$skipped" -gt 0 ] || fail "no request thread was refused: the cap did not bite"
    [ "$threads" -le "$cap" ] || fail "more threads ($threads) than the cap"
  else
    local bound
    bound=$(rss_bound "$b/app/varnock")
    [ "$threads" -ge "$SPOOFED" ] || fail "only $threads threads: the spoofed records were not asked at once"
    [ "$threads" -le "$thread_bound" ] || fail "peak threads $threads above the bound $thread_bound"
    [ "${rss:-0}" -le "$bound" ] || fail "peak RSS ${rss:-0} KiB above the bound $bound KiB"
    say "  bounds: threads $thread_bound, RSS $((bound / 1024)) MiB"
  fi
}

say "hostile LAN: finder $(ip 1), valid ${valid[*]} (a site in d10), bad HTTP ${hostile_http[*]/#/d}, attackers d30 d31;" \
  "$runs run(s) per build, mDNS flood $flood s"
for b in "${builds[@]}"; do
  for r in $(seq "$runs"); do run "$b" "$(basename "$b")-$r" 0; done
done
run "${builds[0]}" "$(basename "${builds[0]}")-capped" "$THREAD_CAP"
if [ "$failures" -gt 0 ]; then say "hostile_soak: $failures check(s) failed"; exit 1; fi
say "hostile_soak: every check passed"

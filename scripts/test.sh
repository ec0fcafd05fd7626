#!/usr/bin/env bash
# Installs what is needed, builds, and runs every test: the plain build (with
# line and branch coverage of each product folder), the
# AddressSanitizer + UndefinedBehaviorSanitizer build (with the fuzz targets,
# each run for a bounded time), the ThreadSanitizer build of the threaded
# parts, the formatting and shell lint, the Debian package's checks, a short
# soak of varnock on a simulated LAN whose other hosts attack it, a load
# check on a LAN of 600 devices, and a check that the LAN scripts stop cleanly
# when interrupted. Run as root: the network tests build their own namespaces
# (without root they skip themselves).
#   scripts/test.sh [fuzz-seconds-per-target]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
fuzz_seconds=${1:-20}
out="$root/build-ci"
cd "$root"

step() { printf '\n== %s (%ss)\n' "$*" "$SECONDS"; }

step "setup"
bash scripts/setup.sh --no-build

# The dissector's checks run with Debian 13's tshark 4.4 (Lua 5.4) too, in a root
# of that release; under CI they fail without it.
step "Debian 13 root with tshark 4.4"
if [ "$(id -u)" -eq 0 ]; then
  VARNOCK_TSHARK44_ROOT=$(bash scripts/debian-root.sh trixie trixie-tshark tshark)
  export VARNOCK_TSHARK44_ROOT
elif [ -n "${CI:-}" ]; then
  echo "CI must run as root: the dissector is checked with tshark 4.4 in a Debian 13 root" >&2
  exit 1
else
  echo "not root: the dissector is checked with this host's tshark only"
fi

step "format and shell lint"
git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run --Werror
git ls-files -z | xargs -0 file --mime-type | sed -n 's/: *text\/x-shellscript$//p' | xargs shellcheck -x

# CTest's own summary line closes each run.
run_ctest() {  # DIR [ctest args]
  local dir=$1; shift
  (cd "$dir" && ctest -j2 --output-on-failure --timeout 120 "$@")
}

# The plain suite runs in a clang build instrumented for source-based coverage;
# the varnock and varnock-device processes the tests start write profiles too.
step "plain build (coverage)"
cmake -S . -B "$out/plain" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ \
  -DVARNOCK_WERROR=ON -DVARNOCK_COVERAGE=ON -DVARNOCK_BENCH=OFF >/dev/null
cmake --build "$out/plain" -j2
step "plain tests"
rm -rf "$out/plain/profiles"
LLVM_PROFILE_FILE="$out/plain/profiles/%4m.profraw" run_ctest "$out/plain"
step "coverage"
bash scripts/coverage.sh "$out/plain"

step "AddressSanitizer + UndefinedBehaviorSanitizer build"
cmake -S . -B "$out/asan" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_CXX_FLAGS=-O1 -DVARNOCK_WERROR=ON -DVARNOCK_SANITIZE_ADDRESS=ON -DVARNOCK_FUZZ=ON \
  -DVARNOCK_BENCH=OFF >/dev/null
cmake --build "$out/asan" -j2
# The shown sessions and the dissector's checks read documents and the dissector,
# not varnock's memory or threads: the plain suite runs them.
wire_and_guide='^(ShownSessions|MorlCapture|MorlDissector)'
step "AddressSanitizer + UndefinedBehaviorSanitizer tests"
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
  run_ctest "$out/asan" -E "$wire_and_guide"
step "fuzzing, ${fuzz_seconds}s per target"
bash fuzz/run.sh "$out/asan" "$fuzz_seconds"

step "ThreadSanitizer build (threaded parts)"
cmake -S . -B "$out/tsan" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_CXX_FLAGS=-O1 -DVARNOCK_WERROR=ON -DVARNOCK_SANITIZE_THREAD=ON -DVARNOCK_BENCH=OFF >/dev/null
tsan_targets=(app_test morl_test http_test varnock varnock-device)
cmake --build "$out/tsan" -j2 --target "${tsan_targets[@]}"
step "ThreadSanitizer tests"
TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 run_ctest "$out/tsan" -L '^(app_test|morl_test|http_test)$' \
  -E "$wire_and_guide"

step "Debian package"
bash scripts/check-package.sh "$out/deb"

# The LAN scripts exit 77 when they cannot run (not root).
lan_test() {  # SCRIPT ARGS...
  local status=0
  LLVM_PROFILE_FILE=/dev/null bash "$@" || status=$?
  [ "$status" -ne 77 ] || { echo "$1: not run"; status=0; }
  return "$status"
}

# varnock, plain and with the sanitizers, on a LAN whose other hosts attack it.
step "hostile LAN soak"
lan_test tests/soak/hostile_soak.sh --runs 1 --flood 3 "$out/plain" "$out/asan"

# Capacity and speed: 500 MORL and 100 mDNS/HTTP devices, three runs.
step "load check"
lan_test tests/load/load_check.sh "$out/plain"

# The demo, the load check and the soak, interrupted at several moments, stop at once and leave nothing.
step "interruptions"
lan_test tests/interrupt/interrupt_check.sh "$out/plain"

step "all passed"

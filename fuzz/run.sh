#!/usr/bin/env bash
# Runs every libFuzzer target built in BUILD_DIR/fuzz for SECONDS each, seeded
# from fuzz/corpus/<target> when that folder exists. The corpus is copied to a
# temporary folder first, so the repository is never changed. Fails on the
# first target that finds a crash, a leak or a sanitizer report.
#   fuzz/run.sh BUILD_DIR SECONDS
set -euo pipefail

if [ $# -ne 2 ]; then
  echo "usage: $0 BUILD_DIR SECONDS" >&2
  exit 2
fi
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "$1" && pwd)
seconds=$2

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

targets=()
while IFS= read -r -d '' exe; do
  targets+=("$exe")
done < <(find "$build/fuzz" -maxdepth 1 -type f -perm -u+x -print0 2>/dev/null | sort -z)

if [ ${#targets[@]} -eq 0 ]; then
  echo "fuzz: no fuzz targets in $build/fuzz (configure with -DVARNOCK_FUZZ=ON)" >&2
  exit 1
fi

# One target; its report goes to $work/NAME/report, and a finding leaves
# $work/NAME/failed.
fuzz_one() {  # EXE
  local exe=$1 name corpus artifacts log a
  name=$(basename "$exe")
  corpus="$work/$name/corpus"
  artifacts="$work/$name/artifacts"
  mkdir -p "$corpus" "$artifacts"
  if [ -d "$root/fuzz/corpus/$name" ]; then
    cp -R "$root/fuzz/corpus/$name/." "$corpus/"
  fi
  log="$work/$name/log"
  {
    echo "== $name: ${seconds}s, $(find "$corpus" -type f | wc -l) seeds"
    if ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1} \
       "$exe" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
         -artifact_prefix="$artifacts/" "$corpus" >"$log" 2>&1; then
      grep -E '^(#[0-9]+.*DONE|stat::number_of_executed_units|Done [0-9]+ runs)' "$log" || true
    else
      tail -n 60 "$log"
      for a in "$artifacts"/*; do
        [ -e "$a" ] || continue
        echo "-- failing input $(basename "$a") (hex):"
        od -An -tx1 -v "$a" | head -n 20
      done
      touch "$work/$name/failed"
    fi
  } >"$work/$name/report" 2>&1
}

# Two targets at a time, one a core: each still runs single-threaded for SECONDS.
failed=()
for ((i = 0; i < ${#targets[@]}; i += 2)); do
  pair=("${targets[@]:i:2}")
  for exe in "${pair[@]}"; do fuzz_one "$exe" & done
  wait
  for exe in "${pair[@]}"; do
    name=$(basename "$exe")
    cat "$work/$name/report"
    [ ! -e "$work/$name/failed" ] || failed+=("$name")
  done
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz: findings in ${failed[*]}" >&2
  exit 1
fi
echo "fuzz: ${#targets[@]} targets ran ${seconds}s each without findings"

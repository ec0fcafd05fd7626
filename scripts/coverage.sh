#!/usr/bin/env bash
# Line and branch coverage of each product folder for the test suite, from a
# build configured with -DVARNOCK_COVERAGE=ON whose tests have been run with
# LLVM_PROFILE_FILE=BUILD_DIR/profiles/%4m.profraw (the spawned varnock and
# varnock-device processes write there too).
#   scripts/coverage.sh BUILD_DIR
set -euo pipefail
build=$(cd "$1" && pwd)
root=$(cd "$(dirname "$0")/.." && pwd)
llvm-profdata-14 merge -sparse "$build"/profiles/*.profraw -o "$build/coverage.profdata"
objects=()
while IFS= read -r exe; do objects+=(-object "$exe"); done < <(
  find "$build/app" "$build/device" "$build/tests" -type f -perm -u+x -name '*[a-z]' | sort)
llvm-cov-14 export -summary-only -instr-profile "$build/coverage.profdata" "${objects[@]:1}" \
  >"$build/coverage.json"
python3 - "$build/coverage.json" "$root" <<'PY'
import json, sys
data, root = json.load(open(sys.argv[1])), sys.argv[2] + "/"
folders = ["app", "qm", "morl", "mdns", "http", "device", "lab"]
sums = {f: [0, 0, 0, 0] for f in folders}
for entry in data["data"][0]["files"]:
    rel = entry["filename"].removeprefix(root)
    top = rel.split("/")[0]
    if top in sums:
        s = entry["summary"]
        for i, (kind, key) in enumerate([("lines", "covered"), ("lines", "count"),
                                         ("branches", "covered"), ("branches", "count")]):
            sums[top][i] += s[kind][key]
pct = lambda a, b: f"{100.0 * a / b:5.1f} %" if b else "    -  "
print(f"{'folder':8} {'lines':>8} {'covered':>9} {'branches':>9} {'covered':>9}")
total = [0, 0, 0, 0]
for f in folders:
    lc, ln, bc, bn = sums[f]
    total = [t + v for t, v in zip(total, sums[f])]
    print(f"{f:8} {ln:8} {pct(lc, ln):>9} {bn:9} {pct(bc, bn):>9}")
lc, ln, bc, bn = total
print(f"{'all':8} {ln:8} {pct(lc, ln):>9} {bn:9} {pct(bc, bn):>9}")
PY

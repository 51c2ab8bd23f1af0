#!/bin/bash
# Branch coverage of the library and its platform layer by the unit tests, without the branches of exceptions.
#
#   scripts/coverage.sh BUILD_DIR [LEAST_PERCENT]      97 when no figure is given
#
# Branches that are left out by a marker in the source are counted and printed; there may be 25 at most.
set -euo pipefail
build=$1 least=${2:-97}
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
mkdir -p "$build"
build=$(realpath "$build")
if ! {
    cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DRUK_COVERAGE=ON -DRUK_BUILD_TOOLS=OFF \
        -DRUK_BUILD_BENCH=OFF && cmake --build "$build" -j 2 --target tests/unit/all
} >"$build/build.log" 2>&1; then
    grep -E -A 12 'error|FAILED|Error' "$build/build.log" | head -n 60 || tail -n 40 "$build/build.log"
    exit 1
fi
find "$build" -name '*.gcda' -delete
status=0
# Those of the request tap reach nothing of the library, and counting slows their races down.
ctest --test-dir "$build/tests/unit" -j 6 --timeout 300 -E 'Tap' >"$build/ctest.log" 2>&1 || status=$?
if ((status)); then
    grep -E 'Failed|Timeout|tests passed' "$build/ctest.log" | tail -n 20
    exit 1
fi
gcovr --root "$root" --filter "$root/libruk/" --filter "$root/common/" --exclude-throw-branches --branches --json-summary-pretty --json-summary "$build/coverage.json" \
    --txt "$build/coverage.txt" "$build" >"$build/gcovr.log" 2>&1 || {
    tail -n 20 "$build/gcovr.log"
    exit 1
}
excluded=$({ grep -rhoE 'GCOVR_EXCL_BR_LINE|GCOVR_EXCL_LINE' "$root/libruk" "$root/common" || true; } | wc -l)
# A block would hide any number of branches.
if grep -rqE 'GCOVR_EXCL_(BR_)?START' "$root/libruk" "$root/common"; then
    echo "coverage: mark single lines, not blocks"
    exit 1
fi
python3 - "$build/coverage.json" "$least" "$excluded" <<'PY'
import json, sys
summary, least, excluded = json.load(open(sys.argv[1])), float(sys.argv[2]), int(sys.argv[3])
for f in sorted(summary["files"], key=lambda f: f["branch_percent"] if f["branch_total"] else 100):
    if f["branch_total"] and f["branch_covered"] < f["branch_total"]:
        print(f"{f['branch_percent']:6.1f} %  {f['branch_covered']:4} of {f['branch_total']:4}  {f['filename']}")
percent = 100 * summary["branch_covered"] / summary["branch_total"]
print(f"branches: {summary['branch_covered']} of {summary['branch_total']}, {percent:.2f} %; lines: "
      f"{summary['line_percent']} %; left out by markers: {excluded}")
sys.exit(0 if percent >= least and excluded <= 25 else 1)
PY

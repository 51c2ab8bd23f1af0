#!/bin/bash
# Runs a moment of every case and fails unless each that the host allows gave numbers.
#
#   run_tiny.sh PROGRAM
set -euo pipefail
"$1" --tiny --json | python3 -c '
import json, sys
report = json.load(sys.stdin)
assert report["machine"]["processors"] > 0
cases = {case["name"]: case for case in report["cases"]}
assert {"receive_64", "send_64", "copy_sum_1400", "pair_64", "veth_64"} <= cases.keys(), sorted(cases)
for name, case in cases.items():
    if "skipped" in case:
        assert name in ("pair_64", "veth_64", "dpdk"), case
        print(name, "skipped:", case["skipped"])
        continue
    assert 0 < case["min"] <= case["ns"] <= case["max"], case
    assert ("must" in case) == ("met" in case), case
    assert "floor_ns" not in case or case["floor_ns"] > 0, case
print(len(cases), "cases")
'

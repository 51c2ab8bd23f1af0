#!/bin/bash
# Runs a moment of every case and fails unless each that the host allows gave numbers.
#
#   run_tiny.sh PROGRAM             DPDK is left out
#   run_tiny.sh PROGRAM --dpdk      and its cases have to give numbers too
set -euo pipefail
"$@" --tiny --json | python3 -c '
import json, sys
dpdk = sys.argv[1:] == ["--dpdk"]
report = json.load(sys.stdin)
assert report["machine"]["processors"] > 0
cases = {case["name"]: case for case in report["cases"]}
expected = {"receive_64", "send_64", "copy_sum_1400", "pair_64", "veth_64"}
expected |= {"dpdk_receive_burst_64", "dpdk_receive_hash_1400", "dpdk_send_64"} if dpdk else {"dpdk"}
assert expected <= cases.keys(), sorted(cases)
assert dpdk or cases["dpdk"]["skipped"].startswith("not "), cases["dpdk"]
for name, case in cases.items():
    if "skipped" in case:
        assert name in ("pair_64", "veth_64", "veth_64_beside", "dpdk"), case
        print(name, "skipped:", case["skipped"])
        continue
    assert 0 < case["min"] <= case["ns"] <= case["max"], case
    assert ("must" in case) == ("met" in case), case
    assert "floor_ns" not in case or case["floor_ns"] > 0, case
print(len(cases), "cases")
' "${@:2}"

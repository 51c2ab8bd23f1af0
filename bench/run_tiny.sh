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
expected = set("""receive_64 receive_1400 receive_64_five_an_event receive_1400_five_an_event receive_64_cold
    receive_1400_cold receive_64_dated receive_64_all_tags send_64 send_1400 send_64_dma send_1400_dma sendto_64
    sendto_1400 sendto_64_dma sendto_1400_dma copy_sum_1400 memcpy_1400 face_receive_64 face_send_64 pair_64
    kernel_recvfrom_64 kernel_send_64 kernel_recvfrom_1400 kernel_send_1400 veth_64 veth_64_beside""".split())
targets = {"receive_64": 1.5, "receive_1400": 1.2, "receive_64_five_an_event": 1, "receive_64_cold": 1.5,
           "receive_64_dated": 1.3, "receive_64_all_tags": 1.1, "send_64": 2, "send_1400": 1.15, "sendto_64": 8,
           "copy_sum_1400": 0.85, "face_receive_64": 1.15, "face_send_64": 1.1, "pair_64": 1.5, "veth_64": 1.25}
kept = {"at most": lambda value, must: value <= must, "at least": lambda value, must: value >= must,
        "below": lambda value, must: value < must}
expected |= {"dpdk_receive_burst_64", "dpdk_receive_hash_1400", "dpdk_send_64"} if dpdk else {"dpdk"}
assert expected <= cases.keys(), sorted(cases)
assert dpdk or cases["dpdk"]["skipped"].startswith("not "), cases["dpdk"]
for name, case in cases.items():
    if "skipped" in case:
        assert name in ("pair_64", "dpdk") or name.startswith(("veth_", "kernel_")), case
        print(name, "skipped:", case["skipped"])
        continue
    assert 0 < case["min"] <= case["ns"] <= case["max"], case
    assert case.get("must") == targets.get(name), case
    if name in targets:
        judged = case.get("difference_ns", case["ratio"])
        assert case["met"] == kept[case["bound"]](judged, case["must"]) or abs(judged - case["must"]) < 0.001, case
    assert "floor_ns" not in case or case["floor_ns"] > 0, case
print(len(cases), "cases")
' "${@:2}"

#!/usr/bin/env python3
"""What the programs print with --json is as docs/json has it, and the schemas let nothing else pass:
json_test.py ROOT BIN. Needs no adapter and no privileges; what needs an adapter is compared where that is tested."""

import copy
import json
import os
import socket
import subprocess
import sys
import threading


def output(binary, *arguments):
    done = subprocess.run([binary, *arguments], capture_output=True, text=True, timeout=60)
    return json.loads(done.stdout)


def echo(server, stop):
    server.settimeout(0.2)
    while not stop.is_set():
        try:
            data, sender = server.recvfrom(2048)
            server.sendto(data, sender)
        except TimeoutError:
            pass


def ping(bin_directory):
    stop = threading.Event()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as server:
        server.bind(("127.0.0.1", 0))
        thread = threading.Thread(target=echo, args=(server, stop))
        thread.start()
        try:
            return output(bin_directory + "/ruk-ping", "client", "--kernel", "-a", "127.0.0.1", "--count", "20", "--wait",
                          "block", "--warmup", "2", "--json", f"127.0.0.1:{server.getsockname()[1]}")
        finally:
            stop.set()
            thread.join()


def acceptance():
    """A report of ruk-accept with each of its probes."""
    spread = {"min": -1, "median": 2, "p99": 3, "max": 4}
    measured = {
        "endpoints": {"board": 8, "opened_beside_this_one": 7, "refusal": "EBUSY", "device_files_open_in_other_programs": 0},
        "delivery": {"sent": 1, "received": 1, "damaged": 0, "out_of_order": 0},
        "event_order": {"events": 1, "seen_before_complete": 0, "wait_for_completion_ns": spread, "bad_length": 0,
                        "bad_packet_count": 0},
        "coalescing": {"sent": 1, "received": 1, "events_by_packets": {}},
        "poll": {"rounds": 1, "readable": 1, "readable_after_the_last_ns": spread},
        "blocking": {"sent": 1, "received": 1},
        "filter_modes": {mode: {"own": 1, "group_not_joined": 1, "other_port": 1} for mode in ("normal", "allmulti", "raw")},
        "kernel_duplicate": {when: {"library": 1, "kernel": 1} for when in ("asked_for", "not_asked_for")},
        "group": {"before": 0, "joined": 1, "other_port": 0, "left": 0, "joined_again": 1},
        "source_group": {"of_the_source": 1, "left": 0, "of_another_source": 0, "kept_away_by_the_library": 1},
        "broadcast": {when: {"to_all": 1, "to_the_subnet": 1} for when in ("asked_for", "not_asked_for")},
        "vlan": {which: {"interface": "oxel0", "vlan": 5, **{to: {"arrived": 1, "on_the_other_vlan": 0} for to in ("unicast", "group")}}
                 for which in ("own", "other")},
        "next_hop": {"next_hop": "10.77.0.2", "mac": "02:00:00:00:00:02", "resolved": "02:00:00:00:00:02",
                     "resolved_after_ns": 1, "attempts": 1, "echoed": True, "driver_says": "ENOTTY"},
        "tag_reuse": {"rounds": 1, "to_new_channels": 1, "to_old_channels": 0},
        "clock": {"sent": 1, "received": 1, "undated": 0, "backwards": 0, "age_when_received_ns": spread,
                  "rate": {"host_ns": 1, "deviation_ppb": -1, "uncertainty_ppb": 1, "reading_ns": 1}},
        "thresholds": {"threshold": 1, "sizes": [1], "failed": 0},
        "store_to_wire": {size: {"lost": 0, "completed": 1, "store_to_completion_ns": spread, "round_trip_ns": spread}
                          for size in ("64", "1400")},
        "full_ring": {"sent": 1, "kept": 1, "not_the_oldest": 0, "received_afterwards": 1},
    }
    probes = [{"probe": name, "result": "as expected", "expected": "e", "measured": found}
              for name, found in measured.items()]
    return {"program": "ruk-accept 1", "time": "2026-01-01T00:00:00Z", "kernel": "k", "machine": "m", "library": "l",
            "driver": {"version": "1", "build": "b"}, "interface": "oxel0",
            "probes": probes, "result": "as expected"}


def places(value, path=()):
    """Each object and each value in it, by its path."""
    yield path
    if isinstance(value, dict):
        for name, member in value.items():
            yield from places(member, (*path, name))
    elif isinstance(value, list):
        for i, element in enumerate(value):
            yield from places(element, (*path, i))


def at(document, path):
    for step in path:
        document = document[step]
    return document


def damaged(document, optional):
    """The document with one thing wrong: a member too many or too few, or a value of another type."""
    for path in places(document):
        found = at(document, path)
        if isinstance(found, dict):
            if "refused" not in path:
                more = copy.deepcopy(document)
                at(more, path)["surplus"] = "x"
                yield more, (*path, "surplus")
            for name in found:
                if name not in optional:
                    less = copy.deepcopy(document)
                    del at(less, path)[name]
                    yield less, (*path, name)
        if path:
            other = copy.deepcopy(document)
            at(other, path[:-1])[path[-1]] = {"another": "type"}
            yield other, path


def main(root, bin_directory):
    sys.path.insert(0, os.path.join(root, "scripts"))
    import json_schemas

    failures = []

    def fits(name, document):
        return list(json_schemas.faults(document, json_schemas.load(f"{name}.json"), f"{name}.json"))

    def compare(name, document, optional=()):
        failures.extend(f"{name}: {fault}" for fault in fits(name, document))
        tried = 0
        for wrong, path in damaged(document, optional):
            tried += 1
            if not fits(name, wrong):
                failures.append(f"{name}: lets pass what is wrong at {'.'.join(map(str, path))}")
        print(f"{name}: {tried} damaged ones refused")

    info = bin_directory + "/ruk-info"
    compare("ruk-info", output(info, "--json"), optional={"error"})
    compare("ruk-info-doctor", output(info, "--doctor", "--json"))
    compare("ruk-info-stats", output(info, "--stats", "--json"))
    compare("ruk-ping", ping(bin_directory))
    # Which of these members a case has depends on what it is measured against.
    compare("ruk-bench", output(bin_directory + "/ruk-bench", "--tiny", "--json", "--only", "receive_", "--only", "dpdk"),
            optional={"aim", "gbytes_per_second", "difference_ns"})

    # What the programs print with an adapter, one of each: that the schemas refuse what is wrong about it.
    endpoint = dict.fromkeys(json_schemas.load("common.json")["$defs"]["endpoint"]["required"], 1) | {"endpoint": 0}
    definitions = json_schemas.load("common.json")["$defs"]
    port = dict.fromkeys(definitions["port"]["required"], 1)
    drop = {"reason": "ring_full", "where": "endpoint 0", "count": 1, "meaning": "m", "remedy": "r"}
    frames = {name: 1 for name in definitions["ledger"]["required"]
              if definitions["ledger"]["properties"][name].get("$ref") == "#/$defs/count" and name != "board"}
    ledger = {"pid": 1, "program": "p", "board": 0, "interface": "oxel0", "port": port, **frames,
              "endpoints": [endpoint], "drops": [drop]}
    compare("ruk-top", {"ledgers": [ledger]})
    compare("rukrun-stats", {"boards": [{"interface": "oxel0", "port": port, **frames, "endpoints": [endpoint]}]},
            optional={"endpoint"})
    counters = json_schemas.load("ruk-recv-stats.json")["$defs"]["stats"]["required"]
    parts = json_schemas.load("ruk-recv-stats.json")["$defs"]["parts"]["required"]
    for in_ring in (0, None):
        account = {"board": 0, "endpoint": 0, "in_ring": in_ring, "sum": 0, "parts": dict.fromkeys(parts, 0)}
        compare("ruk-recv-stats",
                {"stats": dict.fromkeys(counters, 0), "account": account, "drops": [drop], "adapters": [ledger]})
    datagram = {"from": "10.77.0.2:1", "to": "10.77.0.1:2", "len": 1, "timestamp_ns": 0, "payload": "61",
                "timestamp_source": "none"}
    compare("ruk-recv", datagram)
    compare("ruk-send", {"sent": 1, "bytes": 1, "refused": {"EAGAIN": 1}, "seconds": 0.5, "per_second": 2.0},
            optional={"EAGAIN"})
    report = acceptance()
    compare("ruk-accept", report, optional={"driver"})
    for probe in report["probes"]:
        if not fits("ruk-accept", report | {"probes": [probe | {"probe": "another"}]}):
            failures.append(f"ruk-accept: lets pass what {probe['probe']} measured under another name")
        if not fits("ruk-accept", report | {"probes": [probe | {"reason": "r"}]}):
            failures.append(f"ruk-accept: lets pass a reason of {probe['probe']}, which did not fail")
        for extra in ({}, {"reason": "r"}):
            failures.extend(fits("ruk-accept", report | {"probes": [probe | {"result": "differs"} | extra]}))
    # A probe that failed, or could not be tried, may have measured any part.
    for result in ("failed", "not probed"):
        ended = {"probe": "vlan", "result": result, "expected": "", "measured": {}, "reason": "r"}
        failures.extend(fits("ruk-accept", report | {"probes": [ended], "result": "failed"}))
        for name in ended:
            for wrong in ({k: v for k, v in ended.items() if k != name}, ended | {name: 1}, ended | {"surplus": "x"}):
                if not fits("ruk-accept", report | {"probes": [wrong]}):
                    failures.append(f"ruk-accept: lets pass a probe that {result}, wrong about {name}")
    if not fits("ruk-recv", datagram | {"payload": "6"}):
        failures.append("ruk-recv: lets half a byte pass")
    if not fits("ruk-recv", datagram | {"malformed": True}):
        failures.append("ruk-recv: lets a payload of a malformed datagram pass")
    for failure in failures:
        print(failure)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))

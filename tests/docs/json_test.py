#!/usr/bin/env python3
"""What the programs print with --json has the members that docs/json.md lists, and no others: json_test.py DOC BIN.
Needs no adapter and no privileges."""

import json
import re
import socket
import subprocess
import sys
import threading


def documented(doc, name):
    """Required and optional members of a schema."""
    with open(doc, encoding="utf-8") as file:
        text = file.read()
    table = re.search(rf"<!-- schema: {re.escape(name)} -->\n(.*?)(?:\n\n|\Z)", text, re.S)
    required, optional = set(), set()
    for line in table[1].strip().split("\n")[2:]:
        members, kind = line.split("|")[1:3]
        (optional if "optional" in kind else required).update(re.findall(r"`([^`]+)`", members))
    assert required
    return required, optional


def output(binary, *arguments):
    done = subprocess.run([binary, *arguments], capture_output=True, text=True, timeout=60)
    return json.loads(done.stdout)


def compare(doc, name, found):
    required, optional = documented(doc, name)
    missing, surplus = required - set(found), set(found) - required - optional
    if missing or surplus:
        print(f"{name}: missing {sorted(missing)}, not documented {sorted(surplus)}")
    return not missing and not surplus


def echo(server, stop):
    server.settimeout(0.2)
    while not stop.is_set():
        try:
            data, sender = server.recvfrom(2048)
            server.sendto(data, sender)
        except TimeoutError:
            pass


def main(doc, bin_directory):
    info = bin_directory + "/ruk-info"
    good = compare(doc, "ruk-info", output(info, "--json"))
    doctor = output(info, "--doctor", "--json")
    good = compare(doc, "ruk-info --doctor", doctor) and good
    for check in doctor["checks"]:
        if set(check) != {"check", "status", "found", "remedy"} or check["status"] not in ("ok", "warning", "failure"):
            print(f"not as documented: {check}")
            good = False
    good = bool(doctor["checks"]) and good
    good = compare(doc, "ruk-info --stats", output(info, "--stats", "--json")) and good

    stop = threading.Event()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as server:
        server.bind(("127.0.0.1", 0))
        thread = threading.Thread(target=echo, args=(server, stop))
        thread.start()
        try:
            ping = output(bin_directory + "/ruk-ping", "client", "--kernel", "-a", "127.0.0.1", "--count", "20", "--wait",
                          "block", "--warmup", "2", "--json", f"127.0.0.1:{server.getsockname()[1]}")
        finally:
            stop.set()
            thread.join()
    good = compare(doc, "ruk-ping", ping) and good
    if set(ping["half_round_trip_ns"]) != {"min", "p50", "p90", "p99", "p99.9", "p99.99", "p99.999", "max"}:
        print(f"not as documented: {ping}")
        good = False
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))

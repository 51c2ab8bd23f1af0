#!/usr/bin/env python3
"""An interrupted ruk-bench leaves nothing behind, no process and no file: interrupted.py PROGRAM. Skipped, with status
77, where the host allows no network namespaces."""

import os
import signal
import subprocess
import sys
import tempfile
import time

MARK = "RUK_BENCH_RUN"


def marked(run):
    """The command lines of all processes that the run has started, by the environment that they have of it."""
    found = {}
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{pid}/environ", "rb") as file:
                environment = file.read().split(b"\0")
            with open(f"/proc/{pid}/cmdline", "rb") as file:
                command = file.read().decode(errors="replace").split("\0")
        except OSError:
            continue
        if f"{MARK}={run}".encode() in environment:
            found[int(pid)] = command
    return found


def await_that(what, seconds):
    end = time.monotonic() + seconds
    while not what():
        if time.monotonic() > end:
            return False
        time.sleep(0.02)
    return True


def interrupt(program, number):
    with tempfile.TemporaryDirectory() as scratch:
        bench = subprocess.Popen(
            [program, "--only", "veth_64"], stdout=subprocess.PIPE, text=True,
            env=os.environ | {MARK: scratch, "TMPDIR": scratch},
            preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))

        def clients():
            return [pid for pid, command in marked(scratch).items()
                    if os.path.basename(command[0]) == "ruk-ping" and "client" in command]

        try:
            started = await_that(lambda: bench.poll() is not None or clients(), 60)
            if bench.poll() is not None and "skipped" in (said := bench.communicate()[0]):
                print(f"skipped: {said}")
                return 77
            if not started or bench.poll() is not None:
                print("ruk-ping was not seen")
                return 1
            for pid in clients():  # else it might come to its end by itself
                os.kill(pid, signal.SIGSTOP)
            bench.send_signal(number)
            bench.communicate()
            if bench.returncode != -number:
                print(f"{number.name}: ended with status {bench.returncode}")
                return 1
            if not await_that(lambda: not marked(scratch), 30):
                print(f"{number.name}: left behind: {marked(scratch)}")
                return 1
            if left := os.listdir(scratch):
                print(f"{number.name}: left behind: {left}")
                return 1
            return 0
        finally:
            bench.kill()
            for pid in marked(scratch):
                try:
                    os.kill(pid, signal.SIGKILL)
                except ProcessLookupError:
                    pass


def main(program):
    for number in (signal.SIGTERM, signal.SIGINT, signal.SIGKILL):
        if status := interrupt(program, number):
            return status
        print(f"{number.name}: nothing is left")
    return 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))

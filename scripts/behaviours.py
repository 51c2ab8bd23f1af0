#!/usr/bin/env python3
"""The list of behaviours and the tests that hold them.

    behaviours.py update                     writes tests/behaviours.tsv from tests/behaviours.d/*.tsv
    behaviours.py check RESULTS.xml...       the list is current, and every test on it ran and passed

A line is a behaviour in the field's words, a tab, and the test's name (Suite.Test; of a parametrised test the name
without instantiation and number, which stands for all its instances). Test and results come from JUnit XML. A test
that was skipped counts as not passed, unless it needs network namespaces and this host refuses those.
"""

import glob
import os
import re
import subprocess
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from sum_results import FAILED, PASSED, SKIPPED, read_results  # noqa: E402

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
LIST = os.path.join(ROOT, "tests", "behaviours.tsv")


def sources():
    return sorted(glob.glob(os.path.join(ROOT, "tests", "behaviours.d", "*.tsv")))


def merged():
    """The text of the list: the areas' files in the order of their names, each with its name before it."""
    parts = []
    for path in sources():
        with open(path, encoding="utf-8") as file:
            lines = [line.rstrip() for line in file if line.strip() and not line.startswith("#")]
        parts.append("# " + os.path.basename(path)[: -len(".tsv")] + "\n" + "".join(line + "\n" for line in lines))
    return "".join(parts)


def entries(text):
    """[(behaviour, test)], and complaints about lines that are no such pair."""
    pairs, faults = [], []
    for number, line in enumerate(text.splitlines(), 1):
        if not line or line.startswith("#"):
            continue
        fields = line.split("\t")
        if len(fields) != 2 or not fields[0].strip() or not re.fullmatch(r"[\w./-]+\.[\w/.-]+", fields[1].strip()):
            faults.append(f"line {number} is no behaviour, tab and test: {line}")
            continue
        pairs.append((fields[0].strip(), fields[1].strip()))
    return pairs, faults


def plain_name(name):
    """Suite.Test of "Instantiation/Suite.Test/3", "Suite/0.Test<type>" and the like."""
    name = re.sub(r"<.*>$", "", name)
    match = re.fullmatch(r"(?:\w+/)?(\w+)(?:/\w+)?\.(\w+)(?:/.*)?", name)
    return f"{match.group(1)}.{match.group(2)}" if match else name


def namespaces_refused(reason):
    """Whether this host refuses the kind of namespace that a skipped test gave as its reason."""
    if "namespace" not in reason.lower():
        return False
    command = ["unshare", "-Urn", "true"]
    if os.geteuid() == 0 and "ordinary user" in reason:
        command = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"] + command
    elif os.geteuid() == 0:
        command = ["unshare", "-n", "true"]
    try:
        return subprocess.run(command, capture_output=True, timeout=20).returncode != 0
    except (OSError, subprocess.TimeoutExpired):
        return True


def check(paths):
    text = merged()
    try:
        with open(LIST, encoding="utf-8") as file:
            current = file.read() == text
    except OSError:
        current = False
    pairs, faults = entries(text)
    if not current:
        faults.append("tests/behaviours.tsv is not what tests/behaviours.d gives: run scripts/behaviours.py update")
    if not pairs:
        faults.append("no behaviour is listed")

    outcomes = {}  # plain name -> [(outcome, reason)] over all instances and runs
    for path in paths:
        try:
            for name, result, reason in read_results(path):
                instance = name.split(" ")[0]  # what follows is the value of a parameter
                for key in {instance, plain_name(instance)}:
                    outcomes.setdefault(key, []).append((result, reason))
        except (OSError, SyntaxError) as error:
            faults.append(f"{path}: no results ({error.__class__.__name__})")

    held, skipped = 0, []
    for behaviour, test in pairs:
        seen = outcomes.get(test, [])
        results = {result for result, _ in seen}
        if not seen:
            faults.append(f"{test} did not run: {behaviour}")
        elif FAILED in results:
            faults.append(f"{test} failed: {behaviour}")
        elif SKIPPED in results:
            reason = next(reason for result, reason in seen if result == SKIPPED)
            if namespaces_refused(reason):
                skipped.append(f"{test}: {behaviour} ({reason})")
            else:
                faults.append(f"{test} was skipped ({reason}): {behaviour}")
        elif PASSED in results:
            held += 1
    print(f"{len(pairs)} behaviours: {held} held by passing tests, {len(skipped)} skipped, {len(faults)} faults")
    for line in skipped:
        print(f"SKIPPED  {line}")
    for line in faults:
        print(f"FAULT    {line}")
    return 1 if faults else 0


def main(arguments):
    if arguments[:1] == ["update"]:
        with open(LIST, "w", encoding="utf-8") as file:
            file.write(merged())
        return 0
    if arguments[:1] == ["check"] and len(arguments) > 1:
        return check(arguments[1:])
    print(__doc__, file=sys.stderr)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

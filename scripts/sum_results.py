#!/usr/bin/env python3
"""Adds up test results.

    sum_results.py LABEL=RESULTS.xml... [--broken LABEL]...

Each file is JUnit XML as ctest writes it. Failed and skipped tests are listed by name, skipped ones with their
reason. The last line is "N passed, M failed", with ", K skipped" when there are any. A file that is missing or
names no test counts as one failure, and so does a run that its caller calls broken (it was stopped, or its runner
failed) although no test of it failed. The status is 1 when anything failed or nothing ran.
"""

import re
import sys
import xml.etree.ElementTree as ElementTree

PASSED, FAILED, SKIPPED = "passed", "failed", "skipped"
SKIP_MARKS = ("SKIP_REGULAR_EXPRESSION_MATCHED", "SKIP_RETURN_CODE")


def skip_reason(output):
    """What the test said: for GoogleTest the line after "file:line: Skipped", else its last line."""
    lines = [line.strip() for line in output.splitlines()]
    for i, line in enumerate(lines):
        if line.endswith(": Skipped") and i + 1 < len(lines) and lines[i + 1]:
            return lines[i + 1]
        if line.lower().startswith("skipped:"):
            return line[len("skipped:"):].strip()
    said = [line for line in lines if line and not line.startswith("[")]
    return said[-1] if said else "no reason given"


def outcome(case):
    """(PASSED, FAILED or SKIPPED; reason) of one <testcase>."""
    status = case.get("status", "")
    output = "".join(case.itertext())
    if case.find("failure") is not None or case.find("error") is not None or status == "fail":
        return FAILED, ""
    # A suite whose set-up fails has its tests skipped by GoogleTest, and ctest goes by that word.
    if re.search(r"^\[  FAILED  \]", output, re.MULTILINE):
        return FAILED, ""
    skipped = case.find("skipped")
    if skipped is not None or status in ("notrun", "disabled"):
        message = skipped.get("message", "") if skipped is not None else ""
        if status == "disabled" or "Disabled" in message:
            return SKIPPED, "disabled"
        if any(mark in message for mark in SKIP_MARKS):
            return SKIPPED, skip_reason(output)
        # Not found, a fixture missing, not built: nobody decided to skip it.
        return FAILED, message or "not run"
    if re.search(r"^\[  SKIPPED \]", output, re.MULTILINE):
        return SKIPPED, skip_reason(output)
    return PASSED, ""


def what_failed(output, most=30):
    """The lines of a failed test that tell why: from each complaint on, cut short."""
    lines = output.splitlines()
    complaint = re.compile(r": Failure$|^ERROR: |^==\d+==ERROR|WARNING: ThreadSanitizer|runtime error:|^FAIL|Falsifiable")
    kept, left = [], 0
    for line in lines:
        if complaint.search(line):
            left = 9
        if left and len(kept) < most:
            kept.append(line[:200])
            left -= 1
    return kept or [line[:200] for line in lines[-8:]]


def failed_outputs(path):
    """{name: lines that tell why} of the failed tests of a file."""
    return {case.get("name", "?"): what_failed("".join(case.itertext()))
            for case in ElementTree.parse(path).iter("testcase") if outcome(case)[0] == FAILED}


def read_results(path):
    """[(name, outcome, reason)] of a file; OSError or ParseError when it cannot be read."""
    return [(case.get("name", "?"),) + outcome(case) for case in ElementTree.parse(path).iter("testcase")]


def main(arguments):
    passed, failed, skipped = 0, [], []
    broken = [arguments[i + 1] for i, argument in enumerate(arguments[:-1]) if argument == "--broken"]
    for argument in arguments:
        if "=" not in argument:
            continue
        label, _, path = argument.partition("=")
        try:
            results = read_results(path)
        except (OSError, ElementTree.ParseError) as error:
            failed.append(f"{label}: no results ({error.__class__.__name__})")
            continue
        if not results:
            failed.append(f"{label}: no test ran")
        counts = {PASSED: 0, FAILED: 0, SKIPPED: 0}
        for name, result, reason in results:
            counts[result] += 1
            if result == FAILED:
                failed.append(f"{label}: {name}" + (f" ({reason})" if reason else ""))
            elif result == SKIPPED:
                skipped.append(f"{label}: {name}: {reason}")
        passed += counts[PASSED]
        for name, lines in failed_outputs(path).items():
            print(f"--- {label}: {name}")
            print("\n".join("    " + line for line in lines))
        print(f"{label}: {counts[PASSED]} passed, {counts[FAILED]} failed, {counts[SKIPPED]} skipped")
    for label in broken:
        if not any(line.startswith(f"{label}: ") for line in failed):
            failed.append(f"{label}: the run failed")
    for line in skipped:
        print(f"SKIPPED  {line}")
    for line in failed:
        print(f"FAILED   {line}")
    print(f"{passed} passed, {len(failed)} failed" + (f", {len(skipped)} skipped" if skipped else ""))
    return 1 if failed or not passed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

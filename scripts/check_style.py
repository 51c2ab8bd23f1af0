#!/usr/bin/env python3
"""Rules for the text of the repository that no compiler checks. Prints what breaks them; status 1 if anything does."""

import os
import re
import subprocess
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

# In every tracked text file. (The patterns are written so that they do not match themselves.)
EVERYWHERE = [
    (r"\b[P]arts? [1-9]\.[0-9]", "a chapter number: say what is meant"),
    (r"\b[s]pec\.md\b|\b[d]esign\.md\b|\b[a]nchors\.md\b", "the name of a document outside the repository"),
    (r"\b[i]ssues? #?[0-9]+\b|\B#[0-9]+\b(?=[^0-9a-fA-F;]*\b(?:issue|ticket|bug)\b)", "the number of an issue"),
    (r"(?<![\w.$}{~])/(?:[w]ork|[h]ome|[r]oot|Users)/\w", "a path of one machine"),
    (r"[ \t]+$", "blanks at the end of a line"),
    (r"\r", "a carriage return"),
]

# In the product's own sources.
PRODUCT = ("libruk/", "common/", "softnic/", "launcher/", "tools/")
IN_PRODUCT = [
    (r"\bFRIEND_TEST\b|\bfriend\s+(?:class|struct)\s+\w*Test", "a door for tests"),
    (r"^\s*#\s*(?:el)?if.*\b\w*(?:UNIT_?TEST|TESTING|FOR_TEST|MOCK|FAKE|EMULAT)\w*", "code for tests"),
    (r"getenv\s*\(\s*\"\w*(?:TEST|MOCK|FAKE)\w*\"", "an environment variable for tests"),
    (r"\b(?:gtest|gmock)/", "a test framework"),
]
# In the library, which does not know of the software adapter.
LIBRARY = ("libruk/", "common/")
IN_LIBRARY = [
    (r"\bsoftnic\b|\boxelsoft\b", "the software adapter: the library does not know of it"),
    (r"\bthrow\b|\btry\s*\{|\bdynamic_cast\b|\btypeid\b", "exceptions or run-time types"),
    (r"#\s*include\s*<(?:string|vector|map|unordered_map|list|deque|set|memory|functional|iostream|sstream|fstream)>",
     "a part of the standard library that allocates"),
]


def strip_comments(text):
    """C and C++ comments and string contents blanked, lines kept."""
    pattern = r"//[^\n]*|/\*.*?\*/|\"(?:\\.|[^\"\\\n])*\""
    return re.sub(pattern, lambda m: re.sub(r"[^\n]", " ", m.group()), text, flags=re.DOTALL)


def main():
    names = subprocess.run(["git", "-C", ROOT, "ls-files", "-z"], check=True, capture_output=True).stdout
    faults = 0

    def report(name, text, rules):
        nonlocal faults
        for number, line in enumerate(text.split("\n"), 1):
            for pattern, what in rules:
                if re.search(pattern, line):
                    print(f"{name}:{number}: {what}: {line.strip()[:100]}")
                    faults += 1

    for name in names.decode().split("\0"):
        path = os.path.join(ROOT, name)
        if name.startswith("tests/fuzz/corpus/"):
            continue  # any bytes
        if not name or os.path.islink(path) or not os.path.isfile(path):
            continue
        try:
            with open(path, encoding="utf-8", newline="") as file:
                text = file.read()
        except UnicodeDecodeError:
            continue  # a capture or an image
        rules = list(EVERYWHERE)
        if name.endswith(".md"):
            rules = [rule for rule in rules if "blanks" not in rule[1]]
        report(name, text, rules)
        if text and not text.endswith("\n"):
            print(f"{name}: no newline at the end")
            faults += 1
        if name.startswith(PRODUCT) and name.endswith((".h", ".cpp", ".hpp", ".c")):
            report(name, text, IN_PRODUCT)
        if name.startswith(LIBRARY) and name.endswith((".h", ".cpp")):
            report(name, strip_comments(text), IN_LIBRARY)
    if faults:
        print(f"{faults} faults")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())

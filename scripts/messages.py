#!/usr/bin/env python3
"""The messages that library and software adapter print, beside what docs/operating.md says about them.

    messages.py check      every message of the sources is in the section "Messages", and every one there in the sources
"""

import glob
import os
import re
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
SOURCES = ["libruk/*.cpp", "common/*.cpp", "softnic/**/*.cpp"]
CALL = re.compile(r"\b(fprintf\(\s*stderr,|fputs\(|puts\(|printf\(|exit_with\(|complain\(|say\(|ruk__debug_line\()")
LITERAL = re.compile(r'"((?:[^"\\]|\\.)*)"')
# What a documented message leaves open.
BLANK = re.compile(r"RUK_SOFTNIC_\.\.\.|\.\.\.|\bIF, endpoint N:|\b(?:IF|FILE)\b:?")
SPEC = re.compile(r"%[-#0 +.*\d]*(?:ll|l|h|z)?[a-zA-Z]")


def without_comments(text):
    return re.sub(r'"(?:[^"\\]|\\.)*"|//[^\n]*|/\*.*?\*/', lambda m: m[0] if m[0][0] == '"' else " ", text, flags=re.S)


def arguments(text, start):
    """From an opening parenthesis to the one that closes it."""
    depth, at = 0, start
    while at < len(text):
        literal = LITERAL.match(text, at)
        if literal:
            at = literal.end()
            continue
        depth += {"(": 1, ")": -1}.get(text[at], 0)
        at += 1
        if depth == 0:
            break
    return text[start:at]


def plain(text):
    """As it is seen, with "..." where something is filled in."""
    return SPEC.sub("...", re.sub(r"\\[nt]", " ", text).replace('\\"', '"')).replace("%%", "%").replace("softnic: ", "")


def shown(call, code):
    """The message of a call: its literals, with "..." for what stands between them."""
    pieces, last = [], None
    for literal in LITERAL.finditer(code):
        before = code[last or 0:literal.start()].strip()
        if before if last is not None else before not in ("(", "(stderr,", "(std::string("):
            pieces.append("...")
        pieces.append(plain(literal[1]))
        last = literal.end()
    return "".join(pieces) + (": ..." if call.startswith("exit_with") else "")


def words(text):
    return " ".join(text.split())


def fits(piece, message):
    """Whether the fixed parts of a documented message are in the message, in this order, the first at its beginning."""
    fixed = [words(part) for part in BLANK.split(piece) if words(part)]
    message = words(message)
    at = 0
    for i, part in enumerate(fixed):
        found = message.find(part, at)
        if found < 0 or (i == 0 and found > 0 and piece.startswith(part) and not message.startswith("...")):
            return False
        at = found + len(part)
    return bool(fixed)


def check():
    with open(os.path.join(ROOT, "docs/operating.md"), encoding="utf-8") as file:
        section = file.read().split("\n## Messages\n")[1]
    described = []
    for line in section.split("\n"):
        told = line.split("|")[1] if line.startswith("| ") else line if "`" in line and not line.startswith("|") else ""
        described += [piece.replace("softnic: ", "") for piece in re.findall(r"`([^`]+)`", told)]
    messages, literals = [], []
    for pattern in SOURCES:
        for path in sorted(glob.glob(os.path.join(ROOT, pattern), recursive=True)):
            with open(path, encoding="utf-8") as file:
                text = without_comments(file.read())
            literals += [plain("".join(LITERAL.findall(run))) for run in re.findall(r'(?:"(?:[^"\\]|\\.)*"\s*)+', text)]
            for call in CALL.finditer(text):
                message = shown(call[0], arguments(text, text.index("(", call.start())))
                if len(re.sub(r"[^a-z]", "", message)) >= 4:
                    messages.append((os.path.relpath(path, ROOT), message))
    status = 0
    for path, message in messages:
        if not any(fits(piece, message) for piece in described):
            print(f"{path}: docs/operating.md does not tell about: {words(message)}")
            status = 1
    rows = [piece for line in section.split("\n") if line.startswith("| `")
            for piece in re.findall(r"`([^`]+)`", line.split("|")[1])]
    for row in rows:
        row = row.replace("softnic: ", "")
        if re.fullmatch(r"(IF|FILE): \.\.\.", row):  # with the host's own words
            continue
        if not any(fits(row, message) for message in literals + [m for _, m in messages]):
            print(f"docs/operating.md tells about what is not in the sources: {row}")
            status = 1
    print(f"{len(messages)} messages, {len(rows)} rows")
    return status if len(messages) >= 40 and len(rows) >= 30 else 1


if __name__ == "__main__":
    if sys.argv[1:] != ["check"]:
        sys.exit(__doc__)
    sys.exit(check())

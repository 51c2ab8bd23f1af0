#!/usr/bin/env python3
"""Manual pages. Section 3 is made of docs/man/api.txt and the prototypes of the headers, section 1 of
docs/man/programs.txt and what each program says with --help; section 7 is written by hand in man/.

    manpages.py update [BIN]      writes man/*.3, and man/*.1 when BIN is the directory of the built programs
    manpages.py check [BIN]       the same without writing: status 1 when a page is not current
    manpages.py lint              mandoc -Tlint; everything that it says counts; status 77 without mandoc
    manpages.py exports           every exported operation has a page
    manpages.py errors            the errors of each page are those that the headers name
    manpages.py face              ruk.hpp has every operation of ruk.h
    manpages.py compile CC CXX    compiles the example of each page, as the page shows it
"""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import textwrap

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
MAN = os.path.join(ROOT, "man")
HEADERS = ["libruk/ruk.h", "common/tov_ifaddrs.h", "libruk/ruk__eventq.h"]
DATE = "November 21, 2026"
PARTS = ["returns", "errors", "order", "threads", "cost", "example", "see"]

# What stands around an example when it is compiled: the names that ruk(7) says examples use.
AROUND = """{lead}#include "{header}"
#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
void example(ruk_device_t dev, ruk_channel_t ch, ruk_send_t handle);
void example(ruk_device_t dev, ruk_channel_t ch, ruk_send_t handle)
{{
    (void)dev; (void)ch; (void)handle;
{body}
}}
"""


def read(path):
    with open(os.path.join(ROOT, path), encoding="utf-8") as file:
        return file.read()


def prototypes():
    """Name of each operation: its header and its prototype on one line."""
    found = {}
    for header in HEADERS:
        text = re.sub(r"/\*.*?\*/", "", read(header), flags=re.S)
        text = re.sub(r"(?m)^\s*#.*$", "", text)
        for match in re.finditer(r"(?m)^(?!typedef|return|static|using)((?:\w[\w ]*?[ *]+)((?:ruk|tov)_\w+)\([^;{}]*\));", text):
            found[match[2]] = os.path.basename(header), " ".join(match[1].split())
    return found


def roff(text):
    """Text as it is to be seen: backslashes, and lines that would be requests."""
    text = text.replace("\\", "\\e")
    return "\n".join("\\&" + line if line[:1] in (".", "'") else line for line in text.split("\n"))


def marked(sentence):
    """A sentence in lines of at most 78 characters, with the macros of functions and pages in it."""
    lines = []
    for piece in re.split(r"(\b(?:ruk|tov)_\w+\(\d?\)[,.;:)]*)(?= |$)", sentence):
        macro = re.fullmatch(r"(\w+)\((\d?)\)([,.;:)]*)", piece)
        if macro:
            name, section, after = macro.groups()
            lines.append((f".Xr {name} {section} " if section else f".Fn {name} ") + " ".join(after))
        else:
            lines += roff("\n".join(textwrap.wrap(piece.strip(), 78, break_long_words=False, break_on_hyphens=False))).split("\n")
    return "\n".join(line.rstrip() for line in lines if line)


def paragraphs(text):
    """Running text: a sentence a line or more, a .Pp between paragraphs."""
    blocks = []
    for block in re.split(r"\n\s*\n", text.strip()):
        sentences = re.sub(r"([.?!]) +(?=[A-Z0-9]|ruk_|tov_)", r"\1\n", " ".join(block.split())).split("\n")
        blocks.append("\n".join(marked(sentence) for sentence in sentences))
    return "\n.Pp\n".join(blocks)


def see_also(names):
    pages = sorted({re.fullmatch(r"([\w-]+)\((\d)\)", n).groups() for n in names}, key=lambda p: (p[1], p[0]))
    return "\n".join(f".Xr {name} {section}{',' if i + 1 < len(pages) else ''}".replace(",", " ,")
                     for i, (name, section) in enumerate(pages))


def head(name, section, others, purpose):
    names = "".join(f".Nm {n}{' ,' if i + 1 < 1 + len(others) else ''}\n" for i, n in enumerate([name, *others]))
    return f".Dd {DATE}\n.Dt {name.upper()} {section}\n.Os\n.Sh NAME\n{names}.Nd {purpose}\n"


def arguments(prototype):
    inside = prototype[prototype.index("(") + 1:-1]
    return [a.strip() for a in inside.split(",")]


def synopsis(name, known):
    _, prototype = known[name]
    kind = prototype[:prototype.index(name)].strip()
    return f".Ft {kind}\n.Fn {name} " + " ".join(f'"{a}"' for a in arguments(prototype)) + "\n"


def api_pages():
    known = prototypes()
    pages = {}
    for entry in re.split(r"(?m)^= ", re.sub(r"(?m)^#(?! ?include).*\n", "", read("docs/man/api.txt")))[1:]:
        names, purpose, rest = entry.split("\n", 2)
        name, *others = names.split()
        pieces = re.split(r"(?m)^@(\w+)(.*)\n", rest.rstrip() + "\n")
        parts = {key: (extra.strip(), body.strip("\n")) for key, extra, body in
                 zip(pieces[1::3], pieces[2::3], pieces[3::3])}
        unknown = set(parts) - set(PARTS)
        if unknown or not {"order", "threads", "cost", "example", "see"} <= set(parts) or \
           ("errors" in parts) == ("returns" in parts):
            sys.exit(f"{name}: parts are missing, or unknown: {unknown}")
        header = known[name][0]
        page = head(name, 3, others, purpose) + ".Sh LIBRARY\nlibruk (libruk, \\-lruk)\n.Sh SYNOPSIS\n"
        page += f".In {header}\n" + "".join(synopsis(n, known) for n in [name, *others])
        page += ".Sh DESCRIPTION\n" + paragraphs(pieces[0]) + "\n"
        page += ".Ss Byte order\n" + paragraphs(parts["order"][1]) + "\n"
        page += ".Ss Threads\n" + paragraphs(parts["threads"][1]) + "\n"
        page += ".Ss Cost\n" + paragraphs(parts["cost"][1]) + "\n.Sh RETURN VALUES\n"
        if "returns" in parts:
            page += paragraphs(parts["returns"][1]) + "\n"
        else:
            page += "0 on success, else an error value.\n"
        page += ".Sh EXAMPLES\n.Bd -literal\n" + roff(parts["example"][1]) + "\n.Ed\n"
        if "errors" in parts:
            page += ".Sh ERRORS\n.Bl -tag -width Er\n"
            for line in parts["errors"][1].split("\n"):
                code, text = line.split(" ", 1)
                text = text[0].upper() + text[1:] + "."
                page += (f".It Bq Er {code}\n" if re.fullmatch(r"E[A-Z0-9]+", code) else f".It {code}\n".replace(" -1", " \\-1")) + paragraphs(text) + "\n"
            page += ".El\n"
        page += ".Sh SEE ALSO\n" + see_also(parts["see"][0].split() + ["ruk(7)"]) + "\n"
        pages[f"{name}.3"] = page
        for other in others:
            pages[f"{other}.3"] = f".so man3/{name}.3\n"
    return pages


def run_help(binary, *arguments):
    done = subprocess.run([binary, *arguments, "--help"], capture_output=True, text=True, timeout=60,
                          env={**os.environ, "COLUMNS": "80"})
    if done.returncode != 0:
        sys.exit(f"{binary} --help ends with status {done.returncode}")
    return "\n".join(line.rstrip() for line in done.stdout.strip("\n").split("\n"))


def statuses(text):
    """Lines "0 what it means" as a list; another line is running text between lists."""
    page, inside = "", False
    for line in text.strip().split("\n"):
        entry = re.fullmatch(r"(\d+) (.*)", line)
        if bool(entry) != inside:
            inside = not inside
            page += ".Bl -tag -width Ds\n" if inside else ".El\n"
        page += f".It {entry[1]}\n{paragraphs(entry[2])}\n" if entry else paragraphs(line) + "\n"
    return page + (".El\n" if inside else "")


def program_pages(directory):
    pages = {}
    for entry in re.split(r"(?m)^= ", re.sub(r"(?m)^#.*\n", "", read("docs/man/programs.txt")))[1:]:
        names, purpose, rest = entry.split("\n", 2)
        name, *subcommands = names.split()
        binary = os.path.join(directory, name)
        if not os.path.exists(binary):
            print(f"{name}: not built, its page is left as it is")
            continue
        description, calls, status, example, see = re.fullmatch(
            r"(.*?)^@synopsis\n(.*?)^@status\n(.*?)^@example\n(.*?)^@see (.*)", rest.strip(), re.S | re.M).groups()
        page = head(name, 1, [], purpose) + ".Sh SYNOPSIS\n"
        page += "".join(".Nm\n" + roff(call).replace("-", "\\-") + "\n" for call in calls.strip().split("\n"))
        page += ".Sh DESCRIPTION\n" + paragraphs(description) + "\n"
        page += ".Pp\nThe program describes its arguments so:\n.Bd -literal\n" + roff(run_help(binary)) + "\n.Ed\n"
        for sub in subcommands:
            its_own = run_help(binary, sub).split("\n\nExit status:")[0]
            page += f".Ss {name} {sub}\n.Bd -literal\n" + roff(its_own) + "\n.Ed\n"
        page += ".Sh EXIT STATUS\n" + statuses(status)
        page += ".Sh EXAMPLES\n.Bd -literal\n" + roff(example.strip()) + "\n.Ed\n"
        page += ".Sh SEE ALSO\n" + see_also(see.split() + ["ruk(7)"]) + "\n"
        pages[f"{name}.1"] = page
    return pages


def all_pages(arguments):
    pages = api_pages()
    if arguments:
        pages.update(program_pages(arguments[0]))
    return pages


def update(arguments):
    for name, text in all_pages(arguments).items():
        with open(os.path.join(MAN, name), "w", encoding="utf-8") as file:
            file.write(text)
    return 0


def check(arguments):
    status = 0
    pages = all_pages(arguments)
    for name, text in pages.items():
        path = os.path.join(MAN, name)
        if not os.path.exists(path) or read(path) != text:
            print(f"{name} is not current: run scripts/manpages.py update")
            status = 1
    for name in os.listdir(MAN):
        if name.endswith(".3") and name not in pages:
            print(f"{name} belongs to no entry of docs/man/api.txt")
            status = 1
    return status


def lint(_):
    if shutil.which("mandoc") is None:
        print("skipped: mandoc is not installed")
        return 77
    pages = sorted(os.path.join("man", n) for n in os.listdir(MAN) if not read(os.path.join(MAN, n)).startswith(".so "))
    if not pages:
        return 1
    done = subprocess.run(["mandoc", "-Tlint", *pages], cwd=ROOT, capture_output=True, text=True)
    status = 0
    for line in done.stdout.splitlines() + done.stderr.splitlines():
        # It looks for other pages where pages are installed: ours are here, and whose else are there is not our affair.
        other = re.search(r"referenced manual not found: Xr (\S+) (\d)", line)
        ours = other and re.match(r"ruk|tov", other[1])
        if "outdated mandoc.db" in line or (other and (not ours or os.path.exists(os.path.join(MAN, ".".join(other.groups()))))):
            continue
        print(line)
        status = 1
    return status


def exports(_):
    names = set(re.findall(r"\b(?:ruk|tov)_\w+(?=;)", read("libruk/libruk.map")))
    names |= {n for n, (header, _) in prototypes().items() if header == "ruk.h"}
    missing = sorted(n for n in names if not os.path.exists(os.path.join(MAN, n + ".3")))
    for name in missing:
        print(f"{name} has no page")
    return 1 if missing or not names else 0


def header_errors():
    """What the comments before the prototypes say after "Errors:": each operation's codes, with "driver" for those of
    the driver. A sentence that begins with names of operations is about these alone; "those of x()" takes x's in."""
    said, inherited = {}, {}
    for header in HEADERS:
        for comment, code in re.findall(r"/\*((?:[^*]|\*(?!/))*)\*/\s*((?:^(?!/\*).+\n)+)", read(header), re.M):
            names = re.findall(r"\b((?:ruk|tov)_\w+)\([^;]*\);", code)
            text = " ".join(re.sub(r"(?m)^ \* ?", "", comment).split())
            errors = re.search(r"\bErrors(?:, [^:]*)?: (.*)", text)
            for name in names:
                said[name], inherited[name] = set(), set()
            for sentence in re.split(r"(?<=[a-z])\. ", errors[1]) if errors else []:
                scope = re.match(r"((?:(?:ruk|tov)_\w+\(\)(?:, )?)+): ", sentence)
                body = sentence[scope.end():] if scope else sentence
                for name in re.findall(r"\w+(?=\(\))", scope[1]) if scope else names:
                    said[name] |= set(re.findall(r"\bE[A-Z0-9]{3,}\b", body))
                    said[name] |= {"driver"} if re.search(r"(?i)those of the driver", body) else set()
                    for others in re.findall(r"those of ((?:(?:ruk|tov)_\w+\(\)(?: and )?)+)", body):
                        inherited[name] |= set(re.findall(r"\w+(?=\(\))", others))
    for _ in range(3):
        for name, others in inherited.items():
            said[name] = said[name].union(*(said[other] for other in others))
    return said


def errors(_):
    said, pages, status = header_errors(), {}, 0
    for entry in re.split(r"(?m)^= ", re.sub(r"(?m)^#(?! ?include).*\n", "", read("docs/man/api.txt")))[1:]:
        names = entry.split("\n", 1)[0].split()
        part = re.search(r"(?m)^@errors\n((?:(?!@).*\n)*)", entry)
        lines = part[1].strip().split("\n") if part else []
        found = {line.split()[0] for line in lines if re.match(r"E[A-Z0-9]{3,} ", line)}
        found |= {"driver"} if any("those of the driver" in line for line in lines) else set()
        taken = {page for line in lines for page in re.findall(r"those of (\w+)\(3\)", line)}
        pages[names[0]] = names, found, taken
    for page, (names, found, taken) in pages.items():
        found = found.union(*(pages[other][1] for other in taken))
        expected = set().union(*(said[name] for name in names))
        if found != expected:
            print(f"{page}(3): the page lacks {sorted(expected - found)}, the header lacks {sorted(found - expected)}")
            status = 1
    print(f"{len(pages)} pages compared, {sum(bool(of) for of in said.values())} operations with errors")
    return status if len(pages) > 30 and sum(bool(of) for of in said.values()) > 25 else 1


def face(_):
    """Operations between the library's own sources, with two underscores, and the utilities are not for it."""
    used = set(re.findall(r"\bruk_\w+(?=\()", re.sub(r"/\*.*?\*/", "", read("libruk/ruk.hpp"), flags=re.S)))
    names = {n for n, (header, _) in prototypes().items() if header == "ruk.h" and re.match(r"ruk_(?!_)", n)}
    for name in sorted(names - used):
        print(f"ruk.hpp has nothing for {name}()")
    return 1 if names - used or len(names) < 30 else 0


def compile_examples(arguments):
    cc, cxx = arguments
    status = compiled = 0
    with tempfile.TemporaryDirectory() as directory:
        for name in sorted(n for n in os.listdir(MAN) if n.endswith(".3")):
            page = read(os.path.join(MAN, name))
            if page.startswith(".so "):
                continue
            example = re.search(r"^\.Sh EXAMPLES\n\.Bd -literal\n(.*?)^\.Ed", page, re.S | re.M)
            if not example:
                print(f"{name} has no example")
                status = 1
                continue
            header = re.search(r"^\.In (\S+)", page, re.M)[1]
            plus = header == "ruk__eventq.h"
            body = re.sub(r"(?m)^\\&", "", example[1]).replace("\\e", "\\")
            source = os.path.join(directory, name + (".cpp" if plus else ".c"))
            with open(source, "w", encoding="utf-8") as file:
                file.write(AROUND.format(header=header, body=body,
                                         lead='#include "ruk__libtypes.h"\n' if plus else '#include "ruk.h"\n'))
            command = [cxx, "-std=c++20"] if plus else [cc, "-std=gnu11"]
            command += ["-Wall", "-Wextra", "-Werror", "-Wno-unused-variable", "-Wno-unused-but-set-variable"]
            done = subprocess.run([*command, "-fsyntax-only", "-I", os.path.join(ROOT, "libruk"), "-I",
                                   os.path.join(ROOT, "common"), source], capture_output=True, text=True)
            compiled += 1
            if done.returncode != 0:
                print(f"the example of {name} does not compile:\n{done.stderr}")
                status = 1
    print(f"{compiled} examples compiled")
    return status if compiled else 1


COMMANDS = {"update": update, "check": check, "lint": lint, "exports": exports, "errors": errors, "face": face, "compile": compile_examples}

if __name__ == "__main__":
    if len(sys.argv) < 2 or sys.argv[1] not in COMMANDS:
        sys.exit(__doc__)
    sys.exit(COMMANDS[sys.argv[1]](sys.argv[2:]))

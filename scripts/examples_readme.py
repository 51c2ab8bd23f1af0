#!/usr/bin/env python3
"""examples/README.md out of the heads of the examples.

    examples_readme.py update|check
"""

import glob
import os
import re
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
README = os.path.join(ROOT, "examples", "README.md")
START = """# Examples

First programs over `ruk.h`, one thing each. A build of the source tree makes `build/examples/example-*` of them, to be
run over the software adapter so: `build/bin/rukrun --soft=oxel0 -- build/examples/example-receive oxel0 5000`. Where
the library is installed (from the source tree with `ldconfig` run as root afterwards, or programs do not find it):
`gcc receive.c -o example-receive $(pkg-config --cflags --libs ruk) -pthread`, for the one in C++
`g++ -std=c++20 cplusplus.cpp -o example-cplusplus $(pkg-config --cflags --libs ruk)`, then
`rukrun --soft=oxel0 -- ./example-receive oxel0 5000`. How to have an interface `oxel0` and another host that sends to
it, without a card and without being root, is in the [README](../README.md#receive-a-datagram).

<!-- Made by scripts/examples_readme.py from the heads of the files. -->

| file | what it shows | arguments |
|---|---|---|
"""
END = """
A larger one, [`market_data`](market_data), is a market data handler with a test suite of its own over the linked-in
software adapter (`softnic.h`), which loses, delays and reorders datagrams in virtual time. A sequence number too far
ahead counts as damaged: each that is missing is kept. Where the library is installed:
`g++ -std=c++20 market_data/*.cpp $(pkg-config --cflags --libs ruk-softnic) -lgtest -lgtest_main`, or with CMake,
`cmake -S market_data -B build`.
"""


def row(path):
    with open(path, encoding="utf-8") as file:
        text = file.read()
    head = re.match(r"/\*\n \* (.*?)\n \*\n \*     (example-[^\n]*)\n \*/", text, re.S)
    if not head:
        sys.exit(f"{path}: no head of purpose and arguments")
    purpose = " ".join(line.strip(" *") for line in head[1].split("\n"))
    name = os.path.basename(path)
    return f"| [`{name}`]({name}) | {purpose} | `{head[2]}` |\n"


def contents():
    paths = sorted(glob.glob(os.path.join(ROOT, "examples", "*.c")) + glob.glob(os.path.join(ROOT, "examples", "*.cpp")))
    return START + "".join(row(path) for path in paths) + END


def main(arguments):
    if arguments == ["update"]:
        with open(README, "w", encoding="utf-8") as file:
            file.write(contents())
        return 0
    if arguments == ["check"]:
        current = ""
        if os.path.exists(README):
            with open(README, encoding="utf-8") as file:
                current = file.read()
        if current == contents():
            return 0
        print("examples/README.md is not current: run scripts/examples_readme.py update")
        return 1
    sys.exit(__doc__)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))

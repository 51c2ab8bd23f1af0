#!/usr/bin/env python3
"""How exact a frame's time is, by the time since the last keyframe of the switch.

Repeats the library's arithmetic (ticks times 20/7 in double precision, rounded to single precision, cut to whole
nanoseconds) and compares it with the exact quotient. Prints a table; with a file name also draws the plot, which keeps
its points in it. With --check compares the table of the page and the points of its plot with the arithmetic:

    scripts/switch_accuracy.py [PLOT.png | --check PAGE.md PLOT.png]
"""
import random
import re
import struct
import subprocess
import sys
import zlib
from fractions import Fraction

RATE_HZ = 350_000_000
NS_PER_TICK = 2.857142857142857
WRAP_TICKS = 1 << 31
SAMPLES = 4000


def single(x):
    return struct.unpack("<f", struct.pack("<f", x))[0]


def error_ns(ticks):
    """Library's time less the exact one."""
    return abs(int(single(float(ticks) * NS_PER_TICK)) - Fraction(ticks * 1_000_000_000, RATE_HZ))


def worst(seconds):
    """Largest error seen in the last tenth before that time; the same whenever it is asked for."""
    rng = random.Random(round(seconds * 1e9))
    top = min(int(seconds * RATE_HZ), WRAP_TICKS - 1)
    low = max(1, top - top // 10)
    return float(max(error_ns(rng.randint(low, top)) for _ in range(SAMPLES)))


def points():
    """What the plot shows."""
    spans = [10 ** (e / 20) for e in range(-120, 16)]
    return "".join(f"{s:.6g} {worst(s):.6g}\n" for s in spans)


def chunks(png):
    """A PNG file's parts: type, content, and all bytes of each."""
    at = 8
    while at < len(png):
        (length,) = struct.unpack_from(">I", png, at)
        yield png[at + 4 : at + 8], png[at + 8 : at + 8 + length], png[at : at + 12 + length]
        at += 12 + length


KEYWORD = b"points\0"


def draw(plot):
    data = points()
    script = f"""
set terminal pngcairo size 800,450
set output '{plot}'
set logscale xy
set xlabel 'time since the last keyframe (s)'
set ylabel 'largest error of a frame time (ns)'
set grid
set key off
plot '-' with lines linewidth 2
{data}e
"""
    subprocess.run(["gnuplot"], input=script, text=True, check=True)
    with open(plot, "rb") as file:
        png = file.read()
    text = KEYWORD + data.encode()
    added = struct.pack(">I", len(text)) + b"tEXt" + text + struct.pack(">I", zlib.crc32(b"tEXt" + text))
    with open(plot, "wb") as file:
        file.write(png[:8])
        for kind, _, whole in chunks(png):
            file.write(added + whole if kind == b"IEND" else whole)


def check(page, plot):
    """What is wrong with the page's table and its plot."""
    wrong = []
    with open(page, encoding="utf-8") as file:
        rows = re.findall(r"^\| ([0-9.]+) (ms|s)( and less)? \| ([0-9]+) ns \|$", file.read(), re.MULTILINE)
    if len(rows) < 8:
        wrong.append(f"{page}: the table has {len(rows)} rows")
    for number, unit, _, bound in rows:
        error = worst(float(number) / (1000 if unit == "ms" else 1))
        if not int(bound) / 2 < error <= int(bound):  # errors double where the steps of single precision do
            wrong.append(f"{page}: {number} {unit}: up to {bound} ns, but {error:.1f} ns were seen")
    for number, unit, less, bound in rows:
        for part in (2, 10, 100, 10000) if less else ():
            error = worst(float(number) / (1000 if unit == "ms" else 1) / part)
            if error > int(bound):
                wrong.append(f"{page}: less than {number} {unit}: {error:.1f} ns were seen")
    with open(plot, "rb") as file:
        kept = [text[len(KEYWORD) :] for kind, text, _ in chunks(file.read()) if kind == b"tEXt" and text.startswith(KEYWORD)]
    if kept != [points().encode()]:
        wrong.append(f"{plot}: drawn from other points; draw it anew")
    return wrong


def main():
    if len(sys.argv) == 4 and sys.argv[1] == "--check":
        wrong = check(sys.argv[2], sys.argv[3])
        sys.exit("\n".join(wrong) if wrong else 0)
    if len(sys.argv) > 2 or sys.argv[-1].startswith("-"):
        sys.exit(__doc__)
    for seconds in (1e-6, 1e-5, 1e-4, 1e-3, 3e-3, 1e-2, 3e-2, 0.1, 0.2, 0.5, 1, 2, 4, 6.1):
        print(f"{seconds:10.6f} s {worst(seconds):8.1f} ns")
    if len(sys.argv) > 1:
        draw(sys.argv[1])


if __name__ == "__main__":
    main()

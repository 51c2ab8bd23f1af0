#!/usr/bin/env python3
"""How exact a frame's time is, by the time since the last keyframe of the switch.

Repeats the library's arithmetic (ticks times 20/7 in double precision, rounded to single precision, cut to whole
nanoseconds) and compares it with the exact quotient. Prints a table; with a file name also draws the plot:

    scripts/switch_accuracy.py [PLOT.png]
"""
import random
import struct
import subprocess
import sys
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


def worst(seconds, rng):
    """Largest error seen in the last tenth before that time."""
    top = min(int(seconds * RATE_HZ), WRAP_TICKS - 1)
    low = max(1, top - top // 10)
    return float(max(error_ns(rng.randint(low, top)) for _ in range(SAMPLES)))


def main():
    if len(sys.argv) > 2 or sys.argv[-1].startswith("-"):
        sys.exit(__doc__)
    rng = random.Random(1)
    table = [(s, worst(s, rng)) for s in (1e-6, 1e-5, 1e-4, 1e-3, 3e-3, 1e-2, 3e-2, 0.1, 0.2, 0.5, 1, 2, 4, 6.1)]
    for seconds, error in table:
        print(f"{seconds:10.6f} s {error:8.1f} ns")
    if len(sys.argv) > 1:
        points = [10 ** (e / 20) for e in range(-120, 16)]
        data = "".join(f"{s} {worst(s, rng)}\n" for s in points)
        script = f"""
set terminal pngcairo size 800,450
set output '{sys.argv[1]}'
set logscale xy
set xlabel 'time since the last keyframe (s)'
set ylabel 'largest error of a frame time (ns)'
set grid
set key off
plot '-' with lines linewidth 2
{data}e
"""
        subprocess.run(["gnuplot"], input=script, text=True, check=True)


if __name__ == "__main__":
    main()

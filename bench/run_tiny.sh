#!/bin/bash
# Runs a benchmark program for a moment and fails unless every one of its cases measured something.
#
#   run_tiny.sh PROGRAM
set -euo pipefail
cases=$("$1" --benchmark_list_tests | wc -l)
output=$("$1" --benchmark_min_time=0.001 --benchmark_format=csv 2>/dev/null)
measured=$(grep -c -E '^"BM_[^"]*",[1-9][0-9]*,[0-9.e+-]+,' <<<"$output" || true)
if ((cases == 0 || measured != cases)) || grep -q ',true,' <<<"$output"; then
    printf '%s\n' "$output"
    echo "$measured of $cases cases measured"
    exit 1
fi

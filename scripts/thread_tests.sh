#!/bin/bash
# The tests of the programs that start threads, those with the label "threads", under the thread sanitizer. One of them,
# which starts none, is left out: it asks libc's signal() and siginterrupt() for each other's flags, and the sanitizer
# puts a signal() of its own there.
#
#   scripts/thread_tests.sh BUILD_DIR RESULTS.xml
set -uo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 2
broken=()
RUK_CMAKE_ARGS=-DRUK_BUILD_BENCH=OFF scripts/build_and_test.sh thread "$1" "$2" -L '^threads$' \
    -E '^TapSignals\.OtherSignalThatInterruptsCalls_' ||
    broken=(--broken thread)
python3 scripts/sum_results.py "thread=$2" "${broken[@]+"${broken[@]}"}"

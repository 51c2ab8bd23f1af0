#!/bin/bash
# The tests with several threads, those with "Thread" or "Concurrent" in their name, under the thread sanitizer.
#
#   scripts/thread_tests.sh BUILD_DIR RESULTS.xml
set -uo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 2
broken=()
RUK_CMAKE_ARGS=-DRUK_BUILD_BENCH=OFF scripts/build_and_test.sh thread "$1" "$2" -R '[Tt]hread|[Cc]oncurren' ||
    broken=(--broken thread)
python3 scripts/sum_results.py "thread=$2" "${broken[@]+"${broken[@]}"}"

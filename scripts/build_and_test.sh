#!/bin/bash
# Configures, builds and tests one kind of build.
#
#   scripts/build_and_test.sh KIND BUILD_DIR RESULTS.xml [CTEST_ARGUMENT...]
#   scripts/build_and_test.sh KIND BUILD_DIR --build-ahead     builds alone, and leaves it to the other form to complain
#
# KIND: 64 (all of the project); 32 (all but the benchmarks); address, thread (without the tools: unit tests, simulation,
# the sweep of faults, and of the tests with whole programs those of the port, of steering, of rukrun and,
# with address, of the send modes). Results are JUnit XML. Further cmake arguments may be given in RUK_CMAKE_ARGS.
set -euo pipefail

kind=$1 build=$2 results=$3
shift 3
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# Programs with a sanitizer need their shadow memory's place, which address randomisation may take.
in_fixed_layout=()
options=()
case $kind in
64) options+=(-DRUK_BUILD_TESTS=ON -DRUK_BUILD_TOOLS=ON -DRUK_BUILD_BENCH=ON) ;; # a demo's build directory lacks some
32) options+=(-DRUK_32BIT=ON -DRUK_BUILD_TOOLS=ON -DRUK_BUILD_BENCH=OFF) ;;
address | thread)
    options+=("-DRUK_SANITIZE=$kind" -DRUK_BUILD_TOOLS=OFF -DRUK_BUILD_BENCH=OFF)
    if setarch -R true 2>/dev/null; then
        in_fixed_layout=(setarch -R)
    fi
    ;;
*)
    echo "build_and_test: unknown kind '$kind'" >&2
    exit 2
    ;;
esac
if command -v ccache >/dev/null; then
    options+=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
# g++ looks for memory to use again a sixth of its time: not where there is enough.
if "${CXX:-c++}" -v 2>&1 | grep -q '^gcc version' && (($(awk '/^MemTotal/ { print $2 }' /proc/meminfo) > 12000000)); then
    options+=("-DCMAKE_CXX_FLAGS=--param=ggc-min-heapsize=4000000 ${CXXFLAGS:-}")
fi
read -ra further <<<"${RUK_CMAKE_ARGS:-}"

mkdir -p "$build"
exec {lock}>"$build/.building" # one builds at a time
flock "$lock"
if [[ $results == --build-ahead ]]; then
    cmake -S "$root" -B "$build" -G Ninja "${options[@]}" "${further[@]}" &&
        exec cmake --build "$build" -j 2
    exit
fi >"$build/build-ahead.log" 2>&1
mkdir -p "$(dirname "$results")"
results=$(realpath "$results") # ctest would take it from the build directory
rm -f "$results"
log=$build/build.log
if ! {
    cmake -S "$root" -B "$build" -G Ninja "${options[@]}" "${further[@]}" &&
        cmake --build "$build" -j 2
} >"$log" 2>&1; then
    grep -E -A 12 'error|FAILED|Error' "$log" | head -n 80 || tail -n 40 "$log"
    echo "build_and_test: the $kind build failed; all of it is in $log"
    exit 1
fi
# A clean build of the whole project is meant to take less than five minutes on two processors that do nothing else.
exec {lock}>&-
took=$SECONDS
echo "the $kind build was complete after $took s$( [[ $kind != 64 ]] || ((took <= 300)) || echo '; warning: that is more than the 300 s meant')"
# A warning is worth seeing even where it is no error.
cat "$build/build-ahead.log" "$log" 2>/dev/null | grep -E 'warning:' | sort -u | head -n 20 || true

export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export ASAN_OPTIONS=detect_stack_use_after_return=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
stop=()
if [[ -n ${RUK_STAGE_END:-} ]]; then
    # A test that hangs is then named, and the others' results are kept.
    stop=(--stop-time "$(date -d "@$((RUK_STAGE_END - 30))" +%H:%M:%S)")
fi
run_ctest() {
    "${in_fixed_layout[@]}" ctest --test-dir "$build" "$@"
}
status=0
# Six places for two processors: tests/CMakeLists.txt says how many of them each test takes.
run_ctest -j 6 --output-on-failure --no-tests=error --timeout 300 "${stop[@]}" --output-junit "$results" "$@" \
    >"$build/ctest.log" 2>&1 || status=$?

# Which tests failed, and why, is in the results; without them ctest itself has something to say.
if [[ ! -s $results ]]; then
    tail -n 40 "$build/ctest.log"
    exit 1
fi
known=$(run_ctest -N "$@" | sed -n 's/^Total Tests: //p')
ran=$(grep -c '<testcase ' "$results" || true)
if ((ran < known)); then
    echo "build_and_test: time was up after $ran of $known tests"
    exit 1
fi
exit "$status"

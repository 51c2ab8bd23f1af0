#!/bin/bash
# Fuzzing of what the library and the software adapter read from others.
#
#   scripts/fuzz.sh smoke BUILD_DIR           each target over its corpus and a little further; the canary must be found
#   scripts/fuzz.sh run BUILD_DIR TARGET N    N executions of one target, from its corpus on; new inputs are kept in
#                                             BUILD_DIR/corpus/TARGET
#
# Targets are the names in tests/fuzz/*_fuzz.cpp. Needs clang++.
set -euo pipefail
mode=$1 build=$2
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
corpus=$root/tests/fuzz/corpus
options=(-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DRUK_SANITIZE=fuzzer
    -DRUK_BUILD_TOOLS=OFF -DRUK_BUILD_BENCH=OFF)
if command -v ccache >/dev/null; then
    options+=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
mkdir -p "$build"
build=$(realpath "$build")
if ! {
    cmake -S "$root" -B "$build" -G Ninja "${options[@]}" && cmake --build "$build" -j 2 --target tests/fuzz/all
} >"$build/build.log" 2>&1; then
    grep -E -A 12 'error|FAILED|Error' "$build/build.log" | head -n 60 || tail -n 40 "$build/build.log"
    exit 1
fi
export ASAN_OPTIONS=quarantine_size_mb=16:detect_leaks=0 UBSAN_OPTIONS=print_stacktrace=1
cd "$build" # where a finding is left

# What the library prints about the bytes it is given is not wanted; libFuzzer keeps its own standard error. Its search
# for leaks runs an input again and can find nothing, as leaks are not looked for; the finer choice of the next input
# and the search for smaller ones cost a third of the time.
fuzz() { # TARGET N CORPUS...
    local target=$1 runs=$2 log=$build/$1.log status=0
    shift 2
    "fuzz/fuzz-$target" "-runs=$runs" -max_len=4096 -detect_leaks=0 -entropic=0 -reduce_inputs=0 \
        -close_fd_mask=3 -print_final_stats=1 "$@" >"$log" 2>&1 || status=$?
    if ((status == 0)); then
        printf '%-9s %s executions, no finding, %s\n' "$target" \
            "$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")" \
            "$(grep -oE 'cov: [0-9]+ ft: [0-9]+' "$log" | tail -n 1)"
    fi
    return "$status"
}

case $mode in
smoke)
    passed=0 failed=0
    for target in frames ring keyframe ifname routes adapter; do
        scratch=$(mktemp -d)
        runs=$(($(find "$corpus/$target" -type f | wc -l) + 20000))
        if fuzz "$target" "$runs" "$scratch" "$corpus/$target"; then
            passed=$((passed + 1))
        else
            failed=$((failed + 1))
            echo "$target: a finding"
            tail -n 40 "$build/$target.log"
        fi
        rm -rf "$scratch"
    done
    if fuzz canary 1000000 >/dev/null; then
        echo "canary: not found: this fuzzing finds nothing"
        failed=$((failed + 1))
    else
        grep -q heap-buffer-overflow "$build/canary.log" && passed=$((passed + 1)) || failed=$((failed + 1))
        echo "canary    found, as it must be"
        rm -f crash-*
    fi
    echo "$passed passed, $failed failed"
    ((failed == 0))
    ;;
run)
    target=$3 runs=$4
    mkdir -p "corpus/$target"
    fuzz "$target" "$runs" "corpus/$target" "$corpus/$target" || {
        tail -n 40 "$build/$target.log"
        exit 1
    }
    ;;
*)
    echo "fuzz.sh: smoke or run, not '$mode'" >&2
    exit 2
    ;;
esac

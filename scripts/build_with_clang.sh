#!/bin/bash
# All of the project with clang++, warnings being errors.
#
#   scripts/build_with_clang.sh BUILD_DIR
set -euo pipefail
build=$1
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
options=(-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DRUK_WERROR=ON)
if command -v ccache >/dev/null; then
    options+=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi
mkdir -p "$build"
if ! {
    cmake -S "$root" -B "$build" -G Ninja "${options[@]}" && cmake --build "$build" -j 2
} >"$build/build.log" 2>&1; then
    grep -E -A 12 'error|FAILED|Error' "$build/build.log" | head -n 80 || tail -n 40 "$build/build.log"
    exit 1
fi

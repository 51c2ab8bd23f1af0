#!/bin/bash
# A minute of datagrams at half the measured ceiling: none may be lost. A run that could not be made is no success.
#
#   scripts/soak_minute.sh BUILD_DIR
set -euo pipefail
output=$(RUK_SOAK_SECONDS=60 "$1/tests/e2e_tools" --gtest_filter='Soak.*') || {
    printf '%s\n' "$output"
    exit 1
}
printf '%s\n' "$output" | grep ceiling
grep -q '\[  PASSED  \] 1 test' <<<"$output"

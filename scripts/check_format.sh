#!/bin/bash
# Every C and C++ source of the repository is as clang-format 14 leaves it.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
git ls-files -z -- '*.c' '*.h' '*.cpp' '*.hpp' | xargs -0 clang-format-14 --dry-run --Werror --ferror-limit=1

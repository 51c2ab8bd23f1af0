#!/bin/bash
# clang-tidy over the library, its platform layer, the software adapter, the launcher and the tools.
#
#   scripts/check_tidy.sh BUILD_DIR     a configured build directory, for its compile_commands.json
set -euo pipefail
build=$(realpath "$1")
cd "$(dirname "${BASH_SOURCE[0]}")/.."
sources=$(python3 - "$build/compile_commands.json" "$PWD" <<'PY'
import json, os, sys
commands, root = json.load(open(sys.argv[1])), sys.argv[2]
wanted = tuple(os.path.join(root, d) + os.sep for d in ("libruk", "common", "softnic", "launcher", "tools"))
print("\n".join(sorted({os.path.normpath(os.path.join(c["directory"], c["file"])) for c in commands
                        if os.path.normpath(os.path.join(c["directory"], c["file"])).startswith(wanted)})))
PY
)
[[ -n $sources ]] || {
    echo "check_tidy: $build compiles nothing of the checked directories" >&2
    exit 1
}
printf '%s\n' "$sources" | xargs -d '\n' -n 1 -P 2 clang-tidy-14 -p "$build" --quiet 2> >(
    grep -v -E 'warnings? (generated|treated as error)|Suppressed|Use -header-filter' >&2
)

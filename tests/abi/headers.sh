#!/bin/bash
# Every header stands alone: compiled by itself, as C++20, and those for programs and for the firmware's side that are C
# as C11, with no search path but the two directories of the library.
#
#   headers.sh SOURCE_DIR CC CXX FLAGS      FLAGS: further compiler flags, for example -m32
set -euo pipefail
root=$1 cc=$2 cxx=$3
read -ra flags <<<"${4:-}"
strict=(-fsyntax-only -Wall -Wextra -Werror)

in_c="ruk.h tov.h tov_io.h tov_types.h tov_ifaddrs.h tov_sock_funcs.h tov_piocopy.h oxel_raw.h"
failures=0 checked=0
alone() { # LANGUAGE STANDARD HEADER SEARCH_PATH...
    local language=$1 standard=$2 header=$3 compiler=$cxx
    shift 3
    [[ $language == c++ ]] || compiler=$cc
    checked=$((checked + 1))
    # Twice, since some file will.
    if ! printf '#include "%s"\n#include "%s"\n' "$header" "$header" |
        "$compiler" "${flags[@]}" -x "$language" -std="$standard" "${strict[@]}" "$@" -; then
        echo "headers: $header does not stand alone in $standard"
        failures=$((failures + 1))
    fi
}
for path in "$root"/libruk/*.h "$root"/common/*.h; do
    alone c++ c++20 "${path##*/}" -I"$root/libruk" -I"$root/common"
done
for header in $in_c; do
    alone c c11 "$header" -I"$root/libruk" -I"$root/common"
done
alone c c11 ruk.h -Wpedantic -I"$root/libruk" -I"$root/common"
alone c c11 softnic.h -Wpedantic -I"$root/softnic"
alone c++ c++20 softnic.h -Wpedantic -I"$root/softnic"
((checked > 20)) || {
    echo "headers: only $checked found"
    exit 1
}
echo "headers: $checked compiled, $failures failed"
((failures == 0))

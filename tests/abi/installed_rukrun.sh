#!/bin/bash
# rukrun of the installed tree finds the adapter beside itself, and with it a program has a board. The adapter is put
# on the loopback interface of a network namespace; where none can be had the test is skipped, with status 77.
#
#   installed_rukrun.sh BUILD_DIR CC FLAGS      FLAGS: further compiler flags, for example -m32
set -euo pipefail
build=$1 cc=$2
read -ra flags <<<"${3:-}"

own_host=(unshare -n)
((EUID == 0)) || own_host=(unshare -Urn)
if ! "${own_host[@]}" true 2>/dev/null; then
    echo "skipped: no network namespace can be had"
    exit 77
fi

tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT
prefix=$tree/prefix
cmake --install "$build" --prefix "$prefix" >"$tree/install.log" || {
    cat "$tree/install.log"
    exit 1
}
fail() {
    echo "installed rukrun: $*"
    exit 1
}

[[ -n $(find "$prefix" -name liboxelsoft.so) ]] || fail "no liboxelsoft.so"
printf '#include <fcntl.h>\nint main(void) { return open("/dev/oxelB0", O_RDWR) < 0; }\n' >"$tree/opener.c"
"$cc" "${flags[@]}" -o "$tree/opener" "$tree/opener.c"
if "$tree/opener"; then
    fail "there is an adapter without rukrun"
fi
"${own_host[@]}" sh -c 'ip link set lo up && "$@"' - "$prefix/bin/rukrun" --soft=lo "$tree/opener" ||
    fail "it gives no adapter"
echo "installed rukrun: ok"

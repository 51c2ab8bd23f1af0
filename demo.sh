#!/bin/bash
# Shows libruk at work on any Debian machine, without a card: installs what is missing, builds, makes two hosts joined
# by a cable (namespaces of its own, gone at the end), and sends datagrams between an ordinary program over kernel
# sockets on one and programs over libruk on the other. The last line is "demo: ok: ..." and the status 0, or
# "demo: failed: ..." and the status 1.
#
#   ./demo.sh [--build-dir DIR] [--no-build]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"

build=build
build_it=1
inside=0
while (($#)); do
    case $1 in
    --build-dir)
        [[ $# -ge 2 ]] || { echo "demo: failed: --build-dir needs a directory" && exit 1; }
        build=$2
        shift
        ;;
    --no-build) build_it=0 ;;
    --inside) inside=1 ;; # in the namespaces already: the script's own use
    -h | --help)
        sed -n '2,7p' "${BASH_SOURCE[0]}" | sed 's/^# \{0,1\}//'
        exit 0
        ;;
    *)
        echo "demo: failed: unknown argument '$1' (see ./demo.sh --help)"
        exit 1
        ;;
    esac
    shift
done
[[ $build == /* ]] || build=$PWD/$build

say() { printf '\n== %s\n' "$*"; }
explained=0
die() {
    printf 'demo: failed: %s\n' "$*"
    explained=1
    exit 1
}

# ------------------------------------------------------------------ outside: packages, build, namespaces

prepare() {
    say "1. install what is missing (the first time this may take a minute or two)"
    scripts/install-deps.sh demo || die "packages are missing and could not be installed"
    say "2. build (the first time this takes a minute or two)"
    local options=()
    # What the tests need is not installed for a demo; a build directory of the user's stays as it was configured.
    [[ -e $build/CMakeCache.txt ]] || options=(-DRUK_BUILD_TESTS=OFF)
    local log
    log=$(mktemp)
    if ! cmake -S . -B "$build" -G Ninja "${options[@]}" >"$log" 2>&1; then
        tail -n 30 "$log"
        rm -f "$log"
        die "the build could not be configured"
    fi
    rm -f "$log"
    NINJA_STATUS='[%f/%t] ' cmake --build "$build" --target \
        ruk oxelsoft rukrun ruk-info ruk-recv ruk-send ruk-ping || die "the build failed"
}

if ((!inside)); then
    ((!build_it)) || prepare
    [[ -x $build/bin/rukrun ]] || die "$build/bin/rukrun is not there: run without --no-build"
    isolate=(unshare --user --map-root-user --net)
    ((EUID != 0)) || isolate=(unshare --net)
    "${isolate[@]}" ip link set lo up || die "user $(id -un) may not make network namespaces here: be root; in a" \
        "container, have the capabilities CAP_SYS_ADMIN, CAP_NET_ADMIN and CAP_NET_RAW"
    status=0
    "${isolate[@]}" "$PWD/demo.sh" --inside --build-dir "$build" || status=$?
    exit "$status"
fi

# ------------------------------------------------------------------ inside

work=$(mktemp -d)
children=()
cleanup() {
    local status=$?
    local pid
    trap - EXIT
    for pid in "${children[@]}"; do
        kill "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    rm -rf "$work"
    ((status == 0 || explained)) || echo "demo: failed: a command ended with status $status (see above)"
    exit "$status"
}
trap cleanup EXIT
trap 'die interrupted' INT TERM

PATH=$build/bin:$PATH
soft=(timeout --foreground 60 rukrun --soft=oxel0 --)
# In the background to be called without the function, of which $! would be a shell before the command.
peer_command=()
peer() { "${peer_command[@]}" "$@"; }
indent() { sed 's/^/  /' "$1"; }

# Waits until a file holds the text, at most ten seconds.
await() { # FILE TEXT
    local i
    for ((i = 0; i < 200; i++)); do
        grep -q -F -- "$2" "$1" 2>/dev/null && return 0
        sleep 0.05
    done
    return 1
}

make_hosts() {
    say "3. two hosts, one cable: oxel0 10.77.0.1 (libruk) -- peer0 10.77.0.2 (kernel sockets)"
    # The other host lives as long as this process; it tells when it is there.
    unshare --net sh -c 'echo there >"$0"; exec sleep 300' "$work/holder" &
    holder=$!
    children+=("$holder")
    peer_command=(nsenter --target "$holder" --net --)
    await "$work/holder" there || die "no second host could be made"
    ip link set lo up
    ip link add oxel0 address 02:6f:78:00:00:01 type veth peer name peer0 address 02:00:00:00:00:02 netns "$holder"
    ip address add 10.77.0.1/24 brd + dev oxel0
    ip link set oxel0 up
    peer ip link set lo up
    peer ip address add 10.77.0.2/24 brd + dev peer0
    peer ip link set peer0 up
    "${soft[@]}" ruk-info | sed 's/^/  /' || die "no adapter is there"
}

interface_drops() {
    ip -s -j link show dev oxel0 | python3 -c 'import json, sys; print(json.load(sys.stdin)[0]["stats64"]["rx"]["dropped"])'
}

# What the adapter dropped on its way to the program, from the account that it leaves at its end: the usual reasons
# always, the others where there is something to tell.
adapter_drops() {
    python3 - "$work/ledger" <<'PY'
import json, sys
board = json.load(open(sys.argv[1]))["boards"][0]
drops = {name: sum(endpoint[name] for endpoint in board["endpoints"]) for name in ("ring_full", "disabled", "oversize")}
text = f"{board['port']['rx_dropped']} before the adapter, {drops.pop('ring_full')} by a full ring"
drops = {"rx_malformed": board["port"]["rx_malformed"], "malformed": board["malformed"], **drops}
print(text + "".join(f", {count} {name}" for name, count in drops.items() if count), end="")
PY
}

datagrams() {
    local sizes=(1 18 100 512 1000 1472) lines=(hello again bye)
    sent=${#sizes[@]}
    replies=${#lines[@]}
    local drops_before
    drops_before=$(interface_drops)

    say "4. $sent datagrams from a kernel socket arrive through libruk (time and its source, from > to, length, text)"
    RUK_SOFTNIC_STATS=$work/ledger "${soft[@]}" ruk-recv -i oxel0 -p 5000 -n "$sent" -t 20 --hw-timestamps --stats >"$work/recv" 2>"$work/recv.err" &
    local receiver=$!
    children+=("$receiver")
    await "$work/recv.err" listening || die "ruk-recv did not start: $(cat "$work/recv.err")"
    "${peer_command[@]}" scripts/demo_peer.py 10.77.0.2:40000 10.77.0.1:5000 "$replies" "${sizes[@]}" >"$work/peer" &
    local talker=$!
    children+=("$talker")
    wait "$receiver" || { indent "$work/recv" && die "not every datagram arrived"; }
    sed '/^counters:/,$d' "$work/recv" >"$work/lines"
    indent "$work/lines"
    received=$(wc -l <"$work/lines")
    ((received == sent)) || die "$received of $sent datagrams arrived"
    local size
    for size in "${sizes[@]}"; do
        grep -q -E "^[0-9]+\.[0-9]{9} adapter 10\.77\.0\.2:40000 > 10\.77\.0\.1:5000 len $size " "$work/lines" ||
            die "the datagram of $size bytes is not among them"
    done

    local reasons
    reasons=$(sed -n '/^counters:/,/^account/p' "$work/recv" | awk '$1 ~ /^(dropped|malformed)/ && $3 > 0 { printf ", %s %s", $3, $1 }')
    echo "  sent $sent, received $received, dropped: $(($(interface_drops) - drops_before)) by the interface," \
        "$(adapter_drops)${reasons:-, none by the library}"

    say "5. $replies replies from libruk arrive at the kernel program"
    printf '%s\n' "${lines[@]}" | "${soft[@]}" ruk-send -i oxel0 -p 5000 10.77.0.2:40000 >"$work/send" ||
        die "ruk-send failed: $(cat "$work/send")"
    wait "$talker" || { indent "$work/peer" && die "not every reply arrived"; }
    grep -v -e '^sent' -e '^replies' "$work/peer" | sed 's/^/  /'
    indent "$work/send"
}

latency() {
    say "6. how long a datagram takes: half of a round trip to an ordinary echo server on the other host"
    local options=(client -i oxel0 10.77.0.2:7000 --count 5000 -t 4 --warmup 200)
    "${peer_command[@]}" ruk-ping server --kernel -i peer0 -p 7000 --wait block -t 60 >"$work/echo" 2>&1 &
    children+=("$!")
    await "$work/echo" answering || die "the echo server did not start: $(cat "$work/echo")"
    "${soft[@]}" ruk-ping "${options[@]}" >"$work/ping" 2>&1 || die "ruk-ping through libruk: $(cat "$work/ping")"
    indent "$work/ping"
    echo
    timeout --foreground 60 ruk-ping "${options[@]}" --kernel >"$work/ping.kernel" 2>&1 ||
        die "ruk-ping through kernel sockets: $(cat "$work/ping.kernel")"
    indent "$work/ping.kernel"
    echo
    echo "  Of a card this says nothing: the software adapter itself sends and receives through a packet socket of the"
    echo "  kernel, which the datagrams of libruk pass here as well."
}

# The p50 column of ruk-ping's table.
median() { awk '/^half round trip/ { getline; print $2 }' "$1"; }

make_hosts
datagrams
latency
echo
echo "demo: ok: $received of $sent datagrams received through libruk, $replies of $replies replies sent;" \
    "half round trip, median: libruk $(median "$work/ping") us, kernel sockets $(median "$work/ping.kernel") us"

#!/bin/bash
# Installs what is missing, builds, and runs all tests: 64 bit, 32 bit, and under the address and undefined-behaviour
# sanitizers. The last line is "N passed, M failed", with ", K skipped" when tests had to be skipped. The status is 0
# only when every test that ran passed.
#
#   ./test.sh [64] [32] [address]     all three without arguments
set -uo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")" || exit 2
. scripts/stages.sh

case " $* " in
*" -h "* | *" --help "*)
    sed -n '2,7p' "${BASH_SOURCE[0]}" | sed 's/^# \{0,1\}//'
    exit 0
    ;;
esac

results=build-results
kinds=("$@")
((${#kinds[@]})) || kinds=(64 32 address)

if ! stage "install what is missing" 10 scripts/install-deps.sh test; then
    echo "0 passed, 1 failed"
    exit 1
fi

declare -A directory=([64]=build [32]=build-32 [address]=build-address)

# Tests wait a good deal. What the next kinds need is built meanwhile, with what processor time they leave.
set -m # a process group of its own, to end it with
(
    set +m
    for kind in "${kinds[@]:1}"; do
        nice -n 19 scripts/build_and_test.sh "$kind" "${directory[$kind]:-}" --build-ahead </dev/null
    done
) >/dev/null 2>&1 &
ahead=$!
set +m
trap 'kill -- "-$ahead" 2>/dev/null' EXIT

files=()
for kind in "${kinds[@]}"; do
    case $kind in
    64) stage "64 bit: build and test" 18 scripts/build_and_test.sh 64 "${directory[64]}" "$results/64.xml" ;;
    32) stage "32 bit: build and test" 14 scripts/build_and_test.sh 32 "${directory[32]}" "$results/32.xml" ;;
    address)
        stage "address and undefined-behaviour sanitizers: build and test" 16 \
            scripts/build_and_test.sh address "${directory[address]}" "$results/address.xml"
        ;;
    *)
        echo "test.sh: unknown kind of build '$kind'" >&2
        echo "0 passed, 1 failed"
        exit 2
        ;;
    esac || files+=(--broken "$kind")
    files+=("$kind=$results/$kind.xml")
done

# All three are meant to take less than 15 minutes on two processors that do nothing else.
print_stage_times 15
echo
python3 scripts/sum_results.py "${files[@]}"

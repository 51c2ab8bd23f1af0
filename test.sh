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

files=()
for kind in "${kinds[@]}"; do
    case $kind in
    64) stage "64 bit: build and test" 18 scripts/build_and_test.sh 64 build "$results/64.xml" ;;
    32) stage "32 bit: build and test" 14 scripts/build_and_test.sh 32 build-32 "$results/32.xml" ;;
    address)
        stage "address and undefined-behaviour sanitizers: build and test" 16 \
            scripts/build_and_test.sh address build-address "$results/address.xml"
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

#!/bin/bash
# Completion as bash asks for it: completion_test.sh COMPLETIONS BIN
set -u
source "$1" || exit 1
bin=$2
failures=0

# reply PROGRAM WORDS...: what is offered for the last of the words.
reply()
{
    COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
    COMPREPLY=()
    if [[ ${1##*/} == rukrun ]]; then _ruk_complete_rukrun "$1"; else _ruk_complete "$1"; fi
}

offers()
{
    local wanted=$1
    shift
    reply "$@"
    if [[ " ${COMPREPLY[*]} " != *" $wanted "* ]]; then
        echo "'${*##*/}' does not offer '$wanted': ${COMPREPLY[*]}"
        failures=$((failures + 1))
    fi
}

offers_not()
{
    local unwanted=$1
    shift
    reply "$@"
    if [[ " ${COMPREPLY[*]} " == *" $unwanted "* ]]; then
        echo "'${*##*/}' offers '$unwanted'"
        failures=$((failures + 1))
    fi
}

for program in ruk-accept ruk-bench ruk-capture ruk-info ruk-ping ruk-recv ruk-send ruk-top rukrun; do
    [[ -x $bin/$program ]] || { echo "$program is missing"; exit 1; }
    offers --help "$bin/$program" --
    offers --version "$bin/$program" --v
    complete -p "$program" >/dev/null || failures=$((failures + 1))
done

offers --json "$bin/ruk-recv" --j
offers_not --json "$bin/ruk-recv" --st
offers --stats "$bin/ruk-recv" --st
offers -p "$bin/ruk-recv" -
offers lo "$bin/ruk-recv" -i l
offers lo "$bin/ruk-send" --interface ''
offers spin "$bin/ruk-recv" --wait s
offers_not block "$bin/ruk-recv" --wait s
offers raw "$bin/ruk-recv" --filter r
offers client "$bin/ruk-ping" c
offers_not server "$bin/ruk-ping" c
offers run "$bin/ruk-accept" r
offers --minutes "$bin/ruk-accept" run --m
offers clock "$bin/ruk-accept" run --only c
offers_not delivery "$bin/ruk-accept" run --only c
offers receive_64 "$bin/ruk-bench" --only rec
offers_not send_64 "$bin/ruk-bench" --only rec
offers veth_64 "$bin/ruk-bench" --json --only = v
offers dpdk "$bin/ruk-bench" --only ''
offers --tiny "$bin/ruk-bench" --t
offers --plot "$bin/ruk-ping" client --p
offers_not --plot "$bin/ruk-ping" server --p
offers lo "$bin/rukrun" --soft = l
offers lo "$bin/rukrun" --soft =
offers eth0,lo "$bin/rukrun" --soft = eth0,
offers eth0,eth1,lo "$bin/rukrun" --soft = eth0,eth1,l
offers_not eth0,lo "$bin/rukrun" --soft = eth0,m
offers exact "$bin/rukrun" --mode = e
offers wire "$bin/rukrun" --switch = ''
offers --soft "$bin/rukrun" --s
offers bash "$bin/rukrun" --soft -- bas
offers bash "$bin/rukrun" --soft = lo bas
offers_not --soft "$bin/rukrun" --soft -- -
offers --stats "$bin/rukrun" --soft = lo "$bin/ruk-recv" --st
offers_not --soft "$bin/rukrun" --soft = lo "$bin/ruk-recv" --s
offers --stats "$bin/rukrun" --mode = fast --soft -- "$bin/ruk-recv" --st
offers lo "$bin/rukrun" --soft "$bin/ruk-recv" -i l
offers --doctor "$bin/rukrun" --soft=lo "$bin/ruk-info" --d
offers spin "$bin/ruk-recv" --wait = s
offers block "$bin/ruk-recv" --wait =
offers raw "$bin/ruk-recv" --filter = r
offers_not normal "$bin/ruk-recv" --filter = r
offers lo "$bin/ruk-send" --interface = l
offers_not --json "$bin/ruk-recv" --port =
offers_not --help "$bin/rukrun" --help =
offers clock "$bin/ruk-accept" run --only = c

echo "$failures failures"
((failures == 0))

# Stages of a check script: each is announced, timed, bounded, and its outcome added up. To be sourced.
#
#   say TEXT               a line with the minutes since the script began
#   stage NAME MINUTES COMMAND...   runs the command, whose output shows; its status is the stage's
#
# The limits suit two processors that do nothing else; RUK_SLOWER=3 gives every stage three times as long.

script_began=$SECONDS
stage_times=()
stage_pid=

# timeout runs its command in a process group of its own, which an interrupt from the keyboard does not reach.
stop_stage() {
    [[ -n $stage_pid ]] && kill "$stage_pid" 2>/dev/null && wait "$stage_pid"
    say "interrupted"
    exit 130
}
trap stop_stage INT TERM HUP

minutes() { # SECONDS
    printf '%d.%d' $(($1 / 60)) $(($1 % 60 / 6))
}

say() {
    printf '[%5s min] %s\n' "$(minutes $((SECONDS - script_began)))" "$*"
}

stage() {
    local name=$1 limit=$(($2 * ${RUK_SLOWER:-1})) began=$SECONDS status
    shift 2
    say "$name ..."
    # When the stage will be stopped, for commands that would rather end by themselves with what they know.
    local end=$(($(date +%s) + limit * 60))
    RUK_STAGE_END=$((end <= ${RUK_STAGE_END:-end} ? end : RUK_STAGE_END)) timeout --kill-after=20 "$((limit * 60))" "$@" </dev/null &
    stage_pid=$!
    wait "$stage_pid"
    status=$?
    stage_pid=
    local took
    took=$(minutes $((SECONDS - began)))
    if ((status == 124 || status == 137)); then
        say "$name: stopped after its limit of $limit minutes"
    elif ((status != 0)); then
        say "$name: FAILED (status $status)"
    fi
    stage_times+=("$(printf '%6s of %2d min  %s%s' "$took" "$limit" "$name" "$( ((status)) && echo ': FAILED')")")
    return "$status"
}

# With a number of minutes, which all together are meant to take at most, a word about that, too.
print_stage_times() { # [MINUTES]
    local took=$((SECONDS - script_began))
    printf '\nMinutes:\n'
    printf '%s\n' "${stage_times[@]}"
    (($#)) || return 0
    printf '%6s of %2d min  all together%s\n' "$(minutes "$took")" "$1" \
        "$( ((took <= $1 * 60)) || echo '; warning: that is more than meant')"
}

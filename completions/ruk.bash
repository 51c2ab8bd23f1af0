# Bash completion of rukrun and the ruk-* programs. Options are the ones that each program tells with --help, so this
# file needs no change with them.

_ruk_help()
{
    COLUMNS=200 command "$@" --help 2>/dev/null
}

# Options of a program or subcommand: the words with dashes at the heads of the lines of its help.
_ruk_options()
{
    _ruk_help "$@" | sed -nE 's/^ +(-[^ ]*).*/\1/p' | tr ',' '\n' | sed -nE 's/^(--?[A-Za-z][A-Za-z-]*).*/\1/p'
}

_ruk_interfaces()
{
    local path
    for path in /sys/class/net/*; do
        [[ -e $path ]] && printf '%s\n' "${path##*/}"
    done
}

_ruk_complete()
{
    local program=$1 word=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local name=${program##*/} subcommands='' subcommand='' i
    COMPREPLY=()

    case $name in
    ruk-ping) subcommands='server client' ;;
    ruk-accept) subcommands='peer run' ;;
    esac
    for ((i = 1; i < COMP_CWORD; i++)); do
        [[ " $subcommands " == *" ${COMP_WORDS[i]} "* ]] && subcommand=${COMP_WORDS[i]} && break
    done

    # What an option takes.
    case $previous in
    -i | --interface)
        mapfile -t COMPREPLY < <(compgen -W "$(_ruk_interfaces)" -- "$word")
        return
        ;;
    --wait)
        mapfile -t COMPREPLY < <(compgen -W 'spin nonblock block' -- "$word")
        return
        ;;
    --filter)
        mapfile -t COMPREPLY < <(compgen -W 'normal allmulti raw' -- "$word")
        return
        ;;
    --only)
        mapfile -t COMPREPLY < <(compgen -W "$(_ruk_help "$program" $subcommand |
            sed -n 's/^ *--only .*(repeatable): //p' | tr -d ,)" -- "$word")
        return
        ;;
    -w | --write | -f | --file | --csv | --plot | -o | --report)
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        return
        ;;
    esac

    if [[ -n $subcommands && -z $subcommand && $word != -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$subcommands" -- "$word")
        return
    fi
    if [[ -n $subcommand ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_ruk_options "$program" "$subcommand")" -- "$word")
    else
        mapfile -t COMPREPLY < <(compgen -W "$(_ruk_options "$program")" -- "$word")
    fi
}

# rukrun's own arguments, then a program and whatever completes that.
_ruk_complete_rukrun()
{
    local word=${COMP_WORDS[COMP_CWORD]} i
    COMPREPLY=()
    # Bash takes "--soft=IF" apart at the equals sign.
    local previous=${COMP_WORDS[COMP_CWORD - 1]} option=''
    if [[ $word == '=' ]]; then
        option=$previous word=''
    elif [[ $previous == '=' ]]; then
        option=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    case $option in
    --soft)
        mapfile -t COMPREPLY < <(compgen -W "$(_ruk_interfaces)" -- "$word")
        return
        ;;
    --mode)
        mapfile -t COMPREPLY < <(compgen -W 'fast exact fallback' -- "$word")
        return
        ;;
    --switch)
        mapfile -t COMPREPLY < <(compgen -W 'wire model' -- "$word")
        return
        ;;
    --replay)
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        return
        ;;
    esac

    for ((i = 1; i < COMP_CWORD; i++)); do
        if [[ ${COMP_WORDS[i]} == -- ]]; then
            if declare -F _command_offset >/dev/null && ((COMP_CWORD > i + 1)); then
                _command_offset $((i + 1))
            else
                mapfile -t COMPREPLY < <(compgen -c -- "$word")
            fi
            return
        fi
    done
    if [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_ruk_options "$1") --" -- "$word")
    else
        mapfile -t COMPREPLY < <(compgen -c -- "$word")
    fi
}

complete -F _ruk_complete ruk-accept ruk-bench ruk-capture ruk-info ruk-ping ruk-recv ruk-send ruk-top
complete -F _ruk_complete_rukrun rukrun

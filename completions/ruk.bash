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

# The option that the word belongs to, and the word: bash takes "--soft=IF" apart at the equals sign.
_ruk_option()
{
    word=${COMP_WORDS[COMP_CWORD]} option=${COMP_WORDS[COMP_CWORD - 1]} joined=''
    if [[ $word == '=' ]]; then
        word='' joined=1
    elif [[ $option == '=' ]]; then
        option=${COMP_WORDS[COMP_CWORD - 2]} joined=1
    fi
}

_ruk_complete()
{
    local word option joined
    _ruk_option
    local program=$1
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
    case $option in
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
    [[ -n $joined ]] && return

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
    local word option joined i
    COMPREPLY=()

    # The program stands behind "--", or is the first word that is neither an option nor what one takes.
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
        --)
            i=$((i + 1))
            break
            ;;
        =) i=$((i + 1)) ;;
        -*) ;;
        *) break ;;
        esac
    done
    if ((i < COMP_CWORD)); then
        if declare -F _command_offset >/dev/null; then
            _command_offset "$i"
        elif [[ ${COMP_WORDS[i]##*/} == ruk-* ]]; then
            COMP_WORDS=("${COMP_WORDS[@]:i}") COMP_CWORD=$((COMP_CWORD - i))
            _ruk_complete "${COMP_WORDS[0]}"
        else
            mapfile -t COMPREPLY < <(compgen -f -- "${COMP_WORDS[COMP_CWORD]}")
        fi
        return
    fi

    _ruk_option
    case ${joined:+$option} in
    --soft) # several, with commas between them
        local before=''
        [[ $word == *,* ]] && before=${word%,*},
        mapfile -t COMPREPLY < <(compgen -P "$before" -W "$(_ruk_interfaces)" -- "${word##*,}")
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
    [[ -n $joined ]] && return

    if [[ $word == -* && ${COMP_WORDS[COMP_CWORD - 1]} != -- ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(_ruk_options "$1") --" -- "$word")
    else
        mapfile -t COMPREPLY < <(compgen -c -- "$word")
    fi
}

complete -F _ruk_complete ruk-accept ruk-bench ruk-capture ruk-info ruk-ping ruk-recv ruk-send ruk-top
complete -F _ruk_complete_rukrun rukrun

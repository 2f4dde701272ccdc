# bash completion of vornctl: commands, options, and node names taken from
# the running daemon through `vornctl status` (with the same --root/--socket).

_vornctl_nodes() {
    local prog=$1
    shift
    # Node lines start with the slot (or "-" for a dropped node); the lines
    # under them are indented.
    "$prog" "$@" status 2>/dev/null | awk 'NR > 1 && /^[0-9-]/ { print $2 }'
}

_vornctl() {
    local cur=${COMP_WORDS[COMP_CWORD]}
    local prev=${COMP_WORDS[COMP_CWORD - 1]}
    local commands="query enable disable new-file global set-log-path agent archive status tail"
    local options="--root --socket --json --timeout --help --version"
    COMPREPLY=()

    case $prev in
        --root)
            mapfile -t COMPREPLY < <(compgen -d -- "$cur")
            return
            ;;
        --socket | --log)
            mapfile -t COMPREPLY < <(compgen -f -- "$cur")
            return
            ;;
        --timeout | --mask | -n)
            return
            ;;
    esac

    # The command, its operands so far, and the options that reach the daemon.
    local i word command="" operands=0
    local -a target=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        case $word in
            --root | --socket)
                target+=("$word" "${COMP_WORDS[i + 1]}")
                ((i++))
                ;;
            --timeout | --mask | --log | -n)
                ((i++))
                ;;
            -*) ;;
            *)
                if [[ -z $command ]]; then
                    command=$word
                else
                    ((operands++))
                fi
                ;;
        esac
    done

    if [[ -z $command ]]; then
        if [[ $cur == -* ]]; then
            mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
        else
            mapfile -t COMPREPLY < <(compgen -W "$commands" -- "$cur")
        fi
        return
    fi

    local own=""
    case $command in
        enable) own="--mask --wait" ;;
        disable | new-file | archive) own="--wait" ;;
        tail) own="-f -n" ;;
        agent) own="--follow-log --log" ;;
    esac
    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$own --json --timeout" -- "$cur")
        return
    fi
    case $command in
        query | enable | disable | new-file | tail)
            if ((operands == 0)); then
                local nodes
                nodes=$(_vornctl_nodes "${COMP_WORDS[0]}" "${target[@]}")
                mapfile -t COMPREPLY < <(compgen -W "$nodes" -- "$cur")
            fi
            ;;
    esac
}

complete -F _vornctl vornctl

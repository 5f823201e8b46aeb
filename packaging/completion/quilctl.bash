# bash completion for quilctl

_quilctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local verbs="listen create-session create-channel destroy-channel register-launch unregister-launch accept reject status trace codes"
    local verb=${COMP_WORDS[1]} options="--help"
    COMPREPLY=()
    if ((COMP_CWORD == 1)); then
        mapfile -t COMPREPLY < <(compgen -W "$verbs --help" -- "$current")
        return
    fi
    case $previous in
        --save) mapfile -t COMPREPLY < <(compgen -d -- "$current"); return ;;
        --exec) mapfile -t COMPREPLY < <(compgen -c -- "$current"); return ;;
        --ppg | --count | --timeout | --slow) return ;;
    esac
    case $verb in
        listen) options+=" --ppg --accept --reject --ask --exec --save --json --count --timeout" ;;
        create-channel) options+=" --ppg --json --timeout" ;;
        create-session | destroy-channel | register-launch | unregister-launch | accept | reject)
            options+=" --json --timeout" ;;
        status) options+=" --check --json" ;;
        trace) options+=" --json --slow" ;;
        codes) options+=" --json" ;;
    esac
    if [[ $verb == trace && $current != -* ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
    fi
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
}
complete -F _quilctl quilctl

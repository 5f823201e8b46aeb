# bash completion for quilctl

_quilctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local verbs="listen create-session create-channel destroy-channel query-channel register-launch unregister-launch accept reject status clients trace monitor rules codes"
    local verb=${COMP_WORDS[1]} options="--help"
    COMPREPLY=()
    if ((COMP_CWORD == 1)); then
        mapfile -t COMPREPLY < <(compgen -W "$verbs --help" -- "$current")
        return
    fi
    if [[ $verb == rules ]] && ((COMP_CWORD == 2)); then
        mapfile -t COMPREPLY < <(compgen -W "check explain --help" -- "$current")
        return
    fi
    case $previous in
        --file | --log) mapfile -t COMPREPLY < <(compgen -f -- "$current"); return ;;
        --save) mapfile -t COMPREPLY < <(compgen -d -- "$current"); return ;;
        --exec) mapfile -t COMPREPLY < <(compgen -c -- "$current"); return ;;
        --ppg | --count | --timeout | --slow | --app) return ;;
    esac
    case $verb in
        listen) options+=" --ppg --accept --reject --ask --exec --save --json --count --timeout" ;;
        create-channel) options+=" --ppg --json --timeout" ;;
        create-session | destroy-channel | query-channel | register-launch | unregister-launch | accept | reject)
            options+=" --json --timeout" ;;
        status) options+=" --check --json --timeout" ;;
        clients) options+=" --log --json --timeout" ;;
        trace) options+=" --json --slow" ;;
        monitor) options+=" --app --all --json" ;;
        codes) options+=" --json" ;;
        rules)
            case ${COMP_WORDS[2]} in
                check) options+=" --json" ;;
                explain) options+=" --file --json" ;;
            esac ;;
    esac
    if [[ $current != -* && ($verb == trace || $verb == monitor || "$verb ${COMP_WORDS[2]}" == "rules check") ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
    fi
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
}
complete -F _quilctl quilctl

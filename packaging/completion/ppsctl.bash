# bash completion for ppsctl: verbs, options, and the objects that there are

# Names below /pps that begin with $1, which is absolute (/pps/...) or below /pps.
_ppsctl_objects() {
    local current=$1 root=${QUIL_ROOT%/} prefix= entry
    [[ $current == /* ]] || prefix=/pps/
    while IFS= read -r entry; do
        [[ -d $entry ]] && entry+=/
        entry=${entry#"$root"}
        printf '%s\n' "${entry#"$prefix"}"
    done < <(compgen -f -- "$root$prefix$current")
}

_ppsctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local verb=${COMP_WORDS[1]} options="--help --json"
    COMPREPLY=()
    if ((COMP_CWORD == 1)); then
        mapfile -t COMPREPLY < <(compgen -W "ls cat clients watch write rm --help" -- "$current")
        return
    fi
    case $previous in
        --count | --timeout) return ;;
    esac
    if [[ $current == -* ]]; then
        case $verb in
            watch) options+=" --count --timeout" ;;
            write) options+=" --create" ;;
        esac
        mapfile -t COMPREPLY < <(compgen -W "$options" -- "$current")
        return
    fi
    if [[ $verb != write || $COMP_CWORD -eq 2 ]]; then
        mapfile -t COMPREPLY < <(_ppsctl_objects "$current")
        [[ ${COMPREPLY[0]-} == */ ]] && compopt -o nospace 2> /dev/null
    fi
}
complete -F _ppsctl ppsctl

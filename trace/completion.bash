# Completion of tsmtrace for bash. Where the command of 'run' begins, and for files, bash goes on by itself.
_tsmtrace() {
    local word options=''
    COMPREPLY=()
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        [[ $word != -- ]] || return 0
    done
    if ((COMP_CWORD == 1)); then
        options='run summary show export diff replay doctor --help --version'
    elif [[ $2 == -* ]]; then
        case ${COMP_WORDS[1]} in
            run) options='--output --checksums --size --keep --api' ;;
            summary) options='' ;;
            show) options='--handle --call --object --failed' ;;
            export) options='' ;;
            diff) options='' ;;
            replay) options='--config --output --api --password-file' ;;
            doctor) options='--output --config --error-log' ;;
        esac
    fi
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$2")
}
complete -o bashdefault -o default -F _tsmtrace tsmtrace

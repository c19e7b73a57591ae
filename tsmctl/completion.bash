# Completion of tsmctl for bash: tsmctl itself knows its commands and options. Where it cannot run, bash goes on as ever.
eval "$(tsmctl completion 2>/dev/null)"
complete -p tsmctl &>/dev/null || complete -o default tsmctl

# Completion of tsmctl for bash. tsmctl prints it; if it cannot run, bash completes names of files as usual.
eval "$(tsmctl completion 2>/dev/null)"
complete -p tsmctl &>/dev/null || complete -o default tsmctl

# Completion of tsmctl for bash: tsmctl itself knows its commands and options.
eval "$(tsmctl completion 2>/dev/null)"

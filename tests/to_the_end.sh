#!/bin/sh
# Runs a test program, which has to say at its end that it passed: one that a library ends before, even with the exit
# status 0, fails. Usage: to_the_end.sh PATTERN PROGRAM [ARGUMENT...]
pattern=$1
shift
case " $* " in *' --gtest_list_tests '*) exec "$@" ;; esac
output=$("$@" 2>&1)
status=$?
printf '%s\n' "$output"
[ $status -eq 0 ] || exit $status
printf '%s\n' "$output" | grep -qE "$pattern" || { echo "ended before its end"; exit 1; }

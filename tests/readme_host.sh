#!/bin/sh
# The host in the README is the one that is built here, and it does what it says. Usage: readme_host.sh PROGRAM
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
sed -n '/^```c$/,/^```$/p' "$root/README.md" | sed '1d;$d' | diff -u "$root/examples/first.c" -
work=$(mktemp -d)
trap 'rm -r "$work"' EXIT
cd "$work"
echo "STOREDIR store" >dsm.opt
test "$("$1")" = stored

#!/bin/sh
# Every failure in the client API's list has its row in docs/results.md and in the table of the tools, under its value and
# its name, and no other has.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
trap 'rm -r "$work"' EXIT
awk '$1 == "#define" && $3 > 0 { print -$3, $2 }' "$root/standin/include/dsmrc.h" | sort >"$work/list"
sed -n 's/^| \(-[0-9]*\) `\(DSM_RC_[A-Z_]*\)` .*/\1 \2/p' "$root/docs/results.md" | sort | diff -u "$work/list" -
sed -n 's/^CODE(\([1-9][0-9]*\), "\(DSM_RC_[A-Z_]*\)", ".*/-\1 \2/p' "$root/tables/codes.def" | sort | diff -u "$work/list" -
test -s "$work/list"
# The public header's version is the project's.
version=$(sed -n 's/^#define TSMCONNECTOR_VERSION_[A-Z]* //p' "$root/api/tsmconnector.h" | paste -sd .)
grep -q "project(tsmconnector VERSION $version " "$root/CMakeLists.txt"

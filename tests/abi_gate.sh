#!/bin/sh
# Holds the built library against what hosts bind to: its symbols, its name, what it needs.
# Usage: abi_gate.sh LIBRARY SYMBOL_LIST [exact]   (exact: the list of needed libraries as well)
set -eu
library=$1
work=$(mktemp -d)
trap 'rm -r "$work"' EXIT

nm -D --defined-only "$library" | awk '{print $3}' | LC_ALL=C sort >"$work/symbols"
diff -u "$2" "$work/symbols"

readelf -d "$library" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p' >"$work/soname"
# By its full name: hosts that were built ask for it.
echo libtsmconnector.so.1 | diff -u - "$work/soname"

if [ "${3:-}" = exact ]; then
    readelf -d "$library" | sed -n 's/.*Shared library: \[\(.*\)\]/\1/p' |
        grep -vE '^(libstdc\+\+\.so\.6|libm\.so\.6|libgcc_s\.so\.1|libc\.so\.6|libpthread\.so\.0|ld-linux.*)$' >"$work/needed" || true
    echo libApiTSM64.so | diff -u - "$work/needed"
fi
# Parameters, results and the record, as a dump of the bare-named functions holds them (abi.xml beside the symbols).
if command -v abidiff >/dev/null; then
    { echo '[abi_whitelist]'; grep '^Tsm' "$2" | sed 's/^/  /'; } >"$work/functions"
    printf '[suppress_variable]\n  name = tsmApi\n' >"$work/others"
    abidiff --kmi-whitelist "$work/functions" --suppressions "$work/others" "$(dirname "$2")/abi.xml" "$library"
else
    echo "abidiff is not installed: types not compared"
fi
echo "symbols, name and needed libraries are as listed"

#!/bin/sh
# Holds every program and library below the folders against what helps an attacker: libraries looked for in the current
# folder, addresses of functions that stay writable, and jumps to anywhere in them (as far as the compiler offers it).
# Usage: hardening.sh FOLDER...   (passes over CMake's own trials, and the API in trace-api/ that lacks functions)
set -eu
work=$(mktemp -d)
trap 'rm -r "$work"' EXIT

find "$@" -type f ! -name '*.o' ! -path '*/CMakeFiles/*' ! -path '*/trace-api/*' >"$work/files"
while read -r file; do
    readelf -Wdl "$file" >"$work/elf" 2>/dev/null || continue
    echo "$file" >>"$work/seen"
    ! sed -n 's/.*(R[UN]*PATH).*\[\(.*\)\]/:\1:/p' "$work/elf" | grep -E '::|:[^/$:]' || echo "$file: RUNPATH"
    grep -q GNU_RELRO "$work/elf" || echo "$file: no RELRO"
    grep -q BIND_NOW "$work/elf" || echo "$file: no BIND_NOW"
    case $(uname -m),${file##*/} in
        x86_64,libtsmconnector.so*) begin=TsmInitApi ;;
        x86_64,libApiTSM64.so) begin=dsmInitEx ;;
        x86_64,tsmctl | x86_64,tsm-standin-check | x86_64,tsmtrace) begin=main ;;
        x86_64,libtsmtrace.so) begin=dsmInitEx ;;
        *) continue ;;
    esac
    objdump -d --disassemble="$begin" "$file" | grep -q endbr64 || echo "$file: no control-flow protection"
done <"$work/files" >"$work/faults"
cat "$work/faults"
[ ! -s "$work/faults" ]
[ -s "$work/seen" ]
echo "sound: $(wc -l <"$work/seen") programs and libraries"

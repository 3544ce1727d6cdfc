#!/usr/bin/env bash
# Looks for the hardening in what was linked. usage: hardening_test.sh FORTIFIED FILE... where FORTIFIED is 1 if the
# files, which all print or copy, have to call the checking functions of the C library.
set -euo pipefail
fortified=$1
failed=0
for file in "${@:2}"; do
    has() {
        grep -qE "$2" <<<"$1" || { echo "$file: $3"; failed=1; }
    }
    symbols=$(readelf --dyn-syms --wide "$file")
    has "$(readelf --dynamic --wide "$file")" 'BIND_NOW|FLAGS_1.*NOW' 'is bound lazily (-z now)'
    has "$(readelf --program-headers --wide "$file")" GNU_RELRO 'stays writable (-z relro)'
    has "$symbols" __stack_chk_fail 'guards no stack (-fstack-protector)'
    # Pages may be of 16 KiB where addresses have 64 bits.
    if readelf -h "$file" | grep -q 'Class: *ELF64'; then
        for alignment in $(readelf -lW "$file" | awk '$1 == "LOAD" { print $NF }'); do
            ((alignment >= 16384)) || { echo "$file: a segment is aligned to $alignment bytes, less than 16 KiB"; failed=1; }
        done
    fi
    [ "$fortified" = 0 ] || has "$symbols" '__[a-z]+_chk' 'checks no call (_FORTIFY_SOURCE)'
done
exit $failed

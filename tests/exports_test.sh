#!/usr/bin/env bash
# Reads from a built libkelRt.so what it promises: the names that it exports, and those that it imports from the
# platform; no state but the sine's coefficients; segments that a 64-bit system with pages of 16 KiB can load.
# usage: exports_test.sh LIBRARY ABI_DESCRIPTION HEADER
set -euo pipefail
library=$1 description=$2 header=$3

symbols=$(readelf --dyn-syms --wide "$library")
exported=$(awk '$5 ~ /GLOBAL|WEAK/ && $6 == "DEFAULT" && $7 != "UND" && NF >= 8 { sub(/@.*/, "", $8); print $8 }' <<<"$symbols" | sort)
imported=$(awk '$7 == "UND" && NF >= 8 { sub(/@.*/, "", $8); print $8 }' <<<"$symbols" | sort)
wanted=$(sed -n "s/^ *<elf-symbol name='\([^']*\)'.*/\1/p" "$description" | sort)

failed=0
if ! difference=$(diff <(echo "$wanted") <(echo "$exported")); then
    printf 'exports differ (< wanted, > exported):\n%s\n' "$difference"
    failed=1
fi
for name in tivNnaMemoryPtr tivNnaMemorySize tivNnaMemorySyncCache tivNnaUdrv_dumpSram g_log_lvl g_log_file_max_size \
    resetTivLogFile tivIsProfileEvent __android_log_print; do
    grep -qx "$name" <<<"$imported" || { echo "$name is not imported from the platform"; failed=1; }
done
for name in $wanted; do
    grep -qE "\b$name\b" "$header" || { echo "$name is exported and not declared in $header"; failed=1; }
done
readelf --dynamic "$library" | grep -q 'SONAME.*\[libkelRt\.so\.1\]' || { echo "SONAME is not libkelRt.so.1"; failed=1; }

# Sanitizers keep books of their own. What a compiler's start-up code and its knowledge of the processor need is theirs.
if ! grep -qE '^__(a|t)san_init' <<<"$imported"; then
    writable=$(readelf -SW "$library" | sed -nE 's/^ *\[ *([0-9]+)\] \.t?(data|bss) .*/\1/p' | paste -sd'|')
    state=$(readelf -sW "$library" | awk -v sections="^($writable)\$" '$7 ~ sections && $3 > 0 { print $8 }' | sort -u |
        grep -vxE 'te_sin_coeff[2-5]|completed\.0|__dso_handle|__cpu_(model|features2)') || true
    [ -z "$state" ] || { echo "writable beside the sine's coefficients: $state"; failed=1; }
fi

if readelf -h "$library" | grep -q 'Class: *ELF64'; then
    for alignment in $(readelf -lW "$library" | awk '$1 == "LOAD" { print $NF }'); do
        ((alignment >= 16384)) || { echo "a segment is aligned to $alignment bytes, less than 16 KiB"; failed=1; }
    done
fi
exit $failed

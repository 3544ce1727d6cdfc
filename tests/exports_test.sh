#!/usr/bin/env bash
# Reads from a built libkelRt.so what it promises: the names that it exports, and those that it imports from the
# platform, and no others; no state but the sine's coefficients.
# usage: exports_test.sh LIBRARY ABI_DESCRIPTION HEADER
set -euo pipefail
library=$1 description=$2 header=$3

symbols=$(readelf --dyn-syms --wide "$library")
exported=$(awk '$5 ~ /GLOBAL|WEAK/ && $6 == "DEFAULT" && $7 != "UND" && NF >= 8 { sub(/@.*/, "", $8); print $8 }' <<<"$symbols" | sort)
imported=$(awk '$7 == "UND" && NF >= 8 { sub(/@.*/, "", $8); print $8 }' <<<"$symbols" | sort)
sanitized=$(grep -cE '^__(a|t)san_init' <<<"$imported") || true
wanted=$(sed -n "s/^ *<elf-symbol name='\([^']*\)'.*/\1/p" "$description" | sort)

failed=0
if ! difference=$(diff <(echo "$wanted") <(echo "$exported")); then
    printf 'exports differ (< wanted, > exported):\n%s\n' "$difference"
    failed=1
fi
platform=$(printf '%s\n' __android_log_print g_log_file_max_size g_log_lvl resetTivLogFile tivIsProfileEvent tivNnaMemoryPtr \
    tivNnaMemorySize tivNnaMemorySyncCache tivNnaUdrv_dumpSram)
# What the C library gives has a version.
asked=$(awk '$7 == "UND" && $5 == "GLOBAL" && $8 !~ /@/ { print $8 }' <<<"$symbols" | LC_ALL=C sort)
if [ "$sanitized" = 0 ] && ! difference=$(diff <(echo "$platform") <(echo "$asked")); then
    printf 'imports from the platform differ (< wanted, > imported):\n%s\n' "$difference"
    failed=1
fi
for name in $wanted; do
    grep -qE "\b$name\b" "$header" || { echo "$name is exported and not declared in $header"; failed=1; }
done
readelf --dynamic "$library" | grep -q 'SONAME.*\[libkelRt\.so\.1\]' || { echo "SONAME is not libkelRt.so.1"; failed=1; }

# What stays writable once the loader has relocated: only the sine's coefficients, and no bytes beside them but
# padding. Sanitizers keep books of their own. What a compiler's start-up code and its knowledge of the processor need
# is theirs; the global offset table is the loader's, which RISC-V's linker does not let it protect.
known='te_sin_coeff[2-5]|completed\.0|__dso_handle|__cpu_(model|features2)'
symbols=$(readelf -sW "$library" | awk '$4 ~ /OBJECT|TLS/ && $3 > 0 { print $7, $2, $3, $8 }' | sort -u)
read -r relro relro_size < <(readelf -lW "$library" | awk '$1 == "GNU_RELRO" { print $3, $6 }')
seen=""
while read -r section name start size flags; do
    if [[ $flags != *T* ]] && ((16#$start >= relro && 16#$start < relro + relro_size)); then continue; fi
    [ "$name" != .got ] || continue
    held=$(awk -v section="$section" '$1 == section' <<<"$symbols")
    state=$(awk 'NF { print $4 }' <<<"$held" | grep -vxE "$known" | paste -sd' ') || true
    [ -z "$state" ] || { echo "$name is writable, and not only the sine's coefficients: $state"; failed=1; }
    padding=$((16#$size - $(awk '{ n += $3 } END { print n + 0 }' <<<"$held")))
    ((padding < 32)) || { echo "$name is writable, $padding bytes of it without a name"; failed=1; }
    seen+=$(grep -cxE 'te_sin_coeff[2-5]' < <(awk 'NF { print $4 }' <<<"$held")) || true
done < <([ "$sanitized" != 0 ] ||
    readelf -SW "$library" | sed -nE 's/^ *\[ *([0-9]+)\] +/\1 /p' | awk '$8 ~ /W/ { print $1, $2, $4, $6, $8 }')
[[ "$sanitized" != 0 || "$seen" == *4* ]] || { echo "the sine's coefficients are not among what is writable"; failed=1; }
exit $failed

#!/usr/bin/env bash
# Compares the dynamic symbol table of a built libkelRt.so with the names it has to export, and with those it has to
# import from the platform. usage: exports_test.sh LIBRARY EXPORTS_FILE HEADER
set -euo pipefail
library=$1 expected=$2 header=$3

symbols=$(readelf --dyn-syms --wide "$library")
exported=$(awk '$5 ~ /GLOBAL|WEAK/ && $6 == "DEFAULT" && $7 != "UND" && NF >= 8 { sub(/@.*/, "", $8); print $8 }' <<<"$symbols" | sort)
imported=$(awk '$7 == "UND" && NF >= 8 { sub(/@.*/, "", $8); print $8 }' <<<"$symbols" | sort)
wanted=$(grep -v '^#' "$expected" | sort)

failed=0
if ! diff <(echo "$wanted") <(echo "$exported") >/tmp/exports.$$; then
    echo "exports differ (< wanted, > exported):"
    cat /tmp/exports.$$
    failed=1
fi
rm -f /tmp/exports.$$
for name in tivNnaMemoryPtr tivNnaMemorySize tivNnaMemorySyncCache tivNnaUdrv_dumpSram g_log_lvl g_log_file_max_size \
    resetTivLogFile tivIsProfileEvent __android_log_print; do
    grep -qx "$name" <<<"$imported" || { echo "$name is not imported from the platform"; failed=1; }
done
for name in $wanted; do
    grep -qE "\b$name\b" "$header" || { echo "$name is exported and not declared in $header"; failed=1; }
done
readelf --dynamic "$library" | grep -q 'SONAME.*\[libkelRt\.so\.1\]' || { echo "SONAME is not libkelRt.so.1"; failed=1; }
exit $failed

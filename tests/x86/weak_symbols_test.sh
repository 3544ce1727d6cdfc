#!/usr/bin/env bash
# Looks for functions that the linker may merge with others of the same name, in the objects of the instruction sets.
# An inline function compiled for AVX-512 could become everybody's. usage: weak_symbols_test.sh NM OBJECT...
set -euo pipefail
weak=$("$1" --print-file-name "${@:2}" | grep -E ' [WVu] ' || true)
[ -z "$weak" ] || { printf 'may stand in for code of other processors:\n%s\n' "$weak"; exit 1; }
echo "no weak symbol in $(($# - 1)) objects"

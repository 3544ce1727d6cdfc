#!/usr/bin/env bash
# Holds a built library against the description of its interface in the tree, or writes that anew.
# usage: abi.sh compare|accept LIBRARY DESCRIPTION HEADERS. Exits with 77 where the programs that do it are missing.
set -euo pipefail
what=$1 library=$2 description=$3 headers=$4

if ! { command -v abidw && command -v abidiff; } >/dev/null; then
    echo "skipped: Debian's abigail-tools is not installed"
    exit 77
fi
# Without it a change of a type would pass.
readelf --section-headers --wide "$library" | grep '\.debug_info' >/dev/null || {
    echo "$library has no debugging information to read types from"
    exit 1
}

describe() {  # Only what callers can see: exported names, and types that the headers define.
    abidw --headers-dir "$headers" --drop-private-types --exported-interfaces-only --drop-undefined-syms \
        --no-corpus-path --no-comp-dir-path --no-show-locs --no-elf-needed --type-id-style hash \
        --out-file "$1" "$library"
}
if [ "$what" = accept ]; then
    describe "$description"
    exit
fi

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
describe "$scratch/built.abi"
# Not told where the headers are: it would take types that name no file, which are all, for private and pass them.
abidiff --harmless "$description" "$scratch/built.abi" || {
    echo "differs from $(basename "$description"). docs/abi.md says what may change; ./dev abi --accept takes it"
    exit 1
}
# And it must notice: against a matrix of another size, it has to complain.
sed "s/'KelRtMatrix' size-in-bits='[0-9]*'/'KelRtMatrix' size-in-bits='8'/" "$description" >"$scratch/spoiled.abi"
! abidiff --harmless "$scratch/spoiled.abi" "$scratch/built.abi" >/dev/null || {
    echo "abidiff does not notice that a record has changed"
    exit 1
}

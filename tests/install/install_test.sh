#!/usr/bin/env bash
# Installs into an empty prefix, moves it, runs the tool from there, and builds and runs an outside driver by
# find_package and by pkg-config.
# usage: install_test.sh BUILD_DIR SOURCE_DIR C_COMPILER CXX_COMPILER "FLAGS" [EMULATOR...]
set -euo pipefail
build=$1 source=$2 cc=$3 cxx=$4 flags=$5
emulator=("${@:6}")

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cmake --install "$build" --prefix "$scratch/first" >"$scratch/log" || { cat "$scratch/log"; exit 1; }
mv "$scratch/first" "$scratch/moved"
prefix=$scratch/moved
if grep -rlF -e "$scratch/first" -e "$source" "$prefix/include" "$prefix"/lib*/cmake "$prefix"/lib*/pkgconfig \
    "$prefix"/lib/*/cmake "$prefix"/lib/*/pkgconfig 2>/dev/null; then
    echo "the files above name the place they were built or installed in"
    exit 1
fi

version=$(sed -n 's/^#define KEL_RT_VERSION_STRING "\(.*\)"$/\1/p' "$prefix/include/kelRt.h")
grep -q '^KELRT_BUILD_TOOLS:BOOL=OFF' "$build/CMakeCache.txt" ||
    "${emulator[@]}" "$prefix/bin/kelrt" --version | grep -qxF "kelrt $version" || {
    echo "bin/kelrt does not run from where it was moved, or is not version $version"
    exit 1
}

echo "find_package"
cmake -S "$source/tests/install" -B "$scratch/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_C_COMPILER="$cc" -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
    >"$scratch/log" && cmake --build "$scratch/build" >>"$scratch/log" || { cat "$scratch/log"; exit 1; }
"${emulator[@]}" "$scratch/build/driver"

echo "pkg-config"
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name kelRt.pc)")
export PKG_CONFIG_PATH
libdir=$(pkg-config --variable=libdir kelRt)
[ "$(pkg-config --modversion kelRt)" = "$version" ] || { echo "pkg-config knows another version than the header"; exit 1; }
# shellcheck disable=SC2046,SC2086
"$cc" -std=c11 $flags "$source/tests/install/driver.c" $(pkg-config --cflags --libs kelRt) -Wl,-rpath,"$libdir" \
    -o "$scratch/driver"
"${emulator[@]}" "$scratch/driver"
echo "both ways work"

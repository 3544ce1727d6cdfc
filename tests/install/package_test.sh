#!/usr/bin/env bash
# Packs the build for Debian, installs the package into an empty root with a package database of its own, runs the tool
# and a driver there, and removes it again. Nothing outside a temporary folder changes.
# usage: package_test.sh BUILD_DIR SOURCE_DIR C_COMPILER. Exits with 77 where root, or a program for this, is not at hand.
set -euo pipefail
build=$1 source=$2 cc=$3

[ "$(id -u)" = 0 ] || { echo "skipped: packages are installed by root only"; exit 77; }
for program in cpack dpkg dpkg-shlibdeps file; do
    command -v $program >/dev/null || { echo "skipped: $program is not installed"; exit 77; }
done
fail() {
    echo "$*"
    exit 1
}

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cpack --config "$build/CPackConfig.cmake" -B "$scratch/pack" >"$scratch/log" 2>&1 || { cat "$scratch/log"; exit 1; }
version=$(sed -n 's/^#define KEL_RT_VERSION_STRING "\(.*\)"$/\1/p' "$source/include/kelRt.h")
package=$(echo "$scratch/pack/kelrt_${version}_"*.deb)
[ -f "$package" ] || fail "there is no package of version $version: $(ls "$scratch/pack")"

# What the programs were linked with beside the package's own comes with other packages.
needed=$(dpkg-deb --field "$package" Depends)
for library in libc6 libstdc++6; do
    [[ $needed == *"$library (>="* ]] || fail "the package does not depend on $library: $needed"
done

root=$scratch/root
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
touch "$root/var/lib/dpkg/status"
# The database is empty, so nothing that the package depends on is in it.
dpkg_there() {
    dpkg --root="$root" --log="$scratch/dpkg.log" --force-depends "$@" >"$scratch/log" 2>&1 || { cat "$scratch/log"; exit 1; }
}
dpkg_there --install "$package"

[ "$("$root/usr/bin/kelrt" --version)" = "kelrt $version" ] || fail "the installed tool is not version $version"
"$root/usr/bin/kelrt" op cpu_ewop_add 'a=f4[2]:1.5,2' 'b=f4[2]:1.5,2' n=2 >/dev/null
for file in share/man/man1/kelrt.1 share/man/man3/libkelRt.3 share/man/man7/libkelRt_record.7; do
    gzip -t "$root/usr/$file.gz"
done
for file in lib/libkelRt_record.so share/bash-completion/completions/kelrt share/zsh/vendor-completions/_kelrt; do
    [ -f "$root/usr/$file" ] || fail "$file is not in the package"
done
export PKG_CONFIG_PATH="$root/usr/lib/pkgconfig"
[ "$(pkg-config --modversion kelRt)" = "$version" ] || fail "pkg-config finds another version"
# shellcheck disable=SC2046
"$cc" -std=c11 "$source/tests/install/driver.c" $(pkg-config --cflags --libs kelRt) -o "$scratch/driver"
LD_LIBRARY_PATH=$root/usr/lib "$scratch/driver"

dpkg_there --purge kelrt
left=$(find "$root" -path "$root/var/lib/dpkg" -prune -o ! -type d -print)
[ -z "$left" ] || fail "left behind: $left"
[ ! -e "$root/usr" ] || fail "folders left behind: $(find "$root/usr")"
echo "installed, run and removed: $(basename "$package")"

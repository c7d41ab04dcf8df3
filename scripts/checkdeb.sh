#!/usr/bin/env bash
# Checks a vrec .deb: its control data (name, version, architecture, and dependencies that
# match how the programs are linked), then installs it in a scratch root and runs what it
# installed there (through EMULATOR, such as qemu-aarch64-static, for a foreign
# architecture): each program's version, and its manual page.
#   scripts/checkdeb.sh PACKAGE.deb ARCH [EMULATOR]
set -euo pipefail
deb=$1
arch=$2
emulator=${3:-}
version=$(sed -n 's/^project(vrec VERSION \([0-9.]*\).*/\1/p' "$(dirname "$0")/../CMakeLists.txt")

fail() {
    echo "checkdeb FAILED ($(basename "$deb")): $*" >&2
    exit 1
}

info=$(dpkg-deb --info "$deb")
field() { sed -n "s/^ $1: //p" <<<"$info"; }
[ "$(field Package)" = vrec ] || fail "Package is '$(field Package)', not vrec"
[ "$(field Version)" = "$version" ] || fail "Version is '$(field Version)', not $version"
[ "$(field Architecture)" = "$arch" ] || fail "Architecture is '$(field Architecture)', not $arch"

scratch=$(mktemp -d /tmp/vrec-checkdeb-XXXXXX)
trap 'rm -rf "$scratch"' EXIT
root="$scratch/root"
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
touch "$root/var/lib/dpkg/status"
# The scratch root has no C library: a dynamic package's dependencies are not there.
dpkg --root="$root" --log=/dev/null --force-not-root --force-depends --force-architecture \
    -i "$deb" >"$scratch/dpkg.out" 2>&1 || {
    cat "$scratch/dpkg.out" >&2
    fail "dpkg could not install it in a scratch root"
}
dpkg --root="$root" -s vrec | grep -q "^Status: install ok installed" || fail "not installed"

mapfile -t programs < <(dpkg --root="$root" -L vrec | grep '^/usr/bin/' | sort)
[ ${#programs[@]} -ge 3 ] || fail "only ${#programs[@]} programs installed"
static=1
for path in "${programs[@]}"; do
    program=$(basename "$path")
    readelf -l "$root$path" | grep -q INTERP && static=0
    readelf -S "$root$path" | grep -q '\.debug_info' && fail "$program is not stripped"
    page="$root/usr/share/man/man1/$program.1"
    [ -f "$page" ] || fail "no manual page for $program"
    warnings=$(MANWIDTH=80 man --warnings -l "$page" 2>&1 >/dev/null) || fail "man $program"
    [ -z "$warnings" ] || fail "man $program warns: $warnings"
    # vrec prints from its forked child; the output file is complete once the child ended.
    (cd "$scratch" && $emulator "$root$path" --version >"$program.version" 2>&1) ||
        fail "$program --version failed"
    for _ in $(seq 100); do
        grep -q "$version" "$scratch/$program.version" && break
        sleep 0.05
    done
    grep -q "$version" "$scratch/$program.version" || fail "$program --version: no $version"
done
for doc in README.md LICENSE NOTICE; do
    [ -f "$root/usr/share/doc/vrec/$doc" ] || fail "no /usr/share/doc/vrec/$doc"
done
depends=$(field Depends)
if [ $static -eq 1 ]; then
    [ -z "$depends" ] || fail "static programs, yet Depends: $depends"
else
    grep -q "libc6" <<<"$depends" || fail "dynamic programs, yet Depends: '$depends'"
fi
echo "$(basename "$deb"): $arch, ${#programs[@]} programs ($([ $static -eq 1 ] && echo static ||
    echo "depends on $depends")), manual pages and documents; installs in a scratch root"

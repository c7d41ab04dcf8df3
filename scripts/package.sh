#!/usr/bin/env bash
# Builds the Debian packages of vrec into dist/ and checks each (scripts/checkdeb.sh):
# amd64 from a native release build, linked against the system's C library (the C++ and
# GCC runtimes are linked in);
# arm64 and armhf static, from the cross builds of scripts/cross.sh.
#   scripts/package.sh [amd64|arm64|armhf]...      (default: all three)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
jobs=${JOBS:-2}
dist="$root/dist"
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(amd64 arm64 armhf)

"$root/scripts/setup.sh"
mkdir -p "$dist"
for arch in "${targets[@]}"; do
    emulator=""
    case "$arch" in
        amd64)
            [ "$(dpkg --print-architecture)" = amd64 ] || {
                echo "amd64 is built natively, on an amd64 machine" >&2
                exit 2
            }
            build="$root/build-release"
            cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DVREC_WERROR=ON \
                -DVREC_TESTS=OFF -DVREC_BENCH=OFF >/dev/null
            cmake --build "$build" -j "$jobs" --target programs
            ;;
        arm64)
            "$root/scripts/cross.sh" aarch64 --build-only
            build="$root/build-aarch64"
            emulator=qemu-aarch64-static
            ;;
        armhf)
            "$root/scripts/cross.sh" armhf --build-only
            build="$root/build-armhf"
            emulator=qemu-arm-static
            ;;
        *)
            echo "usage: $0 [amd64|arm64|armhf]..." >&2
            exit 2
            ;;
    esac
    echo "== package for $arch"
    (cd "$build" && cpack -G DEB -B "$dist" >/dev/null)
    rm -rf "$dist/_CPack_Packages"
    "$root/scripts/checkdeb.sh" "$dist/vrec_$(sed -n 's/^project(vrec VERSION \([0-9.]*\).*/\1/p' \
        "$root/CMakeLists.txt")_$arch.deb" "$arch" $emulator
done
ls -l "$dist"/*.deb

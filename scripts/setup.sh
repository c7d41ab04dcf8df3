#!/usr/bin/env bash
# Installs what this project needs to build and test, and only what the machine lacks.
# Debian packages named as arguments are installed too where missing, for instance
#   scripts/setup.sh g++-aarch64-linux-gnu qemu-user-static      (what scripts/cross.sh needs)
set -euo pipefail

missing=()
have_cmd() { command -v "$1" >/dev/null 2>&1; }
have_pkg() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }

have_cmd g++ || missing+=(g++)
have_cmd make || missing+=(make)
have_cmd cmake || missing+=(cmake)
have_pkg libgtest-dev || missing+=(libgtest-dev)
have_pkg libgmock-dev || missing+=(libgmock-dev)
have_cmd ip || missing+=(iproute2)
# Wireshark's command-line reader: the tests of vrec-decode read its pcapng files with it.
have_cmd tshark || missing+=(tshark)
have_cmd clang++ || missing+=(clang)
# clang's libFuzzer, for the fuzz targets
compgen -G "/usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-*.a" >/dev/null ||
    missing+=(libclang-rt-dev)
have_cmd dpkg-shlibdeps || missing+=(dpkg-dev)
have_cmd man || missing+=(man-db)
# Storage that stalls, for the tests and the benchmark (vrec-stallfs).
have_cmd pkg-config || missing+=(pkg-config)
have_pkg libfuse3-dev || missing+=(libfuse3-dev)
have_cmd fusermount3 || missing+=(fuse3)
for package in "$@"; do
    have_pkg "$package" || missing+=("$package")
done

if [ ${#missing[@]} -gt 0 ]; then
    echo "Installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    sudo_cmd=""
    [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
    $sudo_cmd apt-get update -q
    $sudo_cmd apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

#!/usr/bin/env bash
# Installs what this project needs to build and test, and only what the machine lacks.
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

if [ ${#missing[@]} -gt 0 ]; then
    echo "Installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    sudo_cmd=""
    [ "$(id -u)" -eq 0 ] || sudo_cmd="sudo"
    $sudo_cmd apt-get update -q
    $sudo_cmd apt-get install -y -q --no-install-recommends "${missing[@]}"
fi

#!/usr/bin/env bash
# A first look at vrec: builds it if needed and shows what it offers.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)

if [ ! -x "$root/build/vrecCmd/vrec" ]; then
    "$root/scripts/setup.sh"
    cmake -S "$root" -B "$root/build" >/dev/null
    cmake --build "$root/build" -j 2 --target vrec
fi

"$root/build/vrecCmd/vrec" -h
# vrec puts itself in the background; give its output a moment to arrive.
sleep 0.5

#!/usr/bin/env bash
# Packages the build in $1 with CPack and checks the package as shipped.
set -euo pipefail
build=$1
out=$(mktemp -d /tmp/vrec-debtest-XXXXXX)
trap 'rm -rf "$out"' EXIT
(cd "$build" && cpack -G DEB -B "$out" >"$out/cpack.log" 2>&1) || {
    cat "$out/cpack.log"
    exit 1
}
"$(dirname "$0")/../../scripts/checkdeb.sh" "$out"/vrec_*.deb "$(dpkg --print-architecture)"

#!/usr/bin/env bash
# Builds vrec and its tools for an ARM board, statically and stripped, and proves them under
# qemu-user: `vrec -v`, then a capture from the simulator with rotating items, stopped with
# `vrec -s` and judged whole by vrec-inspect, all three programs running under emulation.
#   scripts/cross.sh aarch64|armhf [--build-only]
# The programs are left in build-<target>/; the smoke run works in a temporary directory.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
jobs=${JOBS:-2}
target=${1:-}
build_only=${2:-}

case "$target" in
    aarch64) triple=aarch64-linux-gnu qemu=qemu-aarch64-static ;;
    armhf) triple=arm-linux-gnueabihf qemu=qemu-arm-static ;;
    *)
        echo "usage: $0 aarch64|armhf [--build-only]" >&2
        exit 2
        ;;
esac
build="$root/build-$target"

vrec="$build/vrecCmd/vrec"
sim="$build/tools/vrec-modemsim"
inspect="$build/tools/vrec-inspect"

if [ -z "${VREC_CROSS_SMOKE_ONLY:-}" ]; then
    "$root/scripts/setup.sh" "g++-$triple" qemu-user-static

    echo "== building for $target"
    cmake -S "$root" -B "$build" -DCMAKE_TOOLCHAIN_FILE="$root/cmake/$triple.cmake" \
        -DCMAKE_BUILD_TYPE=Release -DVREC_STATIC=ON -DVREC_WERROR=ON -DVREC_TESTS=OFF \
        -DVREC_BENCH=OFF >/dev/null
    cmake --build "$build" -j "$jobs" --target programs
    mapfile -t programs <"$build/programs.txt"
    for program in "${programs[@]}"; do
        "$triple-strip" "$program"
        if "$triple-readelf" -l "$program" | grep -q INTERP; then
            echo "$program is not statically linked" >&2
            exit 1
        fi
        printf '%-40s %8d bytes, static, stripped\n' "${program#"$root"/}" \
            "$(stat -c %s "$program")"
    done
    [ "$build_only" != --build-only ] || exit 0

    # The smoke run uses the fixed UDP stop port: in a network namespace of its own where
    # the machine allows one, so that a test run beside it cannot take the port. With a
    # mount namespace too, vrec finds the simulator through a sysfs tree put over /sys/bus.
    # The files are removed out here, where the mounts of the namespace are not seen.
    if [ "$(id -u)" -eq 0 ] && unshare -n -m true 2>/dev/null; then
        work=$(mktemp -d "/tmp/vrec-cross-$target-XXXXXX")
        unshare -n -m env VREC_CROSS_SMOKE_ONLY=mounts VREC_CROSS_WORK="$work" bash -c \
            'ip link set lo up && mount --make-rprivate / && exec bash "$0" "$1"' "$0" "$target"
        rm -rf "$work"
        exit 0
    fi
fi

work=${VREC_CROSS_WORK:-$(mktemp -d "/tmp/vrec-cross-$target-XXXXXX")}
cd "$work"
sim_pid=""
capturing=""
cleanup() {
    if [ -n "$capturing" ]; then
        "$qemu" "$vrec" -s >/dev/null 2>&1 || true
    fi
    if [ -n "$sim_pid" ] && [ "$sim_pid" -gt 0 ]; then
        kill "$sim_pid" 2>/dev/null || true
        wait "$sim_pid" 2>/dev/null || true
    fi
}
trap cleanup EXIT
fail() {
    echo "smoke test FAILED ($target): $*" >&2
    for f in vrec.out simulator.out; do
        [ -f "$f" ] && sed "s/^/  $f: /" "$f" >&2
    done
    echo "  files kept in $work" >&2
    trap - EXIT
    cleanup
    exit 1
}
wait_for() {  # FILE TEXT SECONDS
    for _ in $(seq $((${3} * 20))); do
        grep -q "$2" "$1" 2>/dev/null && return 0
        sleep 0.05
    done
    return 1
}

echo "== $qemu vrec -v"
"$qemu" "$vrec" -v >version.out 2>&1
wait_for version.out "Compiled at" 5 || fail "vrec -v printed no version"
grep -q "vrec, Ver: " version.out || fail "vrec -v printed no version"
cat version.out

# The whole start table goes out (no startcmd.txt): it proves the tables that the build
# machine generated for the target. 40,000 packets of about 95 bytes make four 1 MB items.
packets=40000
echo "== capture under $qemu: vrec-modemsim --total $packets, vrec -c 1, vrec -s"
"$qemu" "$sim" --diag ./diag --pcui ./pcui --sysfs tree --rate 20000 --total "$packets" \
    >simulator.out 2>&1 &
sim_pid=$!
wait_for simulator.out ready 20 || fail "the simulator did not start"
port=(-d ./diag)
if [ "${VREC_CROSS_SMOKE_ONLY:-}" = mounts ]; then
    # A /dev of our own with the terminals and the names the tree gives the module's Diag
    # (interface 1) and PCUI (interface 2) ports.
    mkdir -p dev/pts
    touch dev/null dev/ptmx
    ln -s "$work/diag" dev/ttyUSB1
    ln -s "$work/pcui" dev/ttyUSB2
    mount --bind tree/sys/bus /sys/bus
    for name in null pts ptmx; do mount --bind "/dev/$name" "dev/$name"; done
    mount --rbind dev /dev
    port=()
    echo "(the ports are found through sysfs)"
fi
capturing=1
"$qemu" "$vrec" "${port[@]}" -c 1 -r 0 >vrec.out 2>&1
wait_for vrec.out "running in the background\|^Done\." 60 &&
    grep -q "running in the background" vrec.out || fail "vrec did not start its capture"
# The stream ends after its last packet; the capture is complete once the files stop growing.
previous=-1
for _ in $(seq 120); do
    size=$(cat real_log*.bin 2>/dev/null | wc -c)
    [ "$size" -eq "$previous" ] && [ "$size" -gt 0 ] && break
    previous=$size
    sleep 1
done
"$qemu" "$vrec" -s >stop.out 2>&1
wait_for vrec.out "Stop capturing log" 30 || fail "vrec -s did not stop the capture"
capturing=""
ls -l real_log*.bin
items=$(find . -maxdepth 1 -name 'real_logitem_*.bin' | wc -l)
[ "$items" -ge 3 ] || fail "expected at least 3 rotated items, found $items"
"$qemu" "$inspect" real_log*.bin | tee inspect.out || fail "vrec-inspect found the capture broken"
grep -q "sequence: $packets packets, first 0, last $((packets - 1)), missing 0" inspect.out ||
    fail "the capture does not hold all $packets packets"
echo "== $target: smoke capture whole ($items items, $packets packets)"
trap - EXIT
cleanup
if [ -z "${VREC_CROSS_WORK:-}" ]; then
    rm -rf "$work"
fi

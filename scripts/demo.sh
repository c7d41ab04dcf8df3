#!/usr/bin/env bash
# A first capture without hardware, in demo/: builds vrec and its tools if need be, then
#  1. captures the module simulator's made-up stream for a few seconds, stops the capture with
#     `vrec -s` and lets vrec-inspect judge it (its sequence numbers prove nothing was lost);
#  2. captures a real phone's stream (examples/real-diag-lte-gsm.bin) replayed by the
#     simulator, converts it with vrec-decode to demo/signalling.pcapng and shows its first
#     records as Wireshark's tshark prints them.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build"
seconds=${DEMO_SECONDS:-3}
programs=(vrecCmd/vrec tools/vrec-modemsim tools/vrec-inspect tools/vrec-decode)

for p in "${programs[@]}"; do
    if [ ! -x "$build/$p" ]; then
        "$root/scripts/setup.sh"
        cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
        cmake --build "$build" -j 2 --target vrec vrec-modemsim vrec-inspect vrec-decode
        break
    fi
done
vrec="$build/vrecCmd/vrec"
sim=""
trap '[ -n "$sim" ] && kill "$sim" 2>/dev/null || true' EXIT

wait_for() {  # TEXT FILE TENTHS: wait until FILE holds TEXT
    for _ in $(seq "$3"); do grep -q "$1" "$2" 2>/dev/null && return 0; sleep 0.1; done
    echo "demo: no \"$1\" in $2" >&2
    return 1
}

# Starts the simulator with the given options on ./diag, captures with vrec until the
# command given last succeeds, and stops the capture.
capture() {
    local until=$1
    shift
    "$build/tools/vrec-modemsim" --diag ./diag --record simulator-record.txt "$@" \
        >simulator.out 2>&1 &
    sim=$!
    wait_for ready simulator.out 50
    echo "== vrec -d ./diag   (the module's stream goes to real_log.bin)"
    # vrec goes on in the background and keeps printing here; its copy in vrec.out tells
    # when the start commands are through and the stop channel is open.
    "$vrec" -d ./diag > >(tee vrec.out) 2>&1
    wait_for "running in the background" vrec.out 200
    eval "$until"
    echo "== vrec -s"
    "$vrec" -s >/dev/null || true
    wait_for "Stop capturing log" vrec.out 100
    kill "$sim" 2>/dev/null || true
    wait "$sim" 2>/dev/null || true
    sim=""
}

demo="$root/demo"
rm -rf "$demo"
mkdir -p "$demo/made-up"
echo "== working in $demo"

cd "$demo/made-up"
echo "== 1. the simulator's made-up stream, $seconds s"
capture "sleep $seconds" --rate 20000
ls -l
# Stopped while the module still streams, the capture may end inside a frame: accepted.
echo "== vrec-inspect --allow-cut-end real_log.bin"
"$build/tools/vrec-inspect" --allow-cut-end real_log.bin | tail -4

cd "$demo"
sample="$root/examples/real-diag-lte-gsm.bin"
echo
echo "== 2. a real phone's stream, $(basename "$sample") played by the simulator"
capture "wait_for 'replay end' simulator-record.txt 100; sleep 0.5" --replay "$sample"
echo "== vrec-decode -o signalling.pcapng real_log.bin"
"$build/tools/vrec-decode" -o signalling.pcapng real_log.bin 2>&1 | head -20
if command -v tshark >/dev/null; then
    echo "== tshark -r demo/signalling.pcapng -c 10"
    tshark -r signalling.pcapng -c 10 2>/dev/null
else
    echo "== tshark is not installed (scripts/setup.sh installs it); open demo/signalling.pcapng in Wireshark"
fi

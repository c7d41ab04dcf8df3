#!/usr/bin/env bash
# Usage: scripts/fuzz.sh [SECONDS [BUILD]]
# Fuzzes every parser of outside input for SECONDS each (default 20), two targets at a time,
# with clang's libFuzzer, in BUILD (default build-fuzz, made with clang and the sanitizers; a
# given one must have been configured with -DVREC_LIBFUZZER=ON). Where clang or libFuzzer is
# missing it says so and ends with 0: the corpus replay of the ordinary tests still runs.
# New inputs go to BUILD/corpus, failing ones to BUILD/failures; an input that failed belongs
# in tests/fuzz/corpus/TARGET/ as regression-WHAT once it is fixed.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-20}
build=${2:-$root/build-fuzz}

probe=$(mktemp -d)
trap 'rm -rf "$probe"' EXIT
echo 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }' \
    >"$probe/probe.cpp"
if ! command -v clang++ >/dev/null 2>&1 ||
    ! clang++ -fsanitize=fuzzer "$probe/probe.cpp" -o "$probe/probe" 2>/dev/null; then
    echo "== fuzzing skipped: clang++ with libFuzzer is not installed"
    exit 0
fi

targets=()
for dir in "$root"/tests/fuzz/corpus/*/; do
    targets+=("$(basename "$dir")")
done
echo "== fuzzing ${targets[*]}: ${seconds} s each"
if [ ! -f "$build/CMakeCache.txt" ]; then
    CC=clang CXX=clang++ cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DVREC_WERROR=ON -DVREC_SANITIZE=ON -DVREC_LIBFUZZER=ON >/dev/null
elif ! grep -q '^VREC_LIBFUZZER:BOOL=ON' "$build/CMakeCache.txt"; then
    echo "fuzz.sh: $build was not configured with -DVREC_LIBFUZZER=ON" >&2
    exit 2
fi
cmake --build "$build" -j "${JOBS:-2}" --target "${targets[@]/#/fuzz_}" >/dev/null

mkdir -p "$build/failures"
run_one() {
    local target=$1 log="$build/failures/$1.log"
    mkdir -p "$build/corpus/$target"
    if "$build/tests/fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=10 \
        -artifact_prefix="$build/failures/$target-" \
        "$build/corpus/$target" "$root/tests/fuzz/corpus/$target" >"$log" 2>&1; then
        echo "$target: $(grep -o 'Done [0-9]* runs' "$log" || echo 'done')"
    else
        echo "$target: FAILED, see $log"
        return 1
    fi
}
export -f run_one
export build root seconds
printf '%s\n' "${targets[@]}" | xargs -P 2 -I{} bash -c 'run_one {}'

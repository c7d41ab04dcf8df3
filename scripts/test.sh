#!/usr/bin/env bash
# The whole suite: installs what is missing, builds twice, warnings as errors in both: with
# g++, and with clang under AddressSanitizer and UndefinedBehaviorSanitizer, so that both
# compilers build the project and run every test. Then runs the tests of both builds.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
jobs=${JOBS:-2}

"$root/scripts/setup.sh"

build() {
    local dir=$1
    shift
    cmake -S "$root" -B "$dir" -DVREC_WERROR=ON "$@" >/dev/null
    cmake --build "$dir" -j "$jobs"
}

build "$root/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo
build "$root/build-asan" -DCMAKE_BUILD_TYPE=Debug -DVREC_SANITIZE=ON -DCMAKE_CXX_COMPILER=clang++

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

status=0
echo "== tests, g++ build"
(cd "$root/build" && ctest -j "$jobs" --output-on-failure) || status=1
echo "== tests, clang sanitizer build"
(cd "$root/build-asan" && ctest -j "$jobs" --output-on-failure) || status=1

# Fuzzing: each parser's target for about 20 s, two at a time, where clang's libFuzzer is at
# hand (the corpus replay above runs everywhere).
# A build of its own (build-fuzz), so that no test of the program runs with the fuzzer's
# coverage counters slowing it down.
"$root/scripts/fuzz.sh" 20 || status=1
exit $status

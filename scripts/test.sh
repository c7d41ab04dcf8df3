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
# The benchmarks print figures and are no tests: the sanitizer build leaves them out.
build "$root/build-asan" -DCMAKE_BUILD_TYPE=Debug -DVREC_SANITIZE=ON -DCMAKE_CXX_COMPILER=clang++ \
    -DVREC_BENCH=OFF

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

# Most tests wait on the simulator, pipes and timers rather than on the processor, so they
# run six at a time; the load tests run alone all the same (RUN_SERIAL).
test_jobs=${TEST_JOBS:-6}
status=0
echo "== tests, g++ build"
(cd "$root/build" && ctest -j "$test_jobs" --output-on-failure) || status=1
echo "== tests, clang sanitizer build"
(cd "$root/build-asan" && ctest -j "$test_jobs" --output-on-failure) || status=1

# The fuzz targets' corpora were replayed above (fuzz.replay.*); fuzzing proper is
# scripts/fuzz.sh, which CI runs after this.
exit $status

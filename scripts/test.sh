#!/bin/sh
# Runs every test of the project, as root on a Debian bookworm machine:
#   1. installs what is missing (apt-get),
#   2. builds the agent and runs the unit, simulated-device and end-to-end
#      suites (the agent always runs inside the simulated device),
#   3. does the same with AddressSanitizer and UndefinedBehaviorSanitizer,
#   4. runs each fuzz target for a bounded time (KC_FUZZ_SECONDS, default 30),
#   5. cross-builds for the big-endian MIPS target and runs the unit and
#      end-to-end suites under qemu-mips (target/test-target.sh).
# Set KC_SKIP_FUZZ=1, KC_SKIP_SANITIZE=1 or KC_SKIP_TARGET=1 to leave a
# stage out locally.
set -eu
cd "$(dirname "$0")/.."
top=$(pwd)

scripts/install-deps.sh

stage() { printf '\n==== %s ====\n' "$*"; }

run_suites() {
    dir=$1
    shift
    stage "build $dir"
    cmake -S "$top" -B "$dir" -G Ninja "$@" >/dev/null
    cmake --build "$dir"
    stage "tests in $dir"
    (cd "$dir" && ctest --output-on-failure)
}

run_suites build -DCMAKE_BUILD_TYPE=RelWithDebInfo

if [ "${KC_SKIP_SANITIZE:-0}" != 1 ]; then
    run_suites build-asan -DCMAKE_BUILD_TYPE=Debug -DKC_SANITIZE=ON
fi

if [ "${KC_SKIP_FUZZ:-0}" != 1 ]; then
    stage "fuzzers"
    tests/fuzz/run-fuzzers.sh
fi

if [ "${KC_SKIP_TARGET:-0}" != 1 ]; then
    stage "big-endian MIPS target"
    target/test-target.sh
fi

stage "all test stages passed"

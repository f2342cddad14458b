#!/bin/sh
# Runs every test of the project, as root on a Debian bookworm machine:
#   1. installs what is missing (apt-get),
#   2. builds the agent and runs the unit tests, the replay of every fuzz
#      corpus, the simulated-device, server and package suites, the
#      end-to-end suites (the agent always runs inside the simulated device,
#      in a network of its own) and the interoperability suite,
#   3. builds with AddressSanitizer and UndefinedBehaviorSanitizer and runs
#      the unit tests, the corpus replays and the end-to-end suites again,
#   4. builds the agent with ThreadSanitizer and runs the end-to-end
#      transport and fault suites with it,
#   5. runs each fuzz target for a bounded time (KC_FUZZ_SECONDS, default 30),
#   6. cross-builds for the big-endian MIPS target and runs the unit and
#      end-to-end suites under qemu-mips (target/test-target.sh).
# Suites that wait more than they compute run side by side (KC_JOBS, default
# 4 at a time); every test makes its own device and network.
# Set KC_SKIP_FUZZ=1, KC_SKIP_SANITIZE=1, KC_SKIP_TSAN=1 or KC_SKIP_TARGET=1
# to leave a stage out locally.  Long fuzzing and the benchmarks are separate
# commands (tests/fuzz/run-fuzzers.sh --long, scripts/bench.sh).
set -eu
cd "$(dirname "$0")/.."
top=$(pwd)
jobs=${KC_JOBS:-4}

scripts/install-deps.sh

stage() { printf '\n==== %s ==== (%s)\n' "$*" "$(date +%H:%M:%S)"; }

configure() {
    dir=$1
    shift
    stage "build $dir"
    cmake -S "$top" -B "$dir" -G Ninja "$@" >/dev/null
}

run_ctest() {
    dir=$1
    shift
    stage "tests in $dir"
    (cd "$dir" && ctest -j "$jobs" --output-on-failure "$@")
}

configure build -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build
run_ctest build

if [ "${KC_SKIP_SANITIZE:-0}" != 1 ]; then
    configure build-asan -DCMAKE_BUILD_TYPE=Debug -DKC_SANITIZE=ON
    cmake --build build-asan
    # The device, server, package and interoperability suites test the
    # test infrastructure or repeat the end-to-end scenarios against other
    # servers; the plain build runs them.
    run_ctest build-asan -E '^(device|server|package|interop)$'
fi

if [ "${KC_SKIP_TSAN:-0}" != 1 ]; then
    configure build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKC_TSAN=ON
    cmake --build build-tsan --target korvat-cloud fastsleep shell_probe
    # The suites where threads meet: connection, framing, queues,
    # reconnection, SIGTERM; a ThreadSanitizer report fails the test.
    run_ctest build-tsan -R '^e2e\.(startup|framing|handshake|tls|queueing|backoff|dispatch|host_safety)$'
fi

if [ "${KC_SKIP_FUZZ:-0}" != 1 ]; then
    stage "fuzzers"
    tests/fuzz/run-fuzzers.sh
fi

if [ "${KC_SKIP_TARGET:-0}" != 1 ]; then
    stage "big-endian MIPS target"
    CTEST_ARGS="-j $jobs" target/test-target.sh
fi

stage "all test stages passed"

#!/bin/sh
# Runs every test of the project, as root on a Debian bookworm machine:
#   1. installs what is missing (apt-get),
#   2. builds the agent and runs the unit tests, the replay of every fuzz
#      corpus, the simulated-device, server and package suites and the
#      interoperability suite (the agent against three other servers),
#   3. builds with AddressSanitizer and UndefinedBehaviorSanitizer and runs
#      the unit tests, the corpus replays and the end-to-end suites (the
#      agent always runs inside the simulated device, in a network of its
#      own); the optimised agent runs them in the interoperability suite
#      above and as the MIPS build in stage 6,
#   4. builds the agent with ThreadSanitizer and runs the end-to-end
#      transport and fault suites with it,
#   5. runs each fuzz target for a bounded time (KC_FUZZ_SECONDS, default 15),
#   6. cross-builds for the big-endian MIPS target and runs the unit and
#      end-to-end suites under qemu-mips (target/test-target.sh).
# Time: the suites mostly wait (sandboxes, sockets, sleeps), so they run
# KC_JOBS at a time (default 4), and the later stages' builds run in the
# background (niced) while the first stage's tests run; the fuzzers run
# beside the ThreadSanitizer suites.  KC_SERIAL=1 runs everything in order.
# Set KC_SKIP_FUZZ=1, KC_SKIP_SANITIZE=1, KC_SKIP_TSAN=1 or KC_SKIP_TARGET=1
# to leave a stage out locally.  Long fuzzing and the benchmarks are separate
# commands (tests/fuzz/run-fuzzers.sh --long, scripts/bench.sh).
set -eu
case "${1:-}" in
"") ;;
-h | --help)
    echo "usage: scripts/test.sh    (settings in the environment, below)"
    sed -n '2,/^set -eu/p' "$0" | sed -e '$d' -e 's/^# \{0,1\}//'
    exit 0 ;;
*) echo "usage: scripts/test.sh (no arguments; --help for the settings)" >&2; exit 2 ;;
esac
cd "$(dirname "$0")/.."
top=$(pwd)
jobs=${KC_JOBS:-4}
skip_sanitize=${KC_SKIP_SANITIZE:-0}
skip_tsan=${KC_SKIP_TSAN:-0}
skip_fuzz=${KC_SKIP_FUZZ:-0}
skip_target=${KC_SKIP_TARGET:-0}

scripts/install-deps.sh

stage() { printf '\n==== %s ==== (%s)\n' "$*" "$(date +%H:%M:%S)"; }

run_ctest() {
    dir=$1
    shift
    stage "tests in $dir"
    (cd "$dir" && ctest -j "$jobs" --output-on-failure "$@")
}

# The builds of the later stages, in order; each stage waits for its own.
build_asan() {
    cmake -S "$top" -B build-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DKC_SANITIZE=ON >/dev/null
    cmake --build build-asan
}
build_tsan() {
    cmake -S "$top" -B build-tsan -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKC_TSAN=ON >/dev/null
    cmake --build build-tsan --target korvat-cloud fastsleep shell_probe
}
build_later_stages() {
    [ "$skip_sanitize" = 1 ] || { build_asan && touch "$marks/asan"; } || return 1
    [ "$skip_tsan" = 1 ] || { build_tsan && touch "$marks/tsan"; } || return 1
    [ "$skip_fuzz" = 1 ] || { tests/fuzz/run-fuzzers.sh --build-only && touch "$marks/fuzz"; } ||
        return 1
    [ "$skip_target" = 1 ] ||
        { target/build-target.sh build-mips -DKC_TESTS=ON -DCMAKE_BUILD_TYPE=MinSizeRel &&
              touch "$marks/mips"; } || return 1
}

marks=$(mktemp -d /tmp/kc-test-XXXXXX)
bg=""
# Must not fail: under set -e a failing command here (such as kill of a
# builder that has already ended) would make the whole run exit 1.
cleanup() {
    if [ -n "$bg" ]; then kill "$bg" 2>/dev/null || true; fi
    rm -rf "$marks"
}
trap cleanup EXIT

# Waits for the background build of one stage; fails when it failed.
wait_build() {
    [ "${KC_SERIAL:-0}" = 1 ] && return 0
    while [ ! -e "$marks/$1" ]; do
        if [ -e "$marks/failed" ]; then
            stage "background build failed"
            cat "$marks/log"
            exit 1
        fi
        sleep 2
    done
}

stage "build build"
cmake -S "$top" -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build

if [ "${KC_SERIAL:-0}" != 1 ]; then
    stage "later builds start in the background (log: build-later.log)"
    (
        # lower priority than the tests that run meanwhile
        renice -n 10 "$(sh -c 'echo $PPID')" >/dev/null 2>&1 || true
        if build_later_stages >"$marks/log" 2>&1; then :; else touch "$marks/failed"; fi
        cp "$marks/log" build-later.log 2>/dev/null || true
    ) &
    bg=$!
fi

# The end-to-end suites run once on the host: in the sanitizer build below,
# or here when that stage is left out.  The long run that bounds threads,
# descriptors and memory (label soak) runs here in either case.
if [ "$skip_sanitize" = 1 ]; then
    run_ctest build
else
    run_ctest build -LE '^e2e$'
fi

if [ "$skip_sanitize" != 1 ]; then
    [ "${KC_SERIAL:-0}" = 1 ] && build_asan
    wait_build asan
    # The device, server, package and interoperability suites test the
    # test infrastructure or repeat the end-to-end scenarios against other
    # servers, and the long run's figures (soak) mean something only
    # without the sanitizers: the plain build runs them.
    run_ctest build-asan -LE '^(device|server|package|interop|soak)$'
fi

fuzz_pid=""
if [ "$skip_fuzz" != 1 ]; then
    [ "${KC_SERIAL:-0}" = 1 ] && tests/fuzz/run-fuzzers.sh --build-only
    wait_build fuzz
    stage "fuzzers (beside the next stage)"
    KC_FUZZ_SECONDS=${KC_FUZZ_SECONDS:-15} tests/fuzz/run-fuzzers.sh > "$marks/fuzz.log" 2>&1 &
    fuzz_pid=$!
fi

if [ "$skip_tsan" != 1 ]; then
    [ "${KC_SERIAL:-0}" = 1 ] && build_tsan
    wait_build tsan
    # The suites where threads meet: connection, framing, queues,
    # reconnection, SIGTERM; a ThreadSanitizer report fails the test.
    run_ctest build-tsan -L '^threads$'
fi

if [ -n "$fuzz_pid" ]; then
    status=0
    wait "$fuzz_pid" || status=$?
    stage "fuzzers"
    cat "$marks/fuzz.log"
    [ "$status" = 0 ] || exit "$status"
fi

if [ "$skip_target" != 1 ]; then
    wait_build mips
    stage "big-endian MIPS target"
    CTEST_ARGS="-j $jobs" target/test-target.sh
fi

stage "all test stages passed"

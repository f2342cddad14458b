#!/bin/sh
# Builds the fuzz targets with clang (-DKC_FUZZ=ON, AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs each for a bounded time on a copy of
# its seed corpus.  Exits non-zero if any target crashed, leaked, timed out
# or printed a sanitizer report.
#
#   KC_FUZZ_SECONDS   seconds per target (default 60)
#   KC_FUZZ_BUILD     build directory (default build-fuzz at the top)
#   KC_FUZZ_TARGETS   targets to run (default: all four)
set -eu
top=$(cd "$(dirname "$0")/../.." && pwd)
seconds=${KC_FUZZ_SECONDS:-60}
build=${KC_FUZZ_BUILD:-$top/build-fuzz}
targets=${KC_FUZZ_TARGETS:-fuzz_frame_reader fuzz_server_handshake fuzz_url fuzz_dispatcher}

cmake -S "$top" -B "$build" -G Ninja -DKC_FUZZ=ON -DKC_TESTS=OFF \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
# shellcheck disable=SC2086
cmake --build "$build" --target $targets

work=$(mktemp -d /tmp/kc-fuzz-XXXXXX)
trap 'rm -rf "$work"' EXIT INT TERM
artifacts="$build/fuzz-artifacts"
mkdir -p "$artifacts"

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:handle_abort=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}"

failed=""
for target in $targets; do
    corpus="$work/$target"
    mkdir -p "$corpus"
    if [ -d "$top/tests/fuzz/corpus/$target" ]; then
        cp -R "$top/tests/fuzz/corpus/$target/." "$corpus/"
    fi
    log="$work/$target.log"
    printf '%s: %s s ... ' "$target" "$seconds"
    status=0
    "$build/tests/fuzz/$target" -max_total_time="$seconds" -timeout=20 \
        -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="$artifacts/$target-" "$corpus" >"$log" 2>&1 || status=$?
    if [ "$status" -ne 0 ] ||
        grep -Eq 'ERROR: (AddressSanitizer|LeakSanitizer|libFuzzer)|runtime error:|SUMMARY: ' "$log"; then
        echo "FAILED (exit $status)"
        tail -n 60 "$log"
        failed="$failed $target"
    else
        runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
        echo "ok (${runs:-?} runs)"
    fi
done

if [ -n "$failed" ]; then
    echo "fuzz targets that failed:$failed (inputs in $artifacts)" >&2
    exit 1
fi

#!/bin/sh
# Builds the fuzz targets with clang (-DKC_FUZZ=ON, AddressSanitizer and
# UndefinedBehaviorSanitizer) and runs each on its seed corpus.  Exits
# non-zero if any target crashed, leaked, timed out or printed a sanitizer
# report; the input that did it is kept in $build/fuzz-artifacts.  For each
# target it prints the executions, the seconds, the executions per second
# and the coverage (libFuzzer's "cov", the instrumented edges reached).
#
#   run-fuzzers.sh            the short run of the default test run
#                             (scripts/test.sh): KC_FUZZ_SECONDS per target,
#                             on a throw-away copy of the seed corpus
#   run-fuzzers.sh --build-only   builds the targets and stops
#   run-fuzzers.sh --long     the long run, by hand (not part of the test
#                             run): each target until KC_FUZZ_RUNS executions
#                             or KC_FUZZ_LONG_SECONDS seconds, whichever comes
#                             first; the corpus it grows is kept in
#                             $build/fuzz-corpus/<target> and taken up again
#                             by the next long run; its summary is added to
#                             $build/fuzz-long-runs.txt
#
#   KC_FUZZ_SECONDS       seconds per target in the short run (default 30)
#   KC_FUZZ_RUNS          executions per target in the long run (default
#                         10000000)
#   KC_FUZZ_LONG_SECONDS  time limit per target in the long run (default
#                         3600)
#   KC_FUZZ_BUILD         build directory (default build-fuzz at the top)
#   KC_FUZZ_TARGETS       targets to run (default: all of them)
#
# Every input has 20 s (-timeout=20); a slower one is reported as a
# time-out.  Builds use cmake's default parallelism; set
# CMAKE_BUILD_PARALLEL_LEVEL to bound it.
set -eu
top=$(cd "$(dirname "$0")/../.." && pwd)

mode=short
case "${1:-}" in
    "") ;;
    --long) mode=long ;;
    --build-only) mode=build ;;
    -h | --help)
        sed -n '2,/^set -eu/p' "$0" | sed -e '$d' -e 's/^# \{0,1\}//'
        exit 0
        ;;
    *)
        echo "usage: $0 [--long | --build-only]" >&2
        exit 2
        ;;
esac

seconds=${KC_FUZZ_SECONDS:-30}
runs=${KC_FUZZ_RUNS:-10000000}
long_seconds=${KC_FUZZ_LONG_SECONDS:-3600}
build=${KC_FUZZ_BUILD:-$top/build-fuzz}
targets=${KC_FUZZ_TARGETS:-fuzz_frame_reader fuzz_server_handshake fuzz_url fuzz_dispatcher fuzz_colour fuzz_facts fuzz_shell_output fuzz_event_line fuzz_log_line fuzz_restore fuzz_script_answer fuzz_wlan_lists fuzz_redact fuzz_radios fuzz_ap_reshape fuzz_wlan_edits fuzz_cpu_samples fuzz_event_sender fuzz_stream_sender}

cmake -S "$top" -B "$build" -G Ninja -DKC_FUZZ=ON -DKC_TESTS=OFF \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
# shellcheck disable=SC2086
cmake --build "$build" --target $targets
[ "$mode" = build ] && exit 0

work=$(mktemp -d /tmp/kc-fuzz-XXXXXX)
trap 'rm -rf "$work"' EXIT INT TERM
artifacts="$build/fuzz-artifacts"
mkdir -p "$artifacts"

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:handle_abort=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}"

if [ "$mode" = long ]; then
    echo "long run: each target until $runs executions or $long_seconds s"
    limits="-runs=$runs -max_total_time=$long_seconds"
else
    limits="-max_total_time=$seconds"
fi

failed=""
summary="$work/summary"
: >"$summary"
for target in $targets; do
    if [ "$mode" = long ]; then
        corpus="$build/fuzz-corpus/$target"
    else
        corpus="$work/$target"
    fi
    mkdir -p "$corpus"
    if [ -d "$top/tests/fuzz/corpus/$target" ]; then
        cp -R "$top/tests/fuzz/corpus/$target/." "$corpus/"
    fi
    log="$work/$target.log"
    if [ "$mode" = long ]; then
        printf '%s: ... ' "$target"
    else
        printf '%s: %s s ... ' "$target" "$seconds"
    fi
    status=0
    start=$(date +%s)
    # shellcheck disable=SC2086
    "$build/tests/fuzz/$target" $limits -timeout=20 \
        -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="$artifacts/$target-" "$corpus" >"$log" 2>&1 || status=$?
    elapsed=$(($(date +%s) - start))
    executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
    cov=$(grep -o 'cov: [0-9]*' "$log" | tail -n 1 | sed 's/cov: //')
    if [ "$status" -ne 0 ] ||
        grep -Eq 'ERROR: (AddressSanitizer|LeakSanitizer|libFuzzer)|runtime error:|SUMMARY: ' "$log"; then
        echo "FAILED (exit $status)"
        tail -n 60 "$log"
        failed="$failed $target"
        verdict=FAILED
    else
        echo "ok (${executions:-?} executions in ${elapsed} s, ${rate:-?} exec/s, cov ${cov:-?})"
        verdict=ok
    fi
    printf '%-24s %12s %8s %10s %8s  %s\n' "$target" "${executions:-?}" "$elapsed" "${rate:-?}" \
        "${cov:-?}" "$verdict" >>"$summary"
done

echo
printf '%-24s %12s %8s %10s %8s  %s\n' target executions seconds exec/s cov result
cat "$summary"
if [ "$mode" = long ]; then
    # kept for the figures of tests/fuzz/README.md
    { date -u '+%Y-%m-%d %H:%M UTC'; cat "$summary"; } >>"$build/fuzz-long-runs.txt"
fi

if [ -n "$failed" ]; then
    echo "fuzz targets that failed:$failed (inputs in $artifacts)" >&2
    exit 1
fi

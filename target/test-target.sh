#!/bin/sh
# Builds the agent and its unit tests for the access point (32-bit
# big-endian MIPS) and runs them under qemu-mips: the unit tests directly,
# the end-to-end suite with the MIPS agent inside the simulated device
# (registered through a private binfmt_misc instance, so it keeps the name
# korvat-cloud).  The library sysroot is built first when it is not cached.
#
# The end-to-end part needs a kernel that gives a user namespace its own
# binfmt_misc (Linux 6.7 or later; Debian bookworm's own is 6.1).  On an
# older kernel this says so in one line at the start, builds as usual and
# runs the unit tests only (target/qemu-binfmt.sh check tells the same).
#
# Usage: target/test-target.sh [BUILD_DIR]     (default: build-mips)
# Extra ctest arguments can be given in CTEST_ARGS (e.g. "-R e2e").
set -eu
case "${1:-}" in
-h | --help) sed -n '2,/^set -eu/p' "$0" | sed -e '$d' -e 's/^# \{0,1\}//'; exit 0 ;;
esac
cd "$(dirname "$0")/.."
top=$(pwd)
build=${1:-$top/build-mips}

e2e=1
if ! why=$(target/qemu-binfmt.sh check); then
    echo "target: end-to-end suites skipped, unit tests only: $why"
    e2e=0
fi

scripts/install-deps.sh

printf '\n==== target build %s ====\n' "$build"
target/build-target.sh "$build" -DKC_TESTS=ON -DCMAKE_BUILD_TYPE=MinSizeRel

printf '\n==== target tests in %s (under qemu-mips) ====\n' "$build"
if [ "$e2e" = 1 ]; then
    # the interpreter the end-to-end suites register (fetched here, not
    # inside the first test that needs it)
    echo "qemu-mips: $(target/qemu-binfmt.sh interpreter)"
    # shellcheck disable=SC2086
    (cd "$build" && ctest --output-on-failure ${CTEST_ARGS:-})
else
    # shellcheck disable=SC2086
    (cd "$build" && ctest --output-on-failure -E '^e2e\.' ${CTEST_ARGS:-})
    echo "target: end-to-end suites skipped: $why"
fi

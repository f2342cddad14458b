#!/bin/sh
# Builds the agent and its unit tests for the access point (32-bit
# big-endian MIPS) and runs them under qemu-mips: the unit tests directly,
# the end-to-end suite with the MIPS agent inside the simulated device
# (registered through a private binfmt_misc instance, so it keeps the name
# korvat-cloud).  The library sysroot is built first when it is not cached.
#
# Usage: target/test-target.sh [BUILD_DIR]     (default: build-mips)
# Extra ctest arguments can be given in CTEST_ARGS (e.g. "-R e2e").
set -eu
cd "$(dirname "$0")/.."
top=$(pwd)
build=${1:-$top/build-mips}

scripts/install-deps.sh

printf '\n==== target build %s ====\n' "$build"
target/build-target.sh "$build" -DKC_TESTS=ON -DCMAKE_BUILD_TYPE=MinSizeRel

printf '\n==== target tests in %s (under qemu-mips) ====\n' "$build"
# the interpreter the end-to-end suites register (fetched here, not
# inside the first test that needs it)
echo "qemu-mips: $(target/qemu-binfmt.sh interpreter)"
# shellcheck disable=SC2086
(cd "$build" && ctest --output-on-failure ${CTEST_ARGS:-})

#!/usr/bin/env bash
# Cross-builds the agent for the access point (32-bit big-endian MIPS, glibc):
# makes sure the library sysroot exists (build-sysroot.sh), then configures
# and builds the project with cmake/toolchain-mips-linux-gnu.cmake.
#
# Usage: target/build-target.sh [BUILD_DIR] [extra cmake -D arguments...]
#   BUILD_DIR defaults to build-mips in the clone.
# Environment: KORVAT_MIPS_SYSROOT (see build-sysroot.sh), JOBS,
#   CMAKE_BUILD_TYPE (default MinSizeRel).
set -euo pipefail
case "${1:-}" in
-h | --help) sed -n '2,/^set -eu/p' "$0" | sed -e '$d' -e 's/^# \{0,1\}//'; exit 0 ;;
esac

here=$(cd "$(dirname "$0")" && pwd)
top=$(cd "$here/.." && pwd)
build=${1:-$top/build-mips}
[ $# -gt 0 ] && shift
export KORVAT_MIPS_SYSROOT=${KORVAT_MIPS_SYSROOT:-/var/cache/korvat-cloud/mips-sysroot}
JOBS=${JOBS:-$(nproc 2>/dev/null || echo 2)}

"$here/build-sysroot.sh"

[ -f "$top/CMakeLists.txt" ] || { echo "build-target: no CMakeLists.txt in $top" >&2; exit 1; }

gen=()
command -v ninja >/dev/null 2>&1 && gen=(-G Ninja)
# An existing build dir made with another generator cannot be reused.
if [ -f "$build/CMakeCache.txt" ] && ! grep -q "CMAKE_TOOLCHAIN_FILE.*toolchain-mips-linux-gnu.cmake" "$build/CMakeCache.txt"; then
    echo "build-target: $build was not configured for MIPS; remove it first" >&2
    exit 1
fi

echo "[target] configuring $build"
# Host-only parts (GoogleTest unit tests, fuzzers) are left out.
cmake -S "$top" -B "$build" "${gen[@]}" \
    -DCMAKE_TOOLCHAIN_FILE="$top/cmake/toolchain-mips-linux-gnu.cmake" \
    -DKORVAT_MIPS_SYSROOT="$KORVAT_MIPS_SYSROOT" \
    -DCMAKE_BUILD_TYPE="${CMAKE_BUILD_TYPE:-MinSizeRel}" \
    -DKC_TESTS=OFF -DKC_FUZZ=OFF -DKC_SANITIZE=OFF \
    "$@"
echo "[target] building"
cmake --build "$build" -j "$JOBS"

bin=$build/korvat-cloud
if [ -f "$bin" ]; then
    file "$bin"
    file "$bin" | grep -q 'ELF 32-bit MSB .*MIPS' || { echo "build-target: $bin is not a MIPS32 BE binary" >&2; exit 1; }
fi
echo "[target] done: $bin"

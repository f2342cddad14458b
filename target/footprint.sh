#!/bin/sh
# Prints the agent's footprint on the target (not a test): the size of the
# 32-bit big-endian MIPS binary before and after stripping, the shared
# libraries it needs, and its memory when idle and connected, measured under
# qemu-mips inside the simulated device against the bundled device server.
#
# Usage: target/footprint.sh [BUILD_DIR]      (default: build-mips)
# The binary is built first (target/build-target.sh) when it is missing.
set -eu
cd "$(dirname "$0")/.."
top=$(pwd)
build=${1:-$top/build-mips}
bin=$build/korvat-cloud

[ -x "$bin" ] || target/build-target.sh "$build" >&2

stripped=$(mktemp /tmp/korvat-footprint.XXXXXX)
trap 'rm -f "$stripped"' EXIT
mips-linux-gnu-strip -o "$stripped" "$bin"

echo "binary:            $(file -b "$bin" | cut -d, -f1-3)"
echo "size, as built:    $(stat -c %s "$bin") bytes"
echo "size, stripped:    $(stat -c %s "$stripped") bytes"
echo "needed libraries:  $(mips-linux-gnu-readelf -d "$bin" | sed -n 's/.*Shared library: \[\(.*\)\]/\1/p' | tr '\n' ' ')"
mips-linux-gnu-size "$stripped" | sed 's/^/    /'

SIMDEVICE_TARGET=mips KC_AGENT=$bin /usr/bin/python3 "$top/target/measure_memory.py"

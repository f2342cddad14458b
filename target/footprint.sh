#!/bin/sh
# Prints the agent's footprint on the target (not a test): the size of the
# 32-bit big-endian MIPS binary before and after stripping (and its text,
# data and bss), the shared libraries it needs (the C++ runtime among
# them), and its resident and private memory, started without a server to
# reach and connected and idle, with the parts (binary, each library, heap
# and stacks) they come from; measured under qemu-mips inside the
# simulated device against the bundled device server
# (target/measure_memory.py tells how the figures are read).
#
# Usage: target/footprint.sh [BUILD_DIR]      (default: build-mips)
# The binary is built first (target/build-target.sh, MinSizeRel) when it is
# missing.  The memory part needs a kernel with a private binfmt_misc
# (Linux 6.7 or later, target/qemu-binfmt.sh check); on an older one it is
# left out with one line.
set -eu
case "${1:-}" in
-h | --help) sed -n '2,/^set -eu/p' "$0" | sed -e '$d' -e 's/^# \{0,1\}//'; exit 0 ;;
esac
cd "$(dirname "$0")/.."
top=$(pwd)
build=${1:-$top/build-mips}
bin=$build/korvat-cloud

[ -x "$bin" ] || target/build-target.sh "$build" >&2

stripped=$(mktemp /tmp/korvat-footprint.XXXXXX)
trap 'rm -f "$stripped"' EXIT
mips-linux-gnu-strip -o "$stripped" "$bin"
needed=$(mips-linux-gnu-readelf -d "$bin" | sed -n 's/.*Shared library: \[\(.*\)\]/\1/p' | tr '\n' ' ')

echo "binary:            $(file -b "$bin" | cut -d, -f1-3)"
echo "size, as built:    $(stat -c %s "$bin") bytes"
echo "size, stripped:    $(stat -c %s "$stripped") bytes"
mips-linux-gnu-size "$stripped" | sed 's/^/    /'
echo "needed libraries:  $needed"
runtime=""
for lib in $needed; do
    case "$lib" in libstdc++* | libgcc_s*) runtime="$runtime $lib" ;; esac
done
runtime=${runtime# }
echo "C++ runtime:       ${runtime:-none needed}"

if why=$(target/qemu-binfmt.sh check); then
    SIMDEVICE_TARGET=mips KC_AGENT=$bin /usr/bin/python3 "$top/target/measure_memory.py"
else
    echo "memory:            not measured: $why"
fi

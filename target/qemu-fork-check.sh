#!/bin/sh
# Checks a qemu-mips for the fork hang (see run-under-qemu.md): builds
# target/fork-stress.c for the target and runs it RUNS times (default 10),
# each with a limit of 60 s, under the interpreter qemu-binfmt.sh picks
# (KORVAT_QEMU=system for the host's own).  Prints one line per run and a
# count; exits 1 if any run hung.
#
# Usage: target/qemu-fork-check.sh [RUNS]
set -eu
case "${1:-}" in
-h | --help) sed -n '2,/^set -eu/p' "$0" | sed -e '$d' -e 's/^# \{0,1\}//'; exit 0 ;;
esac
cd "$(dirname "$0")/.."
runs=${1:-10}
qemu=$(target/qemu-binfmt.sh interpreter)
work=$(mktemp -d /tmp/qemu-fork-check.XXXXXX)
trap 'rm -rf "$work"' EXIT
mips-linux-gnu-gcc -O2 -pthread -o "$work/fork-stress" target/fork-stress.c
echo "interpreter: $qemu ($("$qemu" --version | head -n 1))"
hung=0
i=1
while [ "$i" -le "$runs" ]; do
    if timeout -s KILL 60 "$qemu" -L /usr/mips-linux-gnu "$work/fork-stress" >"$work/out" 2>&1 \
        && grep -qx done "$work/out"; then
        echo "run $i: done"
    else
        echo "run $i: hung or failed"
        # a hung child of the fork outlives its killed parent
        pkill -KILL -f "$work/fork-stress" || true
        hung=$((hung + 1))
    fi
    i=$((i + 1))
done
echo "$hung of $runs runs hung"
[ "$hung" -eq 0 ]

#!/bin/sh
# Prints figures of the agent's cost on an idle, connected device; it is
# not a test and judges nothing.  The agent runs only inside the simulated
# device, against the bundled device server in the device's gateway
# namespace.  As root on Debian bookworm:
#
# Usage: scripts/bench.sh [OPTIONS]     (the options: --help)
#
#   scripts/bench.sh                  # about 20 minutes
#   scripts/bench.sh --seconds 30     # shorter CPU measurements
#   scripts/bench.sh --skip memory    # leave out a part (cpu,commands,memory,long)
#   scripts/bench.sh --help           # every option
#
# 1. the agent's CPU time per minute (its own, and that of the commands it
#    ran), connected and idle, with status updates every 10 s, remote
#    access closed and then open (opened through a UPnP gateway upstream);
# 2. the commands the maintenance timer and the status updates run, each
#    run directly in the same device and timed;
# 3. the agent's resident and private memory once connected and after an
#    hour's worth of timer ticks (3600), shortened to minutes;
# 4. its threads, descriptors and memory over an hour of a busy connection
#    (requests every minute, the connection dropped and upgrades refused
#    with 401 and 503 every five minutes), over ws:// and over wss://,
#    shortened to a few minutes each.
#
# KC_AGENT=path uses an already built agent instead of building build/.
set -eu
cd "$(dirname "$0")/.."
top=$(pwd)

for arg in "$@"; do
    case "$arg" in
    -h | --help)
        sed -n '2,/^set -eu/p' "$0" | sed -e '$d' -e 's/^# \{0,1\}//'
        echo
        # the options themselves (argparse prints them and exits; nothing runs)
        exec /usr/bin/python3 scripts/bench.py --help ;;
    esac
done

if [ -z "${KC_AGENT:-}" ]; then
    scripts/install-deps.sh
    cmake -S "$top" -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    # the agent alone: the benchmark builds its own preloaded tick library
    cmake --build build --target korvat-cloud
    KC_AGENT="$top/build/korvat-cloud"
fi
export KC_AGENT
exec /usr/bin/python3 -u scripts/bench.py --agent "$KC_AGENT" "$@"

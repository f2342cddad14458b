#!/bin/sh
# Runs the agent against the bundled device server, the agent inside the
# simulated device (never on the host).  As root on Debian bookworm:
#
#   scripts/demo.sh            # runs until Ctrl-C
#   scripts/demo.sh --once     # one tour of requests, then exits (0 = all answered)
#   scripts/demo.sh --tls      # the same over wss://
#
# Lines are prefixed with who printed them: [server] frames and requests of
# the device server, [agent] the agent's output (frame dumps, debug lines),
# [device] the connection-state file "/tmp/cloud_conn_state" as it changes.
# KC_AGENT=path uses an already built agent instead of building one.
set -eu
cd "$(dirname "$0")/.."
top=$(pwd)

once=""
tls=""
for arg in "$@"; do
    case "$arg" in
    --once) once="--once" ;;
    --tls) tls="--tls" ;;
    *) echo "usage: $0 [--once] [--tls]" >&2; exit 2 ;;
    esac
done

if [ -z "${KC_AGENT:-}" ]; then
    scripts/install-deps.sh
    cmake -S "$top" -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    cmake --build build
    KC_AGENT="$top/build/korvat-cloud"
fi
MAC=${KC_DEMO_MAC:-02:4b:56:31:30:01}

work=$(mktemp -d "${TMPDIR:-/tmp}/korvat-demo.XXXXXX")
run="$work/device"
device/run-device init "$run" >/dev/null
# The device's own network (device/README.md): the server listens in its
# gateway namespace on 192.168.1.1; nothing touches the host's network.
device/run-device net-up "$run" >/dev/null
gateway=192.168.1.1

server_pid=""
agent_pid=""
watch_pid=""
cleanup() {
    device/run-device stop "$run" >/dev/null 2>&1 || true
    device/run-device net-down "$run" >/dev/null 2>&1 || true
    # Commands started with & here ignore SIGINT, so the server is ended by
    # its own pid: the pipeline's pid is only that of its last command.
    server=$(cat "$work/server.pid" 2>/dev/null || true)
    for pid in $server $watch_pid $server_pid $agent_pid; do
        kill "$pid" 2>/dev/null || true
    done
    wait 2>/dev/null || true
    rm -rf "$work" "$run.ctl"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

prefix() { sed -u "s/^/$1 /"; }

# shellcheck disable=SC2086
{
    status=0
    device/run-device gateway "$run" -- /usr/bin/python3 -u server/device_server.py \
        --host "$gateway" --tour $once $tls --url-file "$work/url" 2>&1 &
    echo $! > "$work/server.pid"
    wait $! || status=$?
    echo "$status" > "$work/server.status"
} | prefix "[server]" &
server_pid=$!
i=0
while [ ! -s "$work/url" ]; do
    i=$((i + 1))
    [ "$i" -lt 100 ] || { echo "device server did not start" >&2; exit 1; }
    sleep 0.1
done
url=$(cat "$work/url")

echo "[device] starting: korvat-cloud -d $url $MAC"
device/run-device run --agent "$KC_AGENT" "$run" -- /usr/bin/korvat-cloud -d "$url" "$MAC" 2>&1 \
    | prefix "[agent]" &
agent_pid=$!

# The state file is read through run-device, which never follows a link
# the device may have put in its place.
device/run-device watch --prefix "[device] /tmp/cloud_conn_state = " \
    --append "$work/states" "$run" /tmp/cloud_conn_state &
watch_pid=$!

if [ -n "$once" ]; then
    wait "$server_pid" || true
    status=$(cat "$work/server.status" 2>/dev/null || echo 1)
    # The tour ends with an answered ping, which turns the state to 1; the
    # server going away afterwards turns it back to 0.
    sleep 0.2
    if grep -qx 1 "$work/states" 2>/dev/null; then
        echo "[device] connection state reached 1 during the tour"
    else
        echo "[device] connection state never reached 1"
        status=1
    fi
    [ "$status" = 0 ] && echo "demo: tour complete" || echo "demo: tour FAILED"
    exit "$status"
fi
wait "$server_pid"

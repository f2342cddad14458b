#!/bin/sh
# Runs the agent against the bundled device server, the agent inside the
# simulated device (never on the host).  As root on Debian bookworm:
#
# Usage: scripts/demo.sh [--once] [--tls] [--upnp] | --console [--tls]
#
#   scripts/demo.sh            # runs until Ctrl-C
#   scripts/demo.sh --once     # one tour of requests, then exits (0 = all answered)
#   scripts/demo.sh --tls      # the same over wss://
#   scripts/demo.sh --upnp     # also a UPnP gateway upstream, and remote access
#   scripts/demo.sh --console  # the web console with a few simulated access
#                              # points (KC_DEMO_DEVICES, default 3), until Ctrl-C
#
# --console: prints the console's address (http://127.0.0.1:8765/, port
# KC_CONSOLE_PORT); open it in a browser on this machine.  Every access
# point is a simulated device in a network of its own running the agent;
# the device server runs on the host and listens in each device network's
# gateway namespace (192.168.1.1), its console on the host's loopback.
# What the console keeps (devices, status history, events, log lines,
# requests) is in KC_CONSOLE_DB (default ~/.local/state/korvat-cloud/
# console.sqlite) and is there again at the next start.  The agents'
# output goes to files named in the output, not to the terminal.
#
# The tour: dxGetAbout, an unknown method, an envelope without params; the
# network settings and the time settings read and changed, with the
# device's UCI before and after; the radios and networks, a network added on
# both radios, changed and deleted; a status update, an event and streamed
# system-log lines; a reset: the device reboots, the agent is started again
# at boot and restores the queues it saved; with --upnp, remote access
# opened and closed, with the gateway's own port-mapping list.
#
# Lines are prefixed with who printed them: [server] frames and requests of
# the device server, [agent] the agent's output (frame dumps, debug lines),
# [device] the connection-state file "/tmp/cloud_conn_state" as it changes
# and what happens to the device, [gateway] the UPnP gateway.  When the
# agent ends on its own (not through the tour's reboot), the demo ends at
# once with status 1 and the agent's last lines.
# KC_AGENT=path uses an already built agent instead of building one (the
# build is the agent alone, in build/).
set -eu
cd "$(dirname "$0")/.."
top=$(pwd)

once=""
tls=""
upnp=""
console=""
for arg in "$@"; do
    case "$arg" in
    --once) once="--once" ;;
    --tls) tls="--tls" ;;
    --upnp) upnp="--upnp" ;;
    --console) console="--console" ;;
    -h | --help)
        sed -n '2,/^set -eu/p' "$0" | sed -e '$d' -e 's/^# \{0,1\}//'
        exit 0 ;;
    *) echo "usage: $0 [--once] [--tls] [--upnp] [--console] [--help]" >&2; exit 2 ;;
    esac
done
if [ -n "$console" ] && [ -n "$once$upnp" ]; then
    echo "usage: --console goes with --tls only" >&2
    exit 2
fi

if [ -z "${KC_AGENT:-}" ]; then
    scripts/install-deps.sh
    cmake -S "$top" -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
    # only what the demo runs: the agent (the device server is Python)
    cmake --build build --target korvat-cloud
    KC_AGENT="$top/build/korvat-cloud"
fi
MAC=${KC_DEMO_MAC:-02:4b:56:31:30:01}

# ---- the web console with several simulated access points -----------------
run_console() {
    n=${KC_DEMO_DEVICES:-3}
    port=${KC_CONSOLE_PORT:-8765}
    db=${KC_CONSOLE_DB:-${XDG_STATE_HOME:-$HOME/.local/state}/korvat-cloud/console.sqlite}
    mkdir -p "$(dirname "$db")"
    work=$(mktemp -d "${TMPDIR:-/tmp}/korvat-console.XXXXXX")
    server_pid=""
    cleanup_console() {
        : > "$work/ending"
        [ -z "$server_pid" ] || kill "$server_pid" 2>/dev/null || true
        for i in $(seq 1 "$n"); do
            device/run-device stop "$work/ap$i" >/dev/null 2>&1 || true
        done
        wait 2>/dev/null || true
        for i in $(seq 1 "$n"); do
            device/run-device net-down "$work/ap$i" >/dev/null 2>&1 || true
            rm -rf "$work/ap$i.ctl"
        done
        rm -rf "$work"
    }
    trap cleanup_console EXIT
    trap 'exit 130' INT TERM
    netns=""
    for i in $(seq 1 "$n"); do
        device/run-device init "$work/ap$i" >/dev/null
        info=$(device/run-device net-up "$work/ap$i")
        gw=$(printf '%s' "$info" | /usr/bin/python3 -c 'import json,sys; print(json.load(sys.stdin)["gateway"])')
        netns="$netns --netns /proc/$gw/ns/net"
        device/run-device run "$work/ap$i" -- /bin/sh -c \
            'uci set korvatCloud.korvatCloud.auto_update=10 && uci commit korvatCloud'
    done
    # shellcheck disable=SC2086
    /usr/bin/python3 -u server/device_server.py --console --host 192.168.1.1 $netns \
        $tls --quiet --log-file "$work/frames.log" --db "$db" \
        --console-port "$port" --url-file "$work/url" \
        --console-url-file "$work/console.url" > "$work/server.log" 2>&1 &
    server_pid=$!
    i=0
    while [ ! -s "$work/console.url" ]; do
        i=$((i + 1))
        if [ "$i" -ge 150 ] || ! kill -0 "$server_pid" 2>/dev/null; then
            echo "the device server did not start:" >&2
            cat "$work/server.log" >&2
            exit 1
        fi
        sleep 0.1
    done
    url=$(cat "$work/url")
    for i in $(seq 1 "$n"); do
        mac=$(printf '02:4b:56:31:30:%02x' "$i")
        # as the device starts it: again at every boot (a reset reboots it)
        (
            while [ ! -e "$work/ending" ]; do
                device/run-device run --agent "$KC_AGENT" "$work/ap$i" -- \
                    /usr/bin/korvat-cloud -d "$url" "$mac" >> "$work/agent$i.log" 2>&1 || true
                [ ! -e "$work/ending" ] && device/run-device rebooted "$work/ap$i" || break
            done
        ) &
        echo "[device] access point $i: $mac, the agent's output in $work/agent$i.log"
    done
    echo "[server] device server $url in the $n device networks; frames in $work/frames.log"
    echo "[server] history kept in $db"
    echo "console: $(cat "$work/console.url")"
    echo "(Ctrl-C ends the demo)"
    wait "$server_pid" || true
}
if [ -n "$console" ]; then
    run_console
    exit 0
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/korvat-demo.XXXXXX")
run="$work/device"
device/run-device init "$run" >/dev/null
# The device's own network (device/README.md): the server listens in its
# gateway namespace on 192.168.1.1; nothing touches the host's network.
# With --upnp the network has the uplink (the internet behind the gateway,
# a namespace of its own too) and the UPnP gateway runs in the gateway
# namespace.
wan=""
[ -z "$upnp" ] || wan="--wan"
# shellcheck disable=SC2086
netinfo=$(device/run-device net-up $wan "$run")
gateway=192.168.1.1

server_pid=""
agent_pid=""
watch_pid=""
upnp_pid=""
cleanup() {
    # no agent start after this point, whatever ends the device
    : > "$work/ending"
    [ -z "$agent_pid" ] || kill "$agent_pid" 2>/dev/null || true
    device/run-device stop "$run" >/dev/null 2>&1 || true
    # Commands started with & here ignore SIGINT, so the server and the
    # gateway are ended by their own pids: a pipeline's pid is only that of
    # its last command.
    server=$(cat "$work/server.pid" 2>/dev/null || true)
    upnpd=$(cat "$work/gateway.pid" 2>/dev/null || true)
    for pid in $server $upnpd $watch_pid $server_pid $agent_pid $upnp_pid; do
        kill "$pid" 2>/dev/null || true
    done
    wait 2>/dev/null || true
    device/run-device net-down "$run" >/dev/null 2>&1 || true
    wait 2>/dev/null || true
    rm -rf "$work" "$run.ctl"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

prefix() { sed -u "s/^/$1 /"; }

# Status updates every 10 s instead of 60, so that the tour shows one: set
# in the device's own configuration before the agent starts.
device/run-device run "$run" -- /bin/sh -c \
    'uci set korvatCloud.korvatCloud.auto_update=10 && uci commit korvatCloud'
echo "[device] korvatCloud.korvatCloud.auto_update=10 (a status update every 10 s)"

upnp_url=""
if [ -n "$upnp" ]; then
    # The device's upstream router as a UPnP Internet Gateway Device
    # (device/simgateway.py): its daemon, its rule set and its SSDP traffic
    # live in the run's namespaces only.
    /usr/bin/python3 -u - "$netinfo" "$work" <<'GATEWAY' 2>&1 | prefix "[gateway]" &
import json, os, signal, sys
sys.path.insert(0, "device")
import simgateway, simnet
info, work = json.loads(sys.argv[1]), sys.argv[2]
with open(os.path.join(work, "gateway.pid"), "w") as f:
    f.write("%d\n" % os.getpid())
gw = simgateway.UpnpGateway(simnet.DeviceNet(info), work).start()
print("UPnP gateway listening: %s, WAN address %s" % (simgateway.ROOT_DESC, simnet.WAN_IP))
with open(os.path.join(work, "gateway.url"), "w") as f:
    f.write(simgateway.ROOT_DESC + "\n")
def end(*_):
    gw.stop()
    sys.exit(0)
signal.signal(signal.SIGTERM, end)
while True:
    signal.pause()
GATEWAY
    upnp_pid=$!
    i=0
    while [ ! -s "$work/gateway.url" ]; do
        i=$((i + 1))
        [ "$i" -lt 200 ] || { echo "the UPnP gateway did not start" >&2; exit 1; }
        sleep 0.1
    done
    upnp_url="--upnp-gateway $(cat "$work/gateway.url")"
fi

# shellcheck disable=SC2086
{
    status=0
    device/run-device gateway "$run" -- /usr/bin/python3 -u server/device_server.py \
        --host "$gateway" --tour $once $tls --url-file "$work/url" \
        --device-run "$run" --timeout 300 $upnp_url 2>&1 &
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

# The agent as the device starts it: again at every boot.  When the
# device goes down through `reboot` (the tour's reset), the next run of the
# same run directory is a boot: what was in RAM is gone, the flash copies
# of the agent's queues are kept.
agent_runs() {
    while :; do
        echo "[device] starting: korvat-cloud -d $url $MAC"
        {
            st=0
            device/run-device run --agent "$KC_AGENT" "$run" -- \
                /usr/bin/korvat-cloud -d "$url" "$MAC" 2>&1 || st=$?
            echo "$st" > "$work/agent.status"
        } | tee -a "$work/agent.log" | prefix "[agent]"
        st=$(cat "$work/agent.status" 2>/dev/null || echo "?")
        [ ! -e "$work/ending" ] || return 0
        if device/run-device rebooted "$run"; then
            echo "[device] the device went down after reboot (status $st); it boots" \
                "and starts the agent again"
            continue
        fi
        echo "[device] the agent ended (status $st)"
        echo "$st" > "$work/agent.ended"
        return 0
    done
}

# Waits until the server ends (0) or the agent ends on its own (1).
wait_server_or_agent() {
    while [ ! -e "$work/server.status" ]; do
        [ ! -e "$work/agent.ended" ] || return 1
        sleep 0.2
    done
    wait "$server_pid" || true
    return 0
}

agent_ended() {
    echo "demo: the agent ended (status $(cat "$work/agent.ended")) before the tour" \
        "was complete; its last lines:"
    tail -n 15 "$work/agent.log" 2>/dev/null | sed 's/^/    /'
    echo "demo: tour FAILED"
    exit 1
}
agent_runs &
agent_pid=$!

# The state file is read through run-device, which never follows a link
# the device may have put in its place.
device/run-device watch --prefix "[device] /tmp/cloud_conn_state = " \
    --append "$work/states" "$run" /tmp/cloud_conn_state &
watch_pid=$!

if [ -n "$once" ]; then
    wait_server_or_agent || agent_ended
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
wait_server_or_agent || agent_ended

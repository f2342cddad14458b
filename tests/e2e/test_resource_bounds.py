"""Resource bounds over a long run: hundreds of reconnections (ws:// and
wss://; upgrades refused with 401 and 503, connections the server accepts
and then closes), hundreds of status periods and thousands of requests
leave the agent's threads, descriptors and memory where they were.

The bounds, read on the host from /proc/PID of the agent:

- threads (/proc/PID/task): never more than the steady count + 2 at any
  sample (every 20 ms) during a phase; the steady count is that of the
  connected, idle agent (main, SIGTERM worker, receiving thread, three
  sending threads, timer, status thread), +2 leaves room for the one
  reconnection thread and the one status update that may run beside it;
- descriptors (/proc/PID/fd): back to the steady count after each phase,
  once connected and idle again;
- private memory: Private_Dirty of smaps_rollup (what the process itself
  wrote: heap, thread stacks, data) no more than 2 % or PRIVATE_SLACK_KB
  (whichever is larger) above its figure after a warm-up of the same
  phase.  Private_Clean is shown beside it but not bounded: it counts the
  library pages only this process maps, and falls or rises as other
  programs on the machine (another suite's agent) map the same libraries.

The phases are shortened: a preloaded shim (shims/periodshim.c, built
here) makes the reconnection back-off's sleep() last a thousandth and the
status period (a whole-second nanosleep) a fraction of its length, and
counts the status periods.  The commands the agent runs at every
reconnection, tick and request (uci get of its settings, date, free) are
answered by small shell scripts ahead in its PATH, so that a run costs
the agent's work, not the start-up of the simulated tools (Python).

This suite measures the plain build: under the sanitizers the thread
stacks are the sanitizer's and the memory figures mean nothing, so the
build registers it only without them (CTest label "soak").
"""
import os
import re
import shutil
import signal
import subprocess
import threading
import time

import pytest

from conftest import (AGENT, FAILURE_TAIL, HERE, MAC, Agent, Deadline,
                      request_text, wait_for)
from rawpeer import RawPeer
from simdevice import PATH

# Memory above the warm-up figure that is accepted whatever 2 % of it is:
# one page of each of a few thread stacks or malloc arenas touched for the
# first time late in a phase (the agent has about 1 MB of private dirty
# memory, so 2 % would be five pages).  A leak of one TLS session object a
# reconnection, or of a thread a status period, passes it within a few
# dozen reconnections or periods.
PRIVATE_SLACK_KB = 64
PRIVATE_SHARE = 0.02
THREADS_ABOVE_STEADY = 2

SHIM_SRC = os.path.join(HERE, "shims", "periodshim.c")
SOAK_BIN = "/tmp/soak-bin"
PERIOD_FILE = "/tmp/soak-periods"

# The hot commands: `uci get` of the agent's own settings from a table
# (the real uci for anything else), BusyBox date as the device's, a fixed
# `free`.
FAST_UCI = r"""#!/bin/sh
if [ "$1" = get ] && [ $# -eq 2 ]; then
    while IFS='=' read -r key value; do
        if [ "$key" = "$2" ]; then
            echo "$value"
            exit 0
        fi
    done < /tmp/soak-bin/uci.values
fi
exec /simdevice/bin/uci "$@"
"""
FAST_DATE = '#!/bin/sh\nexec /simdevice/busybox/date "$@"\n'
FREE = ("              total        used        free      shared  buff/cache   available\n"
        "Mem:         126072       48440       55032        1180       22600       61636\n"
        "Swap:             0           0           0\n")
FAST_FREE = "#!/bin/sh\ncat <<'EOF'\n%sEOF\n" % FREE

UCI_VALUES = {
    "korvatCloud.korvatCloud.conn_retry": "1",
    "korvatCloud.korvatCloud.auto_update": "60",
    "upnpc.http.enable": "0",
}


@pytest.fixture(scope="module")
def shim(tmp_path_factory):
    """The period shim, compiled for this run."""
    out = str(tmp_path_factory.mktemp("shim") / "periodshim.so")
    cc = shutil.which("cc") or shutil.which("gcc")
    subprocess.run([cc, "-shared", "-fPIC", "-O2", "-o", out, SHIM_SRC, "-ldl"],
                   check=True)
    return out


def uci_values(device, **values):
    """The settings the fast `uci get` answers (korvatCloud.korvatCloud.*
    given by their last name).  A read that meets the file half written
    asks the real uci, whose answer the agent keeps its current value for."""
    table = dict(UCI_VALUES, **{"korvatCloud.korvatCloud." + k: str(v)
                                for k, v in values.items()})
    device.write_file(SOAK_BIN + "/uci.values",
                      "".join("%s=%s\n" % kv for kv in table.items()))


def fast_tools(device, **values):
    uci_values(device, **values)
    device.write_file(SOAK_BIN + "/uci", FAST_UCI, 0o755)
    device.write_file(SOAK_BIN + "/date", FAST_DATE, 0o755)
    device.write_file(SOAK_BIN + "/free", FAST_FREE, 0o755)


def soak_env(period_scale=1.0):
    return {"PATH": SOAK_BIN + ":" + PATH,
            "KC_SHIM_SLEEP_SCALE": "0.001",
            "KC_SHIM_PERIOD_SCALE": str(period_scale),
            "KC_SHIM_PERIOD_FILE": PERIOD_FILE}


@pytest.fixture
def soak_agent(device, shim, request):
    """soak_agent(url, period_scale=1.0): the agent (-d) with the shim
    preloaded and the fast commands ahead in its PATH.  When the test
    fails, the end of its output is printed."""
    started = []

    def start(url, period_scale=1.0):
        proc = device.start(["/usr/bin/korvat-cloud", "-d", url, MAC], agent=AGENT,
                            env=soak_env(period_scale), preload=[shim])
        agent = Agent(device, proc)
        started.append(agent)
        return agent

    yield start
    call = getattr(request.node, "report_call", None)
    for agent in started:
        device.stop()
        agent.out._thread.join(5)
        agent.err._thread.join(5)
        if call is not None and call.failed:
            for name, stream in (("output", agent.out), ("error output", agent.err)):
                print("---- the agent's %s, last lines ----" % name)
                print("\n".join(stream.lines[-FAILURE_TAIL:]))


def periods(device):
    return int((device.read_file(PERIOD_FILE) or "0").strip() or "0")


# ---- the agent seen from the host ------------------------------------------

class Figures(object):
    """Threads, descriptors and private memory of the agent process, read
    from /proc on the host, and a sampler of its thread count."""

    def __init__(self, agent):
        self.device = agent.device
        self.pid = self.device.host_tid(agent.main_tid())[0]
        self._sampling = None
        self.samples = []

    def threads(self):
        return len(os.listdir("/proc/%d/task" % self.pid))

    def fds(self):
        return len(os.listdir("/proc/%d/fd" % self.pid))

    def fd_targets(self):
        out = []
        for name in sorted(os.listdir("/proc/%d/fd" % self.pid), key=int):
            try:
                out.append("%s -> %s" % (name, os.readlink("/proc/%d/fd/%s" % (self.pid, name))))
            except OSError:
                pass
        return out

    def memory(self):
        """(Private_Dirty, Private_Clean) in kB."""
        got = {}
        with open("/proc/%d/smaps_rollup" % self.pid) as f:
            for line in f:
                key, _, rest = line.partition(":")
                if key in ("Private_Dirty", "Private_Clean"):
                    got[key] = int(rest.split()[0])
        return got["Private_Dirty"], got["Private_Clean"]

    def steady(self, seconds=1.5):
        """(threads, descriptors) of the idle agent: the lowest of each over
        a short while (a command run by the timer holds a pipe for a
        moment)."""
        threads, fds = [], []
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            threads.append(self.threads())
            fds.append(self.fds())
            time.sleep(0.02)
        return min(threads), min(fds)

    def __enter__(self):
        """Samples the thread count every 20 ms until __exit__."""
        self.samples = []
        stop = threading.Event()

        def run():
            while not stop.is_set():
                try:
                    self.samples.append(self.threads())
                except OSError:
                    return
                stop.wait(0.02)
        thread = threading.Thread(target=run, daemon=True)
        thread.start()
        self._sampling = (stop, thread)
        return self

    def __exit__(self, *exc):
        stop, thread = self._sampling
        stop.set()
        thread.join(5)
        return False


class Bounds(object):
    """The steady figures and the checks against them."""

    def __init__(self, agent):
        self.agent = agent
        self.fig = Figures(agent)
        self.threads, self.fds = self.fig.steady()
        self.log = []

    def note(self, text):
        self.log.append(text)
        print(text)

    def sampled(self):
        return self.fig

    def check_threads(self, phase):
        most = max(self.fig.samples) if self.fig.samples else 0
        self.note("%s: threads steady %d, at most %d over %d samples" % (
            phase, self.threads, most, len(self.fig.samples)))
        assert most <= self.threads + THREADS_ABOVE_STEADY, (
            "%s: %d threads at one time, steady count %d (+%d allowed)" % (
                phase, most, self.threads, THREADS_ABOVE_STEADY))

    def check_fds(self, phase, timeout=15):
        back = wait_for(lambda: self.fig.fds() <= self.fds, timeout)
        self.note("%s: descriptors steady %d, now %d" % (phase, self.fds, self.fig.fds()))
        assert back, "%s: %d descriptors, steady count %d:\n%s" % (
            phase, self.fig.fds(), self.fds, "\n".join(self.fig.fd_targets()))

    def check_memory(self, phase, warm, now):
        limit = max(warm[0] * (1 + PRIVATE_SHARE), warm[0] + PRIVATE_SLACK_KB)
        self.note("%s: private dirty %d kB after the warm-up, %d kB at the end "
                  "(+%d; limit %d); private clean %d -> %d kB" % (
                      phase, warm[0], now[0], now[0] - warm[0], limit, warm[1], now[1]))
        assert now[0] <= limit, (
            "%s: private dirty memory grew from %d kB to %d kB (limit %d kB)" % (
                phase, warm[0], now[0], limit))


def settled(agent, server=None):
    """Connected, the timer and the status thread running: the steady
    state (the status thread is the last one started)."""
    if server is not None:
        server.wait_for_connection(20)
    agent.timer_tid()
    agent.out.wait_for(re.compile(r"\[FUNC [^]]*::dsLogStatusUpdatesHandler\]"), 20)


# ---- reconnections ---------------------------------------------------------

def served(peer, request_id):
    """Accept and upgrade the next connection; one request answered on it."""
    peer.accept(20)
    peer.handshake(20)
    peer.send_text(request_text("dxNoSuchMethod", {"deviceId": MAC}, request_id))
    reply = peer.read_message(20, answer_pings=True)
    assert ('"id":"%s"' % request_id) in reply.text, reply.text


def close_in_turn(peer, n):
    """The server ends an open connection: close frame, FIN or RST in turn."""
    how = n % 3
    if how == 0:
        peer.send_close(1000, "bye")
        peer.close()
    elif how == 1:
        peer.close()
    else:
        peer.abort()


def refusals(peer, count, status, reason):
    for _ in range(count):
        peer.refuse(status, reason, timeout=20)


def closes(agent, peer, count, tag):
    """count times: the agent reconnects, is answered, and the server
    closes the connection (after the agent has marked itself connected
    again, so that one reconnection thread has ended before the next
    starts)."""
    for n in range(count):
        served(peer, "%s-%d" % (tag, n))
        agent.wait_state("1", 20)
        close_in_turn(peer, n)


def run_reconnections(agent, peer, bounds, name):
    """Phases: upgrades refused with 401, with 503, accepted connections
    closed by the server.  Each: a warm-up, then the long part; after
    each the agent is connected again and checked."""
    phases = [
        ("401", 40, 200, lambda n: refusals(peer, n, 401, "Unauthorized")),
        ("503", 40, 200, lambda n: refusals(peer, n, 503, "Service Unavailable")),
        ("closed", 20, 100, lambda n: closes(agent, peer, n, "c")),
    ]
    turn = [0]

    def reconnect_and_idle():
        # from a close of the open connection to an answered request on
        # a new one, then idle
        turn[0] += 1
        served(peer, "%s-back-%d" % (name, turn[0]))
        agent.wait_state("1", 20)

    for label, warmup, count, run in phases:
        phase = "%s, %s" % (name, label)
        with bounds.sampled():
            close_in_turn(peer, turn[0])
            run(warmup)
            reconnect_and_idle()
            warm = bounds.fig.memory()
            close_in_turn(peer, turn[0])
            run(count)
            reconnect_and_idle()
        bounds.check_threads(phase)
        bounds.check_fds(phase)
        bounds.check_memory(phase, warm, bounds.fig.memory())
        assert agent.alive()


@pytest.mark.parametrize("tls", [False, True], ids=["ws", "wss"])
def test_reconnections_leave_threads_descriptors_and_memory_flat(device, soak_agent, tls):
    fast_tools(device)
    peer = RawPeer(tls=tls, host=device.net.gateway_ip, netns=device.net.gateway_ns)
    try:
        agent = soak_agent(peer.url())
        served(peer, "first")
        settled(agent)
        bounds = Bounds(agent)
        run_reconnections(agent, peer, bounds, "wss" if tls else "ws")
    finally:
        peer.shutdown()


# ---- status periods ---------------------------------------------------------

STATUS = "dsLogStatusUpdates"


def updates(server):
    return sum(1 for text in server.received_texts if ('"method":"%s"' % STATUS) in text)


def wait_periods(device, count, period_seconds):
    """Until `count` more status periods have passed (the shim counts them)."""
    target = periods(device) + count
    assert wait_for(lambda: periods(device) >= target, 20 + count * period_seconds * 3,
                    interval=0.1), "only %d of %d status periods passed" % (
                        periods(device), target)


def short_periods(device, server, soak_agent, period_scale):
    """The agent with status periods of 1 s shortened by period_scale,
    and its steady figures, taken while the periods were four times as
    long (an update rarely runs then)."""
    fast_tools(device, auto_update=4)
    agent = soak_agent(server.url, period_scale=period_scale)
    settled(agent, server)
    server.next_message(30, method=STATUS)
    bounds = Bounds(agent)
    # every update reads the period again: the next sleep is the short one
    uci_values(device, auto_update=1)
    wait_periods(device, 2, 4 * period_scale)
    return agent, bounds


def test_status_periods_leave_threads_descriptors_and_memory_flat(device, server, soak_agent):
    # a status period of 1 s, shortened to 0.25 s: longer than an update
    # takes here, so that updates follow each other
    agent, bounds = short_periods(device, server, soak_agent, 0.25)
    with bounds.sampled():
        wait_periods(device, 30, 0.25)
        warm = bounds.fig.memory()
        sent = updates(server)
        wait_periods(device, 200, 0.25)
    sent = updates(server) - sent
    bounds.note("status: %d updates sent in 200 periods" % sent)
    # the updates went on all along
    assert sent >= 200 // 4, sent
    bounds.check_threads("status periods")
    bounds.check_fds("status periods")
    bounds.check_memory("status periods", warm, bounds.fig.memory())


HANG = "86399"


def hung_commands(device):
    return sum(1 for p in device.processes() if p["cmdline"] == ["sleep", HANG])


def test_a_hanging_status_command_holds_at_most_one_update(device, server, soak_agent):
    agent, bounds = short_periods(device, server, soak_agent, 0.2)
    # the radio information never comes: the update that asks waits for ever
    device.set_script("kapri_util.lua", "exec sleep %s\n" % HANG, "WifiInfo")
    most_hung = 0
    with bounds.sampled():
        target = periods(device) + 25
        deadline = Deadline(60)
        while periods(device) < target and not deadline.passed():
            most_hung = max(most_hung, hung_commands(device))
            time.sleep(0.2)
        most_hung = max(most_hung, hung_commands(device))
        assert periods(device) >= target, "the status periods stopped passing"
    bounds.note("hanging status command: at most %d waiting at once" % most_hung)
    assert most_hung >= 1, "the utility script was never called"
    bounds.check_threads("hanging status command")
    assert most_hung <= 1, "%d status updates waited on the utility script at once" % most_hung
    # the command ends: updates come again (SIGKILL: the commands the
    # agent's threads run inherit their blocked SIGTERM)
    device.clear_output("kapri_util.lua", "WifiInfo")
    for p in device.processes():
        if p["cmdline"] == ["sleep", HANG]:
            device.signal(p["pid"], signal.SIGKILL)
    server.clear_messages()
    server.next_message(30, method=STATUS)
    bounds.check_fds("hanging status command")


# ---- requests ---------------------------------------------------------------

# Replies and status updates may be more than 40 s apart on a loaded
# machine: the server pings as a real one does.
SERVER_PING_INTERVAL = 15


def requests(server, count, tag):
    """count requests, one at a time: unknown methods (-32601), every
    fortieth a dxGetAbout."""
    for n in range(count):
        if n % 40 == 39:
            reply = server.request("dxGetAbout", {"deviceId": MAC}, id="%s-%d" % (tag, n),
                                   timeout=30)
            assert reply.data["result"]["macAddress"] == MAC
        else:
            reply = server.request("dxNoSuchMethod", {"deviceId": MAC},
                                   id="%s-%d" % (tag, n), timeout=30)
            assert reply.data["error"]["code"] == -32601


def test_requests_leave_threads_descriptors_and_memory_flat(device, server, soak_agent):
    fast_tools(device)
    agent = soak_agent(server.url)
    settled(agent, server)
    bounds = Bounds(agent)
    with bounds.sampled():
        requests(server, 200, "warm")
        warm = bounds.fig.memory()
        requests(server, 2000, "r")
    bounds.check_threads("requests")
    bounds.check_fds("requests")
    bounds.check_memory("requests", warm, bounds.fig.memory())

"""Fixtures of the end-to-end suite.

Every test runs the real korvat-cloud binary (KC_AGENT, default
build/korvat-cloud) inside the simulated device (device/), against either
the WebSocket device server (server/) or the raw-socket peer (rawpeer.py).
The agent's standard output and error are collected line by line; at the
end of each test its error output must hold no sanitizer report unless the
test expected the agent to abort.
"""
import json
import os
import re
import sys
import threading
import time

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.abspath(os.path.join(HERE, "..", ".."))
for extra in (os.path.join(ROOT, "device"), os.path.join(ROOT, "server"), HERE):
    if extra not in sys.path:
        sys.path.insert(0, extra)

from simdevice import Device  # noqa: E402
import safefs  # noqa: E402
from device_server import DeviceServer  # noqa: E402
from rawpeer import RawPeer  # noqa: E402


def pytest_sessionstart(session):
    # The simulated device makes namespaces and mounts: without root the
    # suite is skipped, with the reason (status 77, which CTest reports as
    # skipped).
    if os.geteuid() != 0:
        pytest.exit("skipped: the simulated device needs root (namespaces, "
                    "mounts); run the suite as root", returncode=77)


AGENT = os.environ.get("KC_AGENT") or os.path.join(ROOT, "build", "korvat-cloud")
FASTSLEEP = os.environ.get("KC_FASTSLEEP") or os.path.join(
    ROOT, "build", "tests", "e2e", "fastsleep.so")
MAC = "00:11:22:33:44:55"

# Multiplies every wait for the agent (its output, replies, messages,
# connections, the device's journal): a machine running several suites side
# by side, the sanitizers or an emulated CPU is many times slower than an
# idle one.  Waits that succeed end as soon as they do; only a failure takes
# longer to report.  The build sets it (tests/e2e/CMakeLists.txt).
TIMEOUT_SCALE = float(os.environ.get("KC_TIMEOUT_SCALE") or "1")


def scaled(seconds):
    """A wait for the agent of `seconds` on an idle machine, as long as it
    is on this one (KC_TIMEOUT_SCALE)."""
    return seconds * TIMEOUT_SCALE


class Deadline(object):
    """The end of a wait for the agent that takes several calls: `timeout`
    seconds on an idle machine from now, scaled like every other wait.

        deadline = Deadline(30)
        while ...:
            server.next_message(deadline.budget())  # helpers that scale
            sock.settimeout(deadline.left())        # plain seconds
    """

    def __init__(self, timeout):
        self.timeout = scaled(timeout)
        self.end = time.monotonic() + self.timeout

    def left(self):
        """Real seconds left (0 once it has passed)."""
        return max(0.0, self.end - time.monotonic())

    def budget(self, least=0.01):
        """What is left, as a timeout for a helper that scales its own
        (DeviceServer, RawPeer, Stream.wait_for): never below `least`."""
        return max(least, self.left() / TIMEOUT_SCALE)

    def passed(self):
        return time.monotonic() >= self.end


SANITIZER_MARKS = ("AddressSanitizer", "LeakSanitizer", "UndefinedBehaviorSanitizer",
                   "ThreadSanitizer",
                   "runtime error:")


class Stream(object):
    """Lines of one output stream of the agent, gathered by a thread."""

    def __init__(self, pipe):
        self.lines = []
        self.times = []     # time.monotonic() at which each line was read
        self._cond = threading.Condition()
        self._thread = threading.Thread(target=self._pump, args=(pipe,), daemon=True)
        self._thread.start()

    def _pump(self, pipe):
        for raw in iter(pipe.readline, b""):
            with self._cond:
                self.lines.append(raw.decode("utf-8", "replace").rstrip("\n"))
                self.times.append(time.monotonic())
                self._cond.notify_all()
        with self._cond:
            self._cond.notify_all()

    def text(self):
        with self._cond:
            return "\n".join(self.lines)

    def wait_for(self, pattern, timeout=10.0, start=0):
        """Index of the first line from `start` matching the regex (or equal
        to the plain text); raises AssertionError on timeout."""
        regex = re.compile(pattern) if isinstance(pattern, re.Pattern) else None
        timeout *= TIMEOUT_SCALE
        deadline = time.monotonic() + timeout
        with self._cond:
            while True:
                for i in range(start, len(self.lines)):
                    line = self.lines[i]
                    if (regex.search(line) if regex else line == pattern):
                        return i
                left = deadline - time.monotonic()
                if left <= 0:
                    raise AssertionError("no line %r within %.1f s; got:\n%s" % (
                        pattern, timeout, "\n".join(self.lines[-40:])))
                self._cond.wait(left)

    def wait_eof(self, timeout=10.0):
        """Wait until the stream is closed and every line is gathered."""
        self._thread.join(scaled(timeout))
        assert not self._thread.is_alive(), "stream still open"

    def matching(self, pattern):
        """(time read, line) of every line matching the regex so far."""
        regex = re.compile(pattern)
        with self._cond:
            return [(t, line) for t, line in zip(self.times, self.lines)
                    if regex.search(line)]

    def count(self, text):
        with self._cond:
            return sum(1 for line in self.lines if line == text)


class Agent(object):
    """The agent running inside the simulated device."""

    def __init__(self, device, proc):
        self.device = device
        self.proc = proc
        self.out = Stream(proc.stdout)
        self.err = Stream(proc.stderr)
        self.expect_abort = False

    def wait_exit(self, timeout=10.0):
        """Exit status of the launcher, once every output line is in."""
        status = self.proc.wait(timeout * TIMEOUT_SCALE)
        self.out.wait_eof()
        self.err.wait_eof()
        return status

    def alive(self):
        return self.proc.poll() is None

    def main_tid(self, timeout=5.0):
        """In-device id of the agent's main thread (= its process id)."""
        found = wait_for(lambda: self.device.find("korvat-cloud"), timeout)
        if not found:
            raise AssertionError("korvat-cloud is not running in the device")
        first = found[0]
        return first["pid"] if isinstance(first, dict) else first

    def threads(self, at_least=5, timeout=10.0):
        """In-device ids of the agent's threads, once at least `at_least`
        run (main, receiving and three sending threads after connecting);
        the ids found last when fewer run."""
        last = []

        def enough():
            found = self.device.find("korvat-cloud")
            last[:] = [tid for tid, _ in found[0]["threads"]] if found else []
            return len(last) >= at_least

        wait_for(enough, timeout)
        return list(last)

    def timer_tid(self, timeout=15.0):
        """In-device id of the maintenance timer thread, once it has written
        it into /tmp/cloud_timer_pid (a test that writes that file must
        wait for the timer's own write first)."""
        def written():
            text = (self.device.read_file("/tmp/cloud_timer_pid") or "").strip()
            return int(text) if text.isdigit() else None
        tid = wait_for(written, timeout)
        if tid is None:
            raise AssertionError("the timer thread never wrote /tmp/cloud_timer_pid")
        return tid

    def state(self):
        text = self.device.read_file("/tmp/cloud_conn_state")
        return None if text is None else text.strip()

    def wait_state(self, value, timeout=10.0):
        if not wait_for(lambda: self.state() == value, timeout):
            raise AssertionError("connection state stayed %r, wanted %r"
                                 % (self.state(), value))

    def sent_frame(self, id_, start=0, timeout=20.0):
        """(index of its "Sending text frame:" line, text of its dump) of the
        first frame from line `start` on that a sending thread of the agent
        took with this "id" (or, id_ being callable, whose tree it accepts):
        printed as the thread takes it, before it is on the wire.  Other
        frames between are passed over."""
        wanted = id_ if callable(id_) else (lambda tree: tree.get("id") == id_)
        dashes = "-" * 77
        while True:
            j = self.out.wait_for("Sending text frame:", timeout, start=start)
            end = self.out.wait_for(dashes, timeout, start=j + 1)
            text = "\n".join(self.out.lines[j + 1:end])
            try:
                # the dump colours the method (escape codes in the text)
                found = bool(wanted(json.loads(re.sub(r"\x1b\[[0-9;]*m", "", text))))
            except (ValueError, AttributeError, KeyError, IndexError, TypeError):
                found = False
            if found:
                return j, text
            start = end + 1

    def sanitizer_reports(self):
        text = self.err.text() + "\n" + self.out.text()
        return [mark for mark in SANITIZER_MARKS if mark in text]


@pytest.fixture
def device():
    with Device() as dev:
        dev.timeout_scale = TIMEOUT_SCALE
        yield dev


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    """Keeps each phase's report on the test item, so that fixtures can tell
    at teardown whether the test failed."""
    outcome = yield
    report = outcome.get_result()
    setattr(item, "report_" + report.when, report)


# Lines of the agent's output shown when a test fails.
FAILURE_TAIL = 150


@pytest.fixture
def start_agent(device, request):
    """start_agent(url, debug=True, mac=MAC, args=None, fastsleep=False, env=None,
                   stdout_to_syslog=False)

    stdout_to_syslog: the agent's output also goes to the device's system
    log, as the service manager sends it there on the device.
    When the test fails, the end of each agent's output is printed (pytest
    shows it under the teardown's captured output)."""
    started = []

    def start(url=None, debug=True, mac=MAC, args=None, fastsleep=False, env=None,
              stdout_to_syslog=False):
        env = dict(env or {})
        preload = []
        if fastsleep:
            preload.append(FASTSLEEP)
            env.setdefault("FASTSLEEP_LOG", "/tmp/fastsleep.log")
            # gcc's sanitizer runtime would refuse a preloaded library ahead of it
            env.setdefault("ASAN_OPTIONS", "verify_asan_link_order=0")
        if args is None:
            cmd = ["/usr/bin/korvat-cloud"] + (["-d"] if debug else []) + [url, mac]
        else:
            cmd = ["/usr/bin/korvat-cloud"] + list(args)
        proc = device.start(cmd, agent=AGENT, env=env, preload=preload,
                            stdout_to_syslog=stdout_to_syslog)
        agent = Agent(device, proc)
        started.append(agent)
        return agent

    yield start
    stop_agents(device, started, request)


def stop_agents(device, started, request):
    """The teardown of a fixture that started agents in the device: stops
    the device's processes and gathers each agent's last lines; when the
    test failed, prints the end of each agent's output; fails on a
    sanitizer report of an agent that was not expected to abort."""
    call = getattr(request.node, "report_call", None)
    failed = call is not None and call.failed
    for n, agent in enumerate(started):
        device.stop()
        agent.out._thread.join(5)
        agent.err._thread.join(5)
        if failed:
            for name, stream in (("output", agent.out), ("error output", agent.err)):
                lines = stream.lines[-FAILURE_TAIL:]
                print("---- agent %d: last %d lines of its %s ----" % (n + 1, len(lines), name))
                print("\n".join(lines))
    if failed and started:
        # what the device's tool server noted (tools that died of a signal)
        try:
            log = safefs.read_text(device.run, ".simtools/server.log")
        except (OSError, safefs.UnsafePath):
            log = None
        if log:
            print("---- the device's tool server log (last lines) ----")
            print("\n".join(log.splitlines()[-40:]))
        if not agent.expect_abort:
            reports = agent.sanitizer_reports()
            assert not reports, "sanitizer report from the agent:\n" + agent.err.text()


def device_server(device, **kw):
    """A device server listening in the device network's gateway namespace
    (the agent reaches it at device.net.gateway_ip).  It does not ping unless
    asked: the wire stays exactly what the test sends."""
    kw.setdefault("ping_interval", None)
    kw.setdefault("timeout_scale", TIMEOUT_SCALE)
    # every message the agent sends is checked against docs/openrpc.json
    kw.setdefault("validate", True)
    srv = DeviceServer(host=device.net.gateway_ip, netns=device.net.gateway_ns, **kw)
    _servers_made.append(srv)
    return srv


_servers_made = []


@pytest.fixture(autouse=True)
def conforms_to_the_protocol_document():
    """After each test: what the agent sent to any device server of the test
    conformed to docs/openrpc.json."""
    del _servers_made[:]
    yield
    bad = [v for srv in _servers_made for v in srv.violations]
    assert not bad, "replies or notifications that differ from docs/openrpc.json:\n" + \
        "\n".join("%s\n    %s" % (raw[:300], "\n    ".join(p)) for raw, p in bad[:10])


@pytest.fixture
def server(device, request):
    """The device server.  A test module that waits a long time for the
    agent's own messages sets SERVER_PING_INTERVAL: the server then pings as
    a real one does, since the agent closes a connection that stays silent
    for 40 s."""
    srv = device_server(device, ping_interval=getattr(request.module,
                                                      "SERVER_PING_INTERVAL", None))
    srv.start()
    yield srv
    srv.stop()


@pytest.fixture
def tls_server(device):
    srv = device_server(device, tls=True)
    srv.start()
    yield srv
    srv.stop()


@pytest.fixture
def peer(device):
    p = RawPeer(host=device.net.gateway_ip, netns=device.net.gateway_ns,
                timeout_scale=TIMEOUT_SCALE)
    yield p
    p.shutdown()


@pytest.fixture
def connected(server, start_agent, request):
    """An agent connected to the device server: (agent, server).  A test
    module whose agent needs an environment of its own (a time zone) sets
    AGENT_ENV."""
    agent = start_agent(server.url, env=getattr(request.module, "AGENT_ENV", None))
    server.wait_for_connection(timeout=15)
    return agent, server


@pytest.fixture
def connected_with_radios_known(connected):
    """`connected`, once the timer has read which radios the device has
    (wait_radios_known)."""
    wait_radios_known(connected[0])
    return connected


@pytest.fixture
def connected_after_start_up(device, connected):
    """`connected`, once the agent's start-up commands are over
    (wait_start_up_commands), with the journal cleared."""
    wait_start_up_commands(device)
    device.clear_journal()
    return connected


# ---- helpers shared by the suites ------------------------------------------

def request_text(method, params, id_):
    return json.dumps({"jsonrpc": "2.0", "id": id_, "method": method, "params": params},
                      separators=(",", ":"))


def about(id_):
    return request_text("dxGetAbout", {"deviceId": MAC}, id_)


def settings(device, **options):
    for key, value in options.items():
        device.uci_ok("set", "korvatCloud.korvatCloud.%s=%s" % (key, value))
    device.uci_ok("commit", "korvatCloud")


def not_a_status_update(message):
    return message.method != "dsLogStatusUpdates"


def unsolicited(server):
    """The messages the server holds other than status updates: a check
    that nothing else came must not count the periodic update that a long
    test sees."""
    return [m for m in server.messages if not_a_status_update(m)]


_request_barriers = iter(range(1, 10 ** 6))


def request_barrier(server, timeout=30.0):
    """Sends a request for a method the agent does not have and waits for
    its refusal.  The agent handles its requests one at a time, in order,
    and sends its replies in the order they were queued: once this reply is
    in, every request received before it has been handled to its end, and
    every reply or streamed result queued before it has arrived.  A check
    that some request had no further effect, or that nothing more was
    answered, comes after it.  (It runs no device command, so the journal
    is left as it was.)"""
    id_ = "barrier-%d" % next(_request_barriers)
    reply = server.request("kcTestBarrier", {"deviceId": MAC}, id=id_, timeout=timeout)
    assert reply.data.get("error", {}).get("code") == -32601, reply.raw
    return reply


# The maintenance timer asks this once a tick, in its remote-access check
# (which runs while "remote_access_timeout" is above 0, as by default).
TICK_LINE = "uci get upnpc.http.enable"


def wait_ticks(device, count=2, timeout=30.0):
    """Waits until the maintenance timer has begun `count` more ticks,
    counted in the journal by TICK_LINE.  Once two have begun, all the
    checks of one whole tick ran after the call: a check that something
    did not happen then is an ordering check, not a guess at a time.  The
    remote-access time-out must be above 0 and the journal must not be
    cleared meanwhile."""
    start = device.journal().count(TICK_LINE)
    assert wait_for(lambda: device.journal().count(TICK_LINE) >= start + count, timeout), \
        "the maintenance timer did not tick %d times (%r)" % (count, TICK_LINE)


_barriers = iter(range(9001, 10 ** 6))


def timer_barrier(device, server, timeout=30.0):
    """Makes sure that the maintenance timer ran one whole tick of checks
    after the call, whatever the settings: twice an event line goes into
    "/tmp/cEvtLog" and its notification is awaited at the server; the
    second is taken by a tick that began after the first was sent.  Needs
    the agent connected to `server`, no pause for the web configuration,
    and the event file free of other lines; both notifications are taken
    from the server's messages."""
    for _ in range(2):
        number = next(_barriers)
        text = "timer barrier %d" % number
        put_event_file(device, "number:%d dateTime:2026-11-15T10:00:00+0100 type:INFO event:%s\n"
                       % (number, text))
        server.next_message(timeout, method="dsEventNotifications",
                            predicate=lambda m: m.data["params"]["events"][-1]["event"] == text)
        # the timer empties the file after handing the notification over
        assert wait_for(lambda: (device.read_file("/tmp/cEvtLog") or "").strip() == "", timeout)


def wait_for(condition, timeout=30.0, interval=0.05):
    """The one wait for the agent: polls condition until it gives a true
    value or the time (scaled by KC_TIMEOUT_SCALE) runs out; returns that
    value, or condition's last value (false) on time-out."""
    deadline = Deadline(timeout)
    while True:
        value = condition()
        if value:
            return value
        if deadline.passed():
            return condition()
        time.sleep(min(interval, deadline.left()) or interval)


# ---- what the suites wait for and look at ----------------------------------

# The agent's time zone in suites whose checks read its local times.
CET = {"TZ": "CET-1"}

# The reply that refuses a request's parameters, with its "data".
INVALID_PARAMETER = ('{"jsonrpc":"2.0","id":"%s","error":{"code":-32602,'
                     '"message":"Invalid method parameter","data":%s}}')


def invalid_parameter_reply(id_, data=""):
    """The exact text of the refusal of request id_'s parameters."""
    return INVALID_PARAMETER % (id_, json.dumps(data))


def without(params, *names):
    """params without the members named."""
    return {k: v for k, v in params.items() if k not in names}


def wait_radios_known(agent, timeout=15):
    """Waits until the timer has read which radios the device has (requests
    on radio 1 depend on them): the timer runs, and its line "===
    support2G=N, support5G=N" is out.  Returns that line."""
    agent.timer_tid()
    line = agent.out.wait_for(re.compile(r"=== support2G=\d, support5G=\d"), timeout=timeout)
    return agent.out.lines[line]


# What the agent reads first at start: the timer and the status thread.
START_UP_READS = ("uci get korvatCloud.korvatCloud.beta_mode",
                  "uci get korvatCloud.korvatCloud.auto_update")


def wait_start_up_commands(device):
    """Waits until the agent's start-up commands are over: its first reads
    (START_UP_READS), then two ticks of the timer (wait_ticks), so that none
    of them lands in a journal the test looks at afterwards."""
    for line in START_UP_READS:
        assert device.wait_journal(line, 20), "the agent never ran %r" % line
    wait_ticks(device, 2)


# The receive queue's debug line once a request is in it.
REQUEST_QUEUED = r"queueWriter\]\[LINE 573\]: produceObject: end$"


def wait_request_queued(agent, id_, timeout=20):
    """Waits until the agent has put the request with this id into its
    receive queue (its frame dump, then the queue's debug line)."""
    i = agent.out.wait_for(re.compile(r'^\{"jsonrpc":"2\.0","id":"%s",' % re.escape(id_)),
                           timeout)
    agent.out.wait_for(re.compile(REQUEST_QUEUED), timeout, start=i)


def wait_file_exists(device, path, timeout=20):
    """Waits until path exists in the device; whether it does."""
    return wait_for(lambda: device.exists(path), timeout)


def wait_uci_committed(device, path, value, timeout=10):
    """Waits until the committed value of path is value; returns the
    committed value (another one on time-out, for the test's assertion)."""
    wait_for(lambda: device.uci_committed(path) == value, timeout)
    return device.uci_committed(path)


def journal_lines(device, *prefixes):
    """The device's journal lines that start with one of prefixes, oldest
    first."""
    return [line for line in device.journal() if line.startswith(prefixes)]


def uci_set_lines(device):
    """The "uci set" commands of the journal, in order."""
    return journal_lines(device, "uci set ")


def uci_write_lines(device):
    """The "uci set" and "uci commit" commands of the journal, in order."""
    return journal_lines(device, "uci set", "uci commit")


def script_call_lines(device, sub=""):
    """The utility script's calls in the journal, in order: all of them, or
    those of the sub-command sub."""
    return journal_lines(device, "kapri_util.lua " + sub)


def agent_sleeps(device):
    """The seconds of every sleep() the agent asked for, in order (the
    sleep shim's record: the agent started with fastsleep)."""
    text = device.read_file("/tmp/fastsleep.log") or ""
    return [int(line.split()[1]) for line in text.splitlines() if line.startswith("sleep ")]


def put_event_file(device, text):
    """Replaces /tmp/cEvtLog at once (written aside, then moved in), so the
    agent never reads half of it."""
    device.write_file("/tmp/cEvtLog.new", text)
    r = device.sh("mv /tmp/cEvtLog.new /tmp/cEvtLog")
    assert r.returncode == 0, r.stderr


def set_conn_retry(device, value):
    """Sets the connection retry interval ("conn_retry", committed); None
    deletes it."""
    if value is None:
        device.uci_ok("delete", "korvatCloud.korvatCloud.conn_retry")
    else:
        device.uci_ok("set", "korvatCloud.korvatCloud.conn_retry=%s" % value)
    device.uci_ok("commit", "korvatCloud")


def pair_network_one(device):
    """Network 1 paired on both radios: w0_index1:w1_index1 (committed)."""
    device.uci_ok("set", "wireless.wifi0.network_profile=w0_index0:w1_index0,w0_index1:w1_index1")
    device.uci_ok("set", "wireless.wifi1.wlanlist=0,1")
    device.uci_ok("set", "wireless.wifi1.enlist=1,0")
    device.uci_ok("commit", "wireless")


# The apply step held: the utility script's "cloud_action_apply" waits for
# /tmp/apply_go (at most 20 s), then commits as the device's own script
# does, then leaves /tmp/apply_done.
HELD_APPLY = ("i=0\n"
              "while [ ! -e /tmp/apply_go ] && [ $i -lt 400 ]; do sleep 0.05; i=$((i+1)); done\n"
              "uci commit\n"
              ": > /tmp/apply_done\n")


def hold_apply_step(device):
    """From now on the apply step waits until release_apply_step."""
    device.set_script("kapri_util.lua", HELD_APPLY, "cloud_action_apply")


def release_apply_step(device):
    """Waits until the held apply step runs (it has not finished), lets it
    go and waits until it has."""
    assert device.wait_journal("kapri_util.lua cloud_action_apply"), "the apply step never ran"
    assert not device.exists("/tmp/apply_done")
    device.write_file("/tmp/apply_go", "")
    assert wait_file_exists(device, "/tmp/apply_done"), "the apply step did not finish"


def assert_staged_until_applied(device, changes):
    """changes: uci path -> (committed value before, value staged).  While
    the held apply step waits, each value is staged and not committed; once
    it is let go (release_apply_step), each is committed."""
    for path, (before, after) in changes.items():
        assert device.uci_get(path) == after, path
        assert device.uci_committed(path) == before, path
    release_apply_step(device)
    for path, (_, after) in changes.items():
        assert device.uci_committed(path) == after, path

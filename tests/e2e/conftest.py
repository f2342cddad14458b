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
from device_server import DeviceServer  # noqa: E402
from rawpeer import RawPeer  # noqa: E402

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
        self._thread.join(timeout)
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

    def main_tid(self):
        """In-device id of the agent's main thread (= its process id)."""
        deadline = time.monotonic() + 5
        while time.monotonic() < deadline:
            found = self.device.find("korvat-cloud")
            if found:
                first = found[0]
                return first["pid"] if isinstance(first, dict) else first
            time.sleep(0.05)
        raise AssertionError("korvat-cloud is not running in the device")

    def threads(self, at_least=5, timeout=10.0):
        """In-device ids of the agent's threads, once at least `at_least`
        run (main, receiving and three sending threads after connecting)."""
        deadline = time.monotonic() + timeout
        while True:
            found = self.device.find("korvat-cloud")
            tids = [tid for tid, _ in found[0]["threads"]] if found else []
            if len(tids) >= at_least or time.monotonic() > deadline:
                return tids
            time.sleep(0.05)

    def timer_tid(self, timeout=15.0):
        """In-device id of the maintenance timer thread, once it has written
        it into /tmp/cloud_timer_pid (a test that writes that file must
        wait for the timer's own write first)."""
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            text = (self.device.read_file("/tmp/cloud_timer_pid") or "").strip()
            if text.isdigit():
                return int(text)
            time.sleep(0.05)
        raise AssertionError("the timer thread never wrote /tmp/cloud_timer_pid")

    def state(self):
        text = self.device.read_file("/tmp/cloud_conn_state")
        return None if text is None else text.strip()

    def wait_state(self, value, timeout=10.0):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            if self.state() == value:
                return
            time.sleep(0.05)
        raise AssertionError("connection state stayed %r, wanted %r" % (self.state(), value))

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
        if not agent.expect_abort:
            reports = agent.sanitizer_reports()
            assert not reports, "sanitizer report from the agent:\n" + agent.err.text()


def device_server(device, **kw):
    """A device server listening in the device network's gateway namespace
    (the agent reaches it at device.net.gateway_ip).  It does not ping unless
    asked: the wire stays exactly what the test sends."""
    kw.setdefault("ping_interval", None)
    kw.setdefault("timeout_scale", TIMEOUT_SCALE)
    return DeviceServer(host=device.net.gateway_ip, netns=device.net.gateway_ns, **kw)


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
    p = RawPeer(host=device.net.gateway_ip, netns=device.net.gateway_ns)
    yield p
    p.shutdown()


@pytest.fixture
def connected(server, start_agent):
    """An agent connected to the device server: (agent, server)."""
    agent = start_agent(server.url)
    server.wait_for_connection(timeout=15)
    return agent, server


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


def wait_for(condition, timeout=30.0, interval=0.05):
    """Polls condition until it holds or the time runs out; its last value."""
    deadline = time.monotonic() + timeout * TIMEOUT_SCALE
    while time.monotonic() < deadline:
        if condition():
            return True
        time.sleep(interval)
    return condition()

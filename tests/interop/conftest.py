"""Fixtures of the interoperability suite.

Each test runs the real korvat-cloud binary (KC_AGENT, default
build/korvat-cloud) inside the simulated device, whose network is its own:
the device server runs in the device network's gateway namespace and
listens on its address (192.168.1.1).  The server is one of three
independent implementations (serverproc.KINDS), each a child process with
the same line-based control interface, so that one scenario drives all.
"""
import os
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
import tlscert  # noqa: E402
from serverproc import KINDS, ServerProcess  # noqa: E402


def pytest_sessionstart(session):
    # The simulated device makes namespaces and mounts: without root the
    # suite is skipped, with the reason (status 77, which CTest reports as
    # skipped).
    if os.geteuid() != 0:
        pytest.exit("skipped: the simulated device needs root (namespaces, "
                    "mounts); run the suite as root", returncode=77)

AGENT = os.environ.get("KC_AGENT") or os.path.join(ROOT, "build", "korvat-cloud")
MAC = "02:4b:56:31:30:01"
URL_PATH = "interop/device"

SANITIZER_MARKS = ("AddressSanitizer", "LeakSanitizer", "UndefinedBehaviorSanitizer",
                   "runtime error:")


class Lines(object):
    """Lines of one output stream of the agent, gathered by a thread."""

    def __init__(self, pipe):
        self.lines = []
        self._cond = threading.Condition()
        self._thread = threading.Thread(target=self._pump, args=(pipe,), daemon=True)
        self._thread.start()

    def _pump(self, pipe):
        for raw in iter(pipe.readline, b""):
            with self._cond:
                self.lines.append(raw.decode("utf-8", "replace").rstrip("\n"))
                self._cond.notify_all()

    def text(self):
        with self._cond:
            return "\n".join(self.lines)

    def join(self, timeout=5.0):
        self._thread.join(timeout)


class Rig(object):
    """A device running the agent, connected to one device server."""

    def __init__(self, device, server):
        self.device = device
        self.server = server
        self.agent = None
        self.out = self.err = None

    def start_agent(self, mac=MAC):
        url = self.server.url(URL_PATH)
        self.agent = self.device.start(["/usr/bin/korvat-cloud", "-d", url, mac], agent=AGENT)
        self.out = Lines(self.agent.stdout)
        self.err = Lines(self.agent.stderr)
        return self.agent

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
        text = (self.err.text() if self.err else "") + "\n" + (self.out.text() if self.out else "")
        return [mark for mark in SANITIZER_MARKS if mark in text]


@pytest.fixture(scope="session")
def cert_dir(tmp_path_factory):
    directory = str(tmp_path_factory.mktemp("cert"))
    tlscert.make_self_signed(directory)
    return directory


# KC_INTEROP_KINDS (comma-separated) restricts the run to some servers; CTest
# runs one entry per server so that they go side by side.
SELECTED = [k for k in os.environ.get("KC_INTEROP_KINDS", ",".join(KINDS)).split(",")
            if k in KINDS]


@pytest.fixture(params=sorted(SELECTED))
def kind(request):
    return request.param


@pytest.fixture(params=["ws", "wss"])
def scheme(request):
    return request.param


@pytest.fixture
def rig(kind, scheme, cert_dir, request):
    """The agent in a fresh device (reconnecting every second) and a server
    of the given kind in the device network's gateway, not yet connected."""
    with Device() as device:
        retry = device.uci("set", "korvatCloud.korvatCloud.conn_retry=1")
        assert retry.returncode == 0, retry.stderr
        commit = device.uci("commit", "korvatCloud")
        assert commit.returncode == 0, commit.stderr
        server = ServerProcess(kind, host=device.net.gateway_ip, tls=scheme == "wss",
                               cert_dir=cert_dir, popen=device.net.popen_gateway)
        rig = Rig(device, server)
        try:
            server.start()
            yield rig
        finally:
            device.stop()
            server.stop()
            for lines in (rig.out, rig.err):
                if lines is not None:
                    lines.join()
        failed = getattr(request.node, "rep_call", None)
        if failed is not None and failed.failed:
            sys.stdout.write("%s\nagent output (last lines):\n%s\n" % (
                server.describe(), "\n".join(rig.out.lines[-60:]) if rig.out else ""))
        reports = rig.sanitizer_reports()
        assert not reports, "sanitizer report from the agent:\n" + rig.err.text()


@pytest.fixture
def connected(rig):
    """The rig with the agent started and its first connection open:
    (rig, the server's "open" event)."""
    rig.start_agent()
    return rig, rig.server.wait_open(20)


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item, call):
    outcome = yield
    report = outcome.get_result()
    if report.when == "call":
        item.rep_call = report


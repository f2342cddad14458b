"""A small fleet of real agents (fleet/fleet run): every device connects and
answers dxGetAbout with its own MAC; the bundled server restarts and every
device comes back, every reply queued during the outage delivered exactly
once; the report and the plot hold what the summary showed; and the
runner leaves nothing behind, whether it ends, is interrupted or is
killed."""
import json
import os
import re
import signal
import subprocess
import sys
import threading
import time

import pytest

from conftest import AGENT, FLEET, FleetTrace, host_state, scaled

DEVICES = 20


class Fleet:
    """A `fleet run` in the background; its output lines as they come."""

    def __init__(self, tmp_path, *args):
        self.report = str(tmp_path / "report.json")
        self.plot = str(tmp_path / "plot.png")
        self.lines = []
        self.cond = threading.Condition()
        argv = [FLEET, "run", "--agent", AGENT, "--summary", "plain",
                "--report", self.report, "--plot", self.plot] + list(args)
        self.proc = subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                     text=True, start_new_session=True)
        self.thread = threading.Thread(target=self._read, daemon=True)
        self.thread.start()

    def _read(self):
        for line in self.proc.stdout:
            with self.cond:
                self.lines.append(line.rstrip("\n"))
                self.cond.notify_all()
        with self.cond:
            self.cond.notify_all()

    def wait_line(self, pattern, timeout):
        regex = re.compile(pattern)
        end = time.monotonic() + scaled(timeout)
        with self.cond:
            while True:
                for line in self.lines:
                    if regex.search(line):
                        return line
                left = end - time.monotonic()
                if left <= 0 or (self.proc.poll() is not None and not self.thread.is_alive()):
                    raise AssertionError("no line %r; output:\n%s"
                                         % (pattern, "\n".join(self.lines[-60:])))
                self.cond.wait(min(left, 1.0))

    def wait(self, timeout):
        try:
            rc = self.proc.wait(scaled(timeout))
        finally:
            if self.proc.poll() is None:
                os.killpg(self.proc.pid, signal.SIGKILL)
                self.proc.wait()
        self.thread.join(10)
        return rc

    def output(self):
        return "\n".join(self.lines)


def mac_base():
    """A MAC range of this test run's own (a fleet's MACs show in process
    command lines, so that nothing else is mistaken for it)."""
    return "02:%02x:%02x:%02x:00:00" % ((os.getpid() >> 16) & 0xff, (os.getpid() >> 8) & 0xff,
                                         os.getpid() & 0xff)


def final_figures(text):
    line = [l for l in text.splitlines() if l.startswith("final: ")][-1]
    return {k: (None if v == "-" else int(v)) for k, v in re.findall(r"(\w+)=(\S+)", line)}


def test_restart_brings_every_device_back_with_its_queued_reply(tmp_path, need_root):
    before = host_state()
    base = mac_base()
    fleet = Fleet(tmp_path, "--devices", str(DEVICES), "--mac-base", base,
                  "--scenario", "restart", "--outage", "8", "--strict",
                  "--reconnect-timeout", str(scaled(60)), "--reply-timeout", str(scaled(60)),
                  "--connect-timeout", str(scaled(90)))
    fleet.wait_line(r"all devices connected \(%d\)" % DEVICES, 120)
    trace = FleetTrace(fleet.proc.pid)
    assert len(trace.agents()) == DEVICES
    rc = fleet.wait(300)
    out = fleet.output()
    assert rc == 0, out
    with open(fleet.report) as f:
        doc = json.load(f)
    assert doc["problems"] == [], doc["problems"]
    macs = [d["mac"] for d in doc["devices"]]
    assert macs[0] == base and len(set(macs)) == DEVICES
    # every device answered dxGetAbout with its own MAC, before and after
    rounds = {r["id"].rsplit("-", 1)[0]: r for r in doc["requests"]}
    for label in ("before", "after"):
        r = rounds[label]
        assert (r["sent"], r["answered"], r["wrong"], r["missing"]) == (DEVICES, DEVICES, [], [])
    # the server went away and every device came back
    res = doc["scenario"]["result"]
    assert res["back"] - res["went"] >= 8
    wave = res["wave"]
    assert (wave["devices"], wave["back"]) == (DEVICES, DEVICES)
    assert sum(c for _, c in wave["per_100ms"]) == DEVICES
    assert res["seed_groups_after"]["devices"] == DEVICES
    for d in doc["devices"]:
        assert any(t >= res["back"] for t in d["opened"]), d["mac"]
        assert d["exits"] == [] and d["starts"] == 1
    # the request each device had taken when the server went: answered
    # once, over its new connection
    q = res["queued"]
    assert (q["sent"], q["lost"], q["duplicated"], q["wrong"]) == (DEVICES, [], [], [])
    assert q["after_reconnection"] == DEVICES
    # the report holds what the summary showed last, and the plot is there
    shown = final_figures(out)
    for key in ("connected", "reconnecting", "answered", "status_updates", "events",
                "memory_mib"):
        assert shown[key] == doc["summary"][key], key
    assert shown["connected"] == DEVICES and shown["answered"] >= 3 * DEVICES
    with open(fleet.plot, "rb") as f:
        assert f.read(8) == b"\x89PNG\r\n\x1a\n"
    assert "wrote %s" % fleet.report in out and "wrote %s" % fleet.plot in out
    # nothing left behind
    assert leftovers(trace) == []
    assert host_state() == before
    assert not [p for p in os.listdir("/proc") if p.isdigit() and base[:11] in _cmdline(p)]


def leftovers(trace):
    """What of the fleet is still there once the kernel has finished
    with it: the fleet's init ends with the command, and the kernel then
    ends and reaps the rest of its namespace (processes closing their
    descriptors) on its own time."""
    end = time.monotonic() + scaled(20)
    while trace.leftovers() and time.monotonic() < end:
        time.sleep(0.2)
    return trace.leftovers()


def _cmdline(pid):
    try:
        with open("/proc/%s/cmdline" % pid, "rb") as f:
            return f.read().decode("utf-8", "replace")
    except OSError:
        return ""


@pytest.mark.parametrize("victim", ["runner", "outer"])
def test_a_killed_runner_leaves_nothing(tmp_path, need_root, victim):
    before = host_state()
    fleet = Fleet(tmp_path, "--devices", "6", "--mac-base", mac_base(),
                  "--duration", "600")
    fleet.wait_line(r"all devices connected \(6\)", 120)
    trace = FleetTrace(fleet.proc.pid)
    assert len(trace.agents()) == 6 and trace.net_ns
    # the runner is init's child (pid 2 of the fleet's namespace)
    runner = [p for p in trace.procs if _ppid(p) == trace.init][0]
    os.kill(runner if victim == "runner" else fleet.proc.pid, signal.SIGKILL)
    rc = fleet.wait(60)
    assert rc != 0
    assert leftovers(trace) == []
    assert host_state() == before
    assert not os.path.exists(fleet.report)


def _ppid(pid):
    with open("/proc/%d/stat" % pid, "rb") as f:
        data = f.read()
    return int(data[data.rindex(b")") + 2:].split()[1])


def test_interrupted_fleet_stops_reports_and_leaves_nothing(tmp_path, need_root):
    before = host_state()
    fleet = Fleet(tmp_path, "--devices", "4", "--mac-base", mac_base(), "--duration", "600")
    fleet.wait_line(r"all devices connected \(4\)", 120)
    trace = FleetTrace(fleet.proc.pid)
    os.kill(fleet.proc.pid, signal.SIGINT)
    rc = fleet.wait(120)
    assert rc == 130, fleet.output()
    with open(fleet.report) as f:
        doc = json.load(f)
    assert doc["interrupted"] and "interrupted" in doc["problems"]
    assert doc["summary"]["connected"] == 4
    assert leftovers(trace) == []
    assert host_state() == before


def test_own_server_on_the_hosts_loopback(tmp_path, need_root):
    """--server-url: the devices reach a server the user names (here one
    on the host's loopback) through the switch's forward, and nothing else."""
    import device_server
    srv = device_server.DeviceServer(host="127.0.0.1", ping_interval=5, echo=False,
                                     retain=False)
    srv.start()
    seen = set()

    class Seen:
        def on_open(self, conn):
            seen.add(conn.origin)
    srv.add_observer(Seen())
    base = mac_base()
    try:
        fleet = Fleet(tmp_path, "--devices", "3", "--mac-base", base, "--duration", "3",
                      "--server-url", "ws://127.0.0.1:%d/fleet" % srv.port)
        rc = fleet.wait(180)
        out = fleet.output()
        assert rc == 0, out
        with open(fleet.report) as f:
            doc = json.load(f)
        assert doc["server"]["kind"] == "own"
        assert doc["server"]["agent_url"] == "ws://10.64.0.1:%d/fleet" % srv.port
        assert seen == {d["mac"] for d in doc["devices"]}
        assert len(seen) == 3
        # the agents' side: connected (their state file) at the end
        assert doc["summary"]["connected"] == 3
    finally:
        srv.stop()

"""Fixtures of the fleet suites (fleet/): the runner's command line, the
agent it runs, and a check that a fleet left nothing behind."""
import os
import sys

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.abspath(os.path.join(HERE, "..", ".."))
for sub in (os.path.join(ROOT, "fleet"), os.path.join(ROOT, "server"),
            os.path.join(ROOT, "device"), os.path.join(ROOT, "tests", "server")):
    if sub not in sys.path:
        sys.path.insert(0, sub)

FLEET = os.path.join(ROOT, "fleet", "fleet")
AGENT = os.environ.get("KC_AGENT") or os.path.join(ROOT, "build", "korvat-cloud")
TIMEOUT_SCALE = float(os.environ.get("KC_TIMEOUT_SCALE") or "1")


def scaled(seconds):
    return seconds * TIMEOUT_SCALE


@pytest.fixture
def need_root():
    if os.geteuid() != 0:
        pytest.skip("a fleet needs root (namespaces, mounts)")
    if not os.access(AGENT, os.X_OK):
        pytest.skip("no agent binary at %s" % AGENT)


# ---- what a fleet leaves behind -----------------------------------------------------

def _ns(pid, kind):
    try:
        return os.readlink("/proc/%s/ns/%s" % (pid, kind))
    except OSError:
        return None


def _start_time(pid):
    try:
        with open("/proc/%s/stat" % pid, "rb") as f:
            data = f.read()
        return int(data[data.rindex(b")") + 2:].split()[19])
    except (OSError, ValueError, IndexError):
        return None


def _children(pid):
    try:
        with open("/proc/%d/task/%d/children" % (pid, pid)) as f:
            return [int(x) for x in f.read().split()]
    except OSError:
        return []


def _pids():
    return [int(p) for p in os.listdir("/proc") if p.isdigit()]


class FleetTrace:
    """What a running fleet (its outer process given) is made of, taken
    from the host: its PID and mount namespaces, its processes, the
    network namespaces they are in or hold."""

    def __init__(self, outer_pid):
        self.outer = outer_pid
        kids = _children(outer_pid)
        assert kids, "the fleet has no init process"
        self.init = kids[0]
        self.pid_ns = _ns(self.init, "pid")
        self.mnt_ns = _ns(self.init, "mnt")
        assert self.pid_ns and self.pid_ns != _ns("self", "pid")
        self.procs = {}
        self.net_ns = set()
        for p in _pids():
            if _ns(p, "pid") != self.pid_ns and not self._nested(p):
                continue
            self.procs[p] = _start_time(p)
            net = _ns(p, "net")
            if net and net != _ns("self", "net"):
                self.net_ns.add(net)
            try:
                for fd in os.listdir("/proc/%d/fd" % p):
                    try:
                        target = os.readlink("/proc/%d/fd/%s" % (p, fd))
                    except OSError:
                        continue
                    if target.startswith("net:["):
                        self.net_ns.add(target)
            except OSError:
                pass

    def _nested(self, pid):
        """A process of a namespace nested in the fleet's (a sandbox)."""
        try:
            with open("/proc/%d/status" % pid) as f:
                for line in f:
                    if line.startswith("NSpid:"):
                        return len(line.split()) > 2 and self._ancestor(pid)
        except OSError:
            return False
        return False

    def _ancestor(self, pid):
        for _ in range(64):
            try:
                with open("/proc/%d/stat" % pid, "rb") as f:
                    data = f.read()
                pid = int(data[data.rindex(b")") + 2:].split()[1])
            except (OSError, ValueError):
                return False
            if pid == self.init:
                return True
            if pid <= 1:
                return False
        return False

    def agents(self):
        out = []
        for p in self.procs:
            try:
                with open("/proc/%d/comm" % p) as f:
                    if f.read().strip() == "korvat-cloud":
                        out.append(p)
            except OSError:
                pass
        return out

    def leftovers(self):
        """Everything of the fleet still there: processes (by pid and start
        time), processes in its namespaces, and any holder of one of its
        network namespaces."""
        found = []
        for p, start in self.procs.items():
            if start is not None and _start_time(p) == start:
                found.append("process %d still runs" % p)
        for p in _pids():
            if _ns(p, "pid") == self.pid_ns:
                found.append("process %d in the fleet's PID namespace" % p)
            if self.mnt_ns and _ns(p, "mnt") == self.mnt_ns:
                found.append("process %d in the fleet's mount namespace" % p)
            if _ns(p, "net") in self.net_ns:
                found.append("process %d in a network namespace of the fleet" % p)
            try:
                fds = os.listdir("/proc/%d/fd" % p)
            except OSError:
                continue
            for fd in fds:
                try:
                    target = os.readlink("/proc/%d/fd/%s" % (p, fd))
                except OSError:
                    continue
                if target in self.net_ns:
                    found.append("process %d holds a network namespace of the fleet" % p)
        return found


def host_state():
    """The host's mount table and /dev/shm, which a fleet must not change."""
    with open("/proc/self/mountinfo") as f:
        mounts = sorted(line.split()[4] for line in f)
    return {"mounts": mounts, "shm": sorted(os.listdir("/dev/shm"))}

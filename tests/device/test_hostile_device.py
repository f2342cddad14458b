# A hostile device: from inside, it owns its run directory and can replace
# what the host mounts into the next sandbox with links to host
# directories; and the pids the host recorded may since have been recycled
# by other host processes.  Neither may lead the host to write host files,
# signal host processes or enter host namespaces.
import json
import os
import pwd
import subprocess
import sys

import pytest

import safefs
import simdevice
import simnet
from hostguard import snapshot_tree

CLI = os.path.join(os.path.dirname(__file__), "..", "..", "device", "run-device")

# What a device started over a planted link would do to its mounts.
WRITE_ALL = """
echo pwned > /etc/pwned
echo pwned > /etc/config/decoy
echo pwned > /tmp/pwned
mkdir -p /tmp/.uci && echo pwned > /tmp/.uci/decoy
echo pwned > /mnt/pwned
echo 7 > /proc/sys/kernel/printk
echo done
"""


def cli(*args, **kw):
    return subprocess.run([sys.executable, CLI] + list(args),
                          capture_output=True, text=True, timeout=60, **kw)


@pytest.fixture
def decoy(tmp_path):
    """A host directory (and a file in it, for the printk file) that a
    planted link points at, with a marker and a UCI package a host-side uci
    would write to."""
    d = tmp_path / "decoy"
    (d / "config").mkdir(parents=True)
    (d / "marker").write_text("host decoy\n")
    (d / "config" / "decoy").write_text("config d 's'\n\toption o 'host'\n")
    (d / "printk").write_text("4\t4\t1\t7\n")
    return str(d)


def contents(root):
    out = {}
    for dirpath, _, files in os.walk(root):
        for name in files:
            p = os.path.join(dirpath, name)
            with open(p, "rb") as f:
                out[os.path.relpath(p, root)] = f.read()
    return out


@pytest.mark.parametrize("source", ["etc", "tmp", "mnt", "proc_printk"])
def test_a_mount_source_replaced_by_a_link_is_refused(source, decoy):
    before = (snapshot_tree(decoy), contents(decoy))
    target = os.path.join(decoy, "printk") if source == "proc_printk" else decoy
    device = simdevice.Device()
    refusals = {}

    def attempt(name, call):
        try:
            return call()
        except safefs.UnsafePath as e:
            refusals[name] = e
        except (RuntimeError, OSError) as e:  # not running, and the like
            return e

    try:
        device.start(["/bin/sh", "-c", "sleep 600"])
        assert device.sandbox_pid() is not None
        # the directory (or file) itself, not something inside it
        r = device.sh("mv /simrun/{0} /simrun/{0}.real && ln -s {1} /simrun/{0}"
                      " && echo planted".format(source, target))
        assert r.stdout == "planted\n", r.stderr
        device.stop()

        # the next start, and a command run inside it
        attempt("start", lambda: device.start(["/bin/sh", "-c", "sleep 600"]))
        if device.running():
            attempt("exec", lambda: device.sh(WRITE_ALL))
            device.stop()
        # host-side uci queries, each a one-shot sandbox of its own
        attempt("uci set", lambda: device.uci("set", "decoy.s.o=pwned"))
        attempt("uci commit", lambda: device.uci("commit", "decoy"))
        attempt("uci_get", lambda: device.uci_get("decoy.s.o"))
        # the command line
        r = cli("run", device.run, "--", "/bin/sh", "-c", WRITE_ALL)

        # the host decoy is untouched: no new, removed or changed entry
        assert (snapshot_tree(decoy), contents(decoy)) == before
        assert "done" not in r.stdout
        assert r.returncode != 0
        assert "refusing" in r.stderr, r.stderr
        # and every start that mounts it was refused with a clear error (the
        # uci sandbox mounts the run's etc and tmp only)
        uci = {"uci set", "uci commit", "uci_get"}
        assert set(refusals) == {"start"} | (uci if source in ("etc", "tmp")
                                             else set())
        assert all("refusing" in str(e) for e in refusals.values())
    finally:
        device.close()
    assert (snapshot_tree(decoy), contents(decoy)) == before


DECOY = r"""
import ctypes, signal, sys
ctypes.CDLL(None).prctl(15, b"bwrap", 0, 0, 0)   # PR_SET_NAME: looks like one
def caught(n, _):
    sys.stdout.write("signal %d\n" % n)
    sys.stdout.flush()
for s in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGUSR1):
    signal.signal(s, caught)
for line in sys.stdin:
    sys.stdout.write("pong\n")
    sys.stdout.flush()
"""


class HostProcess:
    """An unrelated host process whose pid a record is made to name.  It
    reports every catchable signal; a SIGKILL ends it.  untouched() asks
    it: a signal sent before the question is handled before the answer."""

    def __init__(self):
        self.p = subprocess.Popen([sys.executable, "-c", DECOY], text=True,
                                  stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self.pid = self.p.pid
        assert self.untouched()

    def untouched(self):
        try:
            self.p.stdin.write("ping\n")
            self.p.stdin.flush()
        except BrokenPipeError:
            return False
        return self.p.stdout.readline() == "pong\n"

    def close(self):
        self.p.kill()
        self.p.wait()


def test_a_recorded_sandbox_pid_now_naming_another_process_is_not_used(tmp_path):
    device = simdevice.Device()
    host = HostProcess()
    marker = tmp_path / "entered"
    try:
        device.start(["/bin/sh", "-c", "sleep 600"])
        assert device.sandbox_pid() is not None
        device.stop()
        # the sandbox is gone and its pid was given to another process:
        # every pid record of the control directory now names it
        for name in os.listdir(device.ctl):
            path = os.path.join(device.ctl, name)
            if name.endswith(".json"):
                with open(path) as f:
                    rec = json.load(f)
                for key in ("child-pid", "pid"):
                    if key in rec:
                        rec[key] = host.pid
                with open(path, "w") as f:
                    json.dump(rec, f)

        assert device.sandbox_pid(timeout=0) is None
        assert not device.running()
        assert device.stop() is not None   # the old launcher's status
        other = simdevice.Device(device.run, net=device.net)  # as the CLI does
        assert other.sandbox_pid(timeout=0) is None
        assert other.processes() == []
        with pytest.raises(RuntimeError):
            other.exec(["/bin/sh", "-c", "echo x > %s" % marker])
        other.stop()
        r = cli("stop", device.run)
        assert r.returncode == 0, r.stderr
        r = cli("exec", device.run, "--", "/bin/sh", "-c", "echo x > %s" % marker)
        assert r.returncode != 0
        assert not marker.exists()
        assert host.untouched()
    finally:
        host.close()
        device.close()


def test_recorded_network_pids_now_naming_other_processes_are_not_used(tmp_path):
    run = str(tmp_path / "dev")
    up = cli("net-up", run)
    assert up.returncode == 0, up.stderr
    path = os.path.join(simdevice.control_dir(run), "net.json")
    with open(path) as f:
        recorded = f.read()
    host = HostProcess()
    host_ns = os.readlink("/proc/self/ns/net")
    try:
        tampered = dict(json.loads(recorded), device=host.pid,
                        gateway=host.pid, holder=host.pid)
        with open(path, "w") as f:
            json.dump(tampered, f)
        # a server meant for the gateway namespace does not land in the host's
        r = cli("gateway", run, "--", "readlink", "/proc/self/ns/net")
        assert host_ns not in r.stdout
        # nor does the device
        r = cli("run", run, "--", "readlink", "/proc/self/ns/net")
        assert r.returncode == 0, r.stderr
        assert r.stdout.startswith("net:[") and host_ns not in r.stdout
        # the Python API refuses the record
        with pytest.raises(ProcessLookupError):
            simnet.DeviceNet(tampered)
        # and net-down signals nobody but the holder it started
        r = cli("net-down", run)
        assert r.returncode == 0, r.stderr
        assert host.untouched()
    finally:
        host.close()
        with open(path, "w") as f:
            f.write(recorded)
        cli("net-down", run)


def test_the_sandbox_runs_as_an_unprivileged_host_user(device):
    device.start(["/bin/sh", "-c", "echo x > /tmp/mine; sleep 600"])
    assert device.sandbox_pid() is not None
    r = device.sh("id -u; echo y > /etc/also-mine")
    assert r.stdout == "0\n", r.stderr   # root inside
    user = pwd.getpwnam(simdevice.SANDBOX_USER)
    assert user.pw_uid != 0
    procs = device.processes()
    assert procs
    for p in procs:
        with open("/proc/%d/status" % p["host_pid"]) as f:
            status = dict(line.rstrip("\n").split(":\t", 1) for line in f
                          if ":\t" in line)
        assert status["Uid"].split() == [str(user.pw_uid)] * 4, p
        assert status["Gid"].split() == [str(user.pw_gid)] * 4, p
    for rel in ("tmp/mine", "etc/also-mine"):
        assert os.lstat(os.path.join(device.run, rel)).st_uid == user.pw_uid
    # what the host writes for the device is the device's to change
    device.write_file("/tmp/from-host", "1\n")
    assert os.lstat(device.path("/tmp/from-host")).st_uid == user.pw_uid
    assert device.sh("echo 2 > /tmp/from-host").returncode == 0
    assert device.read_file("/tmp/from-host") == "2\n"


def test_a_link_planted_after_the_check_is_refused_by_the_launcher(decoy):
    """The sources are checked when the arguments are made, and opened
    again (the same way) by the launcher: a link planted in between is
    refused there too, never followed."""
    before = (snapshot_tree(decoy), contents(decoy))
    device = simdevice.Device()
    try:
        argv, fds = simdevice.uci_sandbox_argv(device.run, ["show"])
        assert fds == ()
        os.rename(os.path.join(device.run, "etc"),
                  os.path.join(device.run, "etc.real"))
        os.symlink(decoy, os.path.join(device.run, "etc"))
        r = subprocess.run(argv, capture_output=True, text=True, timeout=30)
        assert r.returncode == 1
        assert "refusing to follow etc" in r.stderr, r.stderr
        assert "host" not in r.stdout
    finally:
        device.close()
    assert (snapshot_tree(decoy), contents(decoy)) == before

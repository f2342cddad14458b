#!/usr/bin/python3
# The simulated device's own network.
#
# Every device run gets two network namespaces that exist only for that run,
# joined by a veth pair:
#
#   device namespace (the agent's)        gateway namespace (its upstream)
#     lo       127.0.0.1                    lo       127.0.0.1
#     br-lan   192.168.1.2/24  <--veth-->   lan0     192.168.1.1/24
#     default via 192.168.1.1
#
# The device server, the raw test peer and any other peer of the agent run in
# the gateway namespace and listen on 192.168.1.1; the agent reaches them
# over the veth pair.  Nothing the device sends (TCP, UDP, multicast such as
# SSDP to 239.255.255.250:1900) can reach the host's own namespace: the host
# has no interface in either namespace.
#
# With an uplink (DeviceNet(wan=True), for tests of the UPnP gateway) a
# third namespace stands for the internet behind the gateway:
#
#   gateway namespace                         internet namespace
#     wan0     45.67.89.10/24  <-- veth -->    uplink0  45.67.89.1/24
#     default via 45.67.89.1
#
# The gateway's WAN address must look public (a UPnP gateway refuses port
# forwarding on a private or reserved one); it exists only inside these
# namespaces, and nothing is routed beyond them.
#
# A small holder process owns the namespaces: it forks one child per
# namespace (each unshares its network namespace and sleeps), configures
# them with iproute2, prints one JSON line {"device": PID, "gateway": PID,
# "holder": PID, ..., "start": {"device": T, ...}} and lives until its
# standard input reaches end of file (the Python API keeps a pipe open) or
# until it is killed (the command-line form).  The children die with it.
#
# A pid alone does not name a process for good: once the process is gone,
# the kernel gives its id to the next process that comes.  So every pid is
# recorded with the process's start time (Proc), and every use checks it:
# signals go through a pidfd opened and checked first, and a namespace is
# opened from /proc/PID/ns/net and kept by descriptor only if the process
# is still the recorded one after the open.  DeviceNet's namespace paths
# are those descriptors (/proc/<this process>/fd/N), never /proc/PID/ns.
#
#   simnet.py hold [--wan]            hold until stdin closes (for programs)
#   simnet.py hold --detach [--wan]   hold until killed; the pids go to stdout
import ctypes
import errno
import json
import os
import select
import signal
import subprocess
import sys
import threading
from contextlib import contextmanager

DEVICE_IP = "192.168.1.2"
GATEWAY_IP = "192.168.1.1"
PREFIX = 24
DEVICE_IF = "br-lan"
GATEWAY_IF = "lan0"
WAN_IP = "45.67.89.10"
UPLINK_IP = "45.67.89.1"
WAN_IF = "wan0"
UPLINK_IF = "uplink0"

CLONE_NEWNET = 0x40000000
PR_SET_PDEATHSIG = 1

_libc = ctypes.CDLL(None, use_errno=True)


def _check(ret, what):
    if ret != 0:
        err = ctypes.get_errno()
        raise OSError(err, "%s: %s" % (what, os.strerror(err)))


def setns(path):
    """Move the calling thread into the network namespace at path."""
    fd = os.open(path, os.O_RDONLY | os.O_CLOEXEC)
    try:
        _check(_libc.setns(fd, CLONE_NEWNET), "setns " + path)
    finally:
        os.close(fd)


@contextmanager
def in_netns(path):
    """Sockets the current thread creates inside the block belong to the
    network namespace at path; the thread's own namespace is restored after."""
    back = os.open("/proc/thread-self/ns/net", os.O_RDONLY | os.O_CLOEXEC)
    try:
        setns(path)
        try:
            yield
        finally:
            _check(_libc.setns(back, CLONE_NEWNET), "setns back")
    finally:
        os.close(back)


def ns_argv(path, argv):
    """argv that runs argv inside the network namespace at path."""
    return ["nsenter", "--net=" + path, "--"] + list(argv)


# ---- recorded processes ---------------------------------------------------

def proc_stat(pid):
    """(parent pid, start time) of process pid, read from /proc/PID/stat
    (fields 4 and 22; the start time in clock ticks after boot), or None
    when there is no such process."""
    try:
        with open("/proc/%d/stat" % pid, "rb") as f:
            data = f.read()
        fields = data[data.rindex(b")") + 2:].split()
        return int(fields[1]), int(fields[19])
    except (OSError, ValueError, IndexError):
        return None


class StaleProcess(ProcessLookupError):
    """The recorded process is gone: its pid is free or names another."""


class Proc:
    """A process recorded as (pid, start time): unlike the pid alone, the
    pair never names another process.  Every use goes through the check."""

    def __init__(self, pid, start):
        self.pid = int(pid)
        self.start = int(start)

    @classmethod
    def pinned(cls, pid):
        """The process pid is now, for a pid that cannot have been
        recycled (a child not yet reaped, the caller itself)."""
        st = proc_stat(pid)
        if st is None:
            raise StaleProcess(errno.ESRCH, "no process %d" % pid)
        return cls(pid, st[1])

    def __repr__(self):
        return "Proc(%d, %d)" % (self.pid, self.start)

    def __eq__(self, other):
        return isinstance(other, Proc) and \
            (self.pid, self.start) == (other.pid, other.start)

    def __hash__(self):
        return hash((self.pid, self.start))

    def alive(self):
        st = proc_stat(self.pid)
        return st is not None and st[1] == self.start

    def _check(self, fd=None):
        if not self.alive():
            if fd is not None:
                os.close(fd)
            raise StaleProcess(errno.ESRCH, "process %d is gone (its pid is "
                               "free or names another process)" % self.pid)
        return fd

    def pidfd(self):
        """A pidfd of the recorded process (StaleProcess when gone).  It
        names this process for good: opened first, checked after."""
        try:
            fd = os.pidfd_open(self.pid)
        except ProcessLookupError:
            raise StaleProcess(errno.ESRCH, "process %d is gone" % self.pid)
        return self._check(fd)

    def signal(self, sig):
        """Send sig to the recorded process; False (nothing sent) when it
        is gone, even if its pid now names another process."""
        try:
            fd = self.pidfd()
        except StaleProcess:
            return False
        try:
            signal.pidfd_send_signal(fd, sig)
            return True
        except ProcessLookupError:
            return False
        finally:
            os.close(fd)

    def open(self, rel, flags=os.O_RDONLY):
        """Descriptor of /proc/PID/rel (e.g. "ns/net"), kept only when the
        process was still the recorded one after the open."""
        try:
            fd = os.open("/proc/%d/%s" % (self.pid, rel), flags | os.O_CLOEXEC)
        except FileNotFoundError:
            raise StaleProcess(errno.ESRCH, "process %d is gone" % self.pid)
        return self._check(fd)

    def parent_is(self, ancestor, hops=4):
        """True when ancestor (a Proc) is this process's parent or an
        ancestor within hops generations, both being what was recorded."""
        pid = self.pid
        for _ in range(hops):
            st = proc_stat(pid)
            if st is None:
                return False
            if st[0] == ancestor.pid:
                return ancestor.alive() and self.alive()
            pid = st[0]
        return False

    def to_json(self):
        return {"pid": self.pid, "start": self.start}

    @classmethod
    def from_json(cls, rec):
        return cls(rec["pid"], rec["start"])


def recorded(info, name):
    """The Proc of info[name] in a holder's record (StaleProcess when the
    record has no start time for it: such a record cannot be trusted)."""
    try:
        return Proc(info[name], info["start"][name])
    except (KeyError, TypeError, ValueError):
        raise StaleProcess(errno.ESRCH, "no start time recorded for %s" % name)


def record_ok(info):
    """True when every process of a holder's record is still the one
    recorded."""
    try:
        return all(recorded(info, name).alive() for name in
                   ("holder", "device", "gateway", "internet")
                   if name in info)
    except StaleProcess:
        return False


# ---- the holder -------------------------------------------------------------

def _namespace_child(ready_w):
    """Body of a forked child: own network namespace, then sleep until the
    holder goes away."""
    try:
        _libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
        _check(_libc.unshare(CLONE_NEWNET), "unshare")
        os.write(ready_w, b"1")
    except BaseException:
        os.write(ready_w, b"0")
        os._exit(1)
    while True:
        signal.pause()


def _spawn_namespace():
    r, w = os.pipe()
    pid = os.fork()
    if pid == 0:
        os.close(r)
        _namespace_child(w)
        os._exit(0)
    os.close(w)
    ok = os.read(r, 1)
    os.close(r)
    if ok != b"1":
        raise OSError("could not make a network namespace")
    return pid


def _ip(pid, *args):
    subprocess.run(ns_argv("/proc/%d/ns/net" % pid, ["ip"] + list(args)),
                   check=True, stdout=subprocess.DEVNULL)


def _configure_wan(gw, inet):
    _ip(inet, "link", "set", "lo", "up")
    _ip(gw, "link", "add", WAN_IF, "type", "veth", "peer", "name", UPLINK_IF,
        "netns", str(inet))
    _ip(gw, "addr", "add", "%s/%d" % (WAN_IP, PREFIX), "dev", WAN_IF)
    _ip(gw, "link", "set", WAN_IF, "up")
    _ip(inet, "addr", "add", "%s/%d" % (UPLINK_IP, PREFIX), "dev", UPLINK_IF)
    _ip(inet, "link", "set", UPLINK_IF, "up")
    _ip(gw, "route", "add", "default", "via", UPLINK_IP)


def _configure(dev, gw):
    _ip(dev, "link", "set", "lo", "up")
    _ip(gw, "link", "set", "lo", "up")
    _ip(dev, "link", "add", DEVICE_IF, "type", "veth", "peer", "name",
        GATEWAY_IF, "netns", str(gw))
    _ip(dev, "addr", "add", "%s/%d" % (DEVICE_IP, PREFIX), "dev", DEVICE_IF)
    _ip(dev, "link", "set", DEVICE_IF, "up")
    _ip(gw, "addr", "add", "%s/%d" % (GATEWAY_IP, PREFIX), "dev", GATEWAY_IF)
    _ip(gw, "link", "set", GATEWAY_IF, "up")
    _ip(dev, "route", "add", "default", "via", GATEWAY_IP)


def hold(detach=False, wan=False):
    if not detach:
        _libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
    children = []

    def finish(*_):
        for pid in children:
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        for pid in children:
            try:
                os.waitpid(pid, 0)
            except ChildProcessError:
                pass
        os._exit(0)

    signal.signal(signal.SIGTERM, finish)
    signal.signal(signal.SIGINT, finish)
    try:
        children.append(_spawn_namespace())
        children.append(_spawn_namespace())
        _configure(*children)
        if wan:
            children.append(_spawn_namespace())
            _configure_wan(children[1], children[2])
    except (OSError, subprocess.CalledProcessError) as e:
        sys.stderr.write("simnet: %s\n" % e)
        for pid in children:
            os.kill(pid, signal.SIGKILL)
        return 1
    info = {"device": children[0], "gateway": children[1], "holder": os.getpid()}
    if wan:
        info["internet"] = children[2]
    # the children are not reaped before the holder ends: their ids are
    # theirs until then
    info["start"] = {name: Proc.pinned(pid).start for name, pid in info.items()}
    sys.stdout.write(json.dumps(info) + "\n")
    sys.stdout.flush()
    if detach:
        devnull = os.open(os.devnull, os.O_RDWR)
        for fd in (0, 1, 2):
            os.dup2(devnull, fd)
        while True:
            signal.pause()
    while True:
        select.select([0], [], [])
        if not os.read(0, 4096):
            finish()


# ---- the Python API -----------------------------------------------------------

class DeviceNet:
    """The network of one device run (see the top of this file).

        net = DeviceNet()
        net.device_ns, net.gateway_ns      # namespace paths (/proc/PID/ns/net)
        net.gateway_ip, net.device_ip
        net.gateway_argv(argv)             # run argv in the gateway namespace
        net.popen_gateway(argv, **kw)
        with net.in_gateway(): sock = ...  # sockets of this thread go there
        net.close()
    """

    device_ip = DEVICE_IP
    gateway_ip = GATEWAY_IP
    wan_ip = WAN_IP
    uplink_ip = UPLINK_IP

    def __init__(self, info=None, wan=False):
        """A new network (wan: with the internet namespace behind the
        gateway), or (info given) one a detached holder owns."""
        self._holder = None
        if info is None:
            self._holder = subprocess.Popen(
                ["/usr/bin/python3", os.path.abspath(__file__), "hold"] +
                (["--wan"] if wan else []),
                stdin=subprocess.PIPE, stdout=subprocess.PIPE)
            line = self._holder.stdout.readline()
            if not line:
                self._holder.wait()
                raise OSError("the device network could not be made")
            info = json.loads(line)
        self.info = info
        # The namespaces, held by descriptor: opened from the recorded
        # processes, which are checked after the open (a pid recycled since
        # would otherwise lead into another process's namespace, the host's
        # for one).  The paths name these descriptors, valid while this
        # object is open, in this process and in any process it starts.
        self._fds = {}
        try:
            for name in ("device", "gateway", "internet"):
                if name in info:
                    self._fds[name] = recorded(info, name).open("ns/net")
        except BaseException:
            self._close_fds()
            self.close()
            raise
        self.device_ns = self._path("device")
        self.gateway_ns = self._path("gateway")
        self.internet_ns = self._path("internet")
        self._lock = threading.Lock()

    def _path(self, name):
        fd = self._fds.get(name)
        return None if fd is None else "/proc/%d/fd/%d" % (os.getpid(), fd)

    def _close_fds(self):
        fds, self._fds = self._fds, {}
        for fd in fds.values():
            os.close(fd)

    def keep_across_exec(self):
        """Make the namespace descriptors survive an exec of this process
        (the command line execs nsenter with these paths)."""
        for fd in self._fds.values():
            os.set_inheritable(fd, True)

    def device_argv(self, argv):
        return ns_argv(self.device_ns, argv)

    def gateway_argv(self, argv):
        return ns_argv(self.gateway_ns, argv)

    def popen_gateway(self, argv, **kw):
        return subprocess.Popen(self.gateway_argv(argv), **kw)

    def run_gateway(self, argv, **kw):
        return subprocess.run(self.gateway_argv(argv), **kw)

    def internet_argv(self, argv):
        if self.internet_ns is None:
            raise RuntimeError("this network has no uplink (DeviceNet(wan=True))")
        return ns_argv(self.internet_ns, argv)

    def in_gateway(self):
        return in_netns(self.gateway_ns)

    def in_device(self):
        return in_netns(self.device_ns)

    def close(self):
        self._close_fds()
        holder, self._holder = self._holder, None
        if holder is not None:
            holder.stdin.close()
            try:
                holder.wait(5)
            except subprocess.TimeoutExpired:
                holder.kill()
                holder.wait()
            holder.stdout.close()


def detached_stop(info):
    """Ends a holder started with `hold --detach`: True when the recorded
    holder got SIGTERM, False when it is gone (its pid is not signalled)."""
    try:
        return recorded(info, "holder").signal(signal.SIGTERM)
    except StaleProcess:
        return False


if __name__ == "__main__":
    if len(sys.argv) >= 2 and sys.argv[1] == "hold":
        sys.exit(hold(detach="--detach" in sys.argv[2:], wan="--wan" in sys.argv[2:]))
    sys.stderr.write("usage: simnet.py hold [--detach] [--wan]\n")
    sys.exit(2)

# Simulated access point for tests: creates a run directory from the device
# template, starts commands (the agent binary or anything else) inside a
# bubblewrap sandbox whose /etc, /tmp, /mnt and kernel printk file live in
# that directory and whose network is the run's own (simnet.py), reads the
# tool journal and files, and checks that nothing reached the host
# (HostGuard).
#
# The run directory is writable from inside the device.  Host-side code
# reads and writes it only through safefs (no link is ever followed), keeps
# its own control files (sandbox pid, bwrap arguments, network pids) in a
# sibling directory the device cannot see, and runs the simulated `uci` for
# host-side queries inside a one-shot sandbox of its own.
import ctypes
import fnmatch
import json
import os
import shutil
import signal
import stat
import subprocess
import sys
import tempfile
import time

DEVICE_DIR = os.path.dirname(os.path.abspath(__file__))
TOP_DIR = os.path.dirname(DEVICE_DIR)
if DEVICE_DIR not in sys.path:
    sys.path.insert(0, DEVICE_DIR)
import safefs  # noqa: E402
import simnet  # noqa: E402
SIM_DIR = os.path.join(DEVICE_DIR, "sim")
TEMPLATE = os.path.join(DEVICE_DIR, "template")
# The access-point model (profiles, clients, traffic), shared with the
# device's utility script.
if os.path.join(SIM_DIR, "lib") not in sys.path:
    sys.path.insert(0, os.path.join(SIM_DIR, "lib"))
import apmodel  # noqa: E402
PYTHON = "/usr/bin/python3"

# Paths inside the sandbox.
SIM_MOUNT = "/simdevice"       # the simulated tools (read-only)
RUN_MOUNT = "/simrun"          # the run directory (journal, overrides, flash)
HOST_USR = "/.host/usr"        # host /usr, target of the /usr/bin symlinks
EXTRA_MOUNT = "/.extra"        # preloaded test shims
AGENT_PATH = "/usr/bin/korvat-cloud"
PATH = "%s/bin:/usr/sbin:/usr/bin:/sbin:/bin" % SIM_MOUNT

# Host files copied into the device's /etc so ordinary tools work.
HOST_ETC = ["passwd", "group", "hosts", "nsswitch.conf", "ld.so.cache",
            "ld.so.conf", "ld.so.conf.d", "localtime", "services",
            "protocols", "host.conf", "ssl", "alternatives"]

SYSLOG = ("Nov 15 23:12:20 VK310 kern.notice kernel: [    0.000000] Linux "
          "version 3.3.8 (build@korvat) #1 Mon Nov 15 10:00:00 2026\n"
          "Nov 15 23:12:22 VK310 daemon.info dnsmasq[1203]: started, "
          "version 2.62 cachesize 150\n"
          "Nov 15 23:12:24 VK310 kern.info kernel: br-lan: port 1(eth0) "
          "entered forwarding state\n"
          "Nov  5 08:01:02 VK310 user.notice root: system ready\n")
PRINTK_DEFAULT = "4\t4\t1\t7\n"
# /tmp is a tmpfs on the device: what the boot scripts put there.
BOOT_TMP = {"tmp/resolv.conf": "nameserver 192.168.1.1\n",
            "tmp/resolv.conf.auto": "# Interface lan\n"
                                    "nameserver 192.168.1.1\n"
                                    "nameserver 8.8.8.8\n"}
# Written by the device's `reboot` (RUN/reboot.pending): the next start is
# a boot.  The agent's queue backups in /etc do not survive it; their flash
# copies do.
REBOOT_MARKER = "reboot.pending"
REBOOT_LOST_ETC = "cloud_*.backup"


# Target mode (SIMDEVICE_TARGET=mips): the agent is the big-endian MIPS
# build.  The sandbox is started through target/qemu-binfmt.sh, which
# registers qemu-mips in a private binfmt_misc instance of an outer user
# namespace, so the MIPS binary runs as if native and keeps its name.
TARGET = os.environ.get("SIMDEVICE_TARGET", "")
QEMU_BINFMT = os.path.join(TOP_DIR, "target", "qemu-binfmt.sh")
_guest_root = None


def target_guest_root():
    """Library root of the emulated target (qemu's QEMU_LD_PREFIX)."""
    global _guest_root
    if _guest_root is None:
        out = subprocess.run([QEMU_BINFMT, "guest-root"], check=True,
                             stdout=subprocess.PIPE, text=True).stdout
        _guest_root = out.strip().splitlines()[-1]
    return _guest_root


MARKER = ".simdevice"


def control_dir(run):
    """Host-only directory of a run's control files (not visible inside)."""
    return os.path.abspath(run).rstrip("/") + ".ctl"


def create_run_dir(path=None, template=TEMPLATE):
    """Make a fresh run directory (a new temporary one when path is None)
    holding the device's etc/, tmp/, mnt/, flash/, sim/ (overrides),
    journal.log, syslog.log and proc_printk, and its control directory.
    A directory that was set up before is left as it is: the device may
    have written anything into it since.  Returns its path."""
    if path is None:
        path = tempfile.mkdtemp(prefix="simdevice-")
    path = os.path.abspath(path)
    os.makedirs(path, exist_ok=True)
    os.makedirs(control_dir(path), mode=0o700, exist_ok=True)
    if os.path.lexists(os.path.join(path, MARKER)):
        return path
    if os.listdir(path):
        raise RuntimeError("%s is not empty and not a device run directory"
                           % path)
    etc = os.path.join(path, "etc")
    os.makedirs(etc)
    for name in HOST_ETC:
        src, dst = os.path.join("/etc", name), os.path.join(etc, name)
        if not os.path.lexists(src):
            continue
        if os.path.islink(src):
            os.symlink(os.readlink(src), dst)
        elif os.path.isdir(src):
            shutil.copytree(src, dst, symlinks=True)
        else:
            shutil.copy2(src, dst)
    shutil.copytree(os.path.join(template, "etc"), etc, symlinks=True,
                    dirs_exist_ok=True)
    if not os.path.lexists(os.path.join(etc, "resolv.conf")):
        os.symlink("/tmp/resolv.conf", os.path.join(etc, "resolv.conf"))
    for d in ("tmp", "mnt", "flash", "sim", "sim/kapri_util"):
        os.makedirs(os.path.join(path, d), exist_ok=True)
    os.chmod(os.path.join(path, "tmp"), 0o1777)
    files = dict(BOOT_TMP, **{"journal.log": "", "syslog.log": SYSLOG,
                              "proc_printk": PRINTK_DEFAULT, MARKER: ""})
    for name, text in files.items():
        with open(os.path.join(path, name), "x") as f:
            f.write(text)
    return path


def _clear_dir(run, rel):
    """Removes everything inside RUN/rel, never following a link (the
    device may have planted any)."""
    fd = safefs._open_dir(run, safefs._parts(rel))
    try:
        for name in os.listdir(fd):
            st = os.stat(name, dir_fd=fd, follow_symlinks=False)
            if stat.S_ISDIR(st.st_mode):
                shutil.rmtree(name, dir_fd=fd)
            else:
                os.unlink(name, dir_fd=fd)
    finally:
        os.close(fd)


def _unmount_all(run):
    """The simulated mounts end with the boot that follows a reboot.  A
    jffs2 partition is written as the device writes it, so the mounted
    directory's files are the flash content: they go back to RUN/flash
    and leave the mount point, as `umount` does."""
    try:
        targets = [t for t in safefs.read_text(run, "mounts.sim").split("\n")
                   if t]
    except FileNotFoundError:
        return
    for target in targets:
        rel = target.strip("/")
        if not rel or ".." in rel.split("/") or \
                rel.split("/")[0] not in ("etc", "tmp", "mnt"):
            continue
        try:
            names = safefs.listdir(run, rel)
        except (FileNotFoundError, NotADirectoryError, safefs.UnsafePath):
            continue
        _clear_dir(run, "flash")
        for name in names:
            if safefs.is_file(run, rel + "/" + name):
                safefs.write_bytes(run, "flash/" + name,
                                   safefs.read_bytes(run, rel + "/" + name))
        _clear_dir(run, rel)
    safefs.unlink(run, "mounts.sim")


def boot_if_rebooted(run):
    """Boots the device of `run` when its last session ended with
    `reboot`: what lives in RAM on the device starts afresh (/tmp, the
    system log, the kernel's printk level, the mounts, the agent's queue
    backups in /etc); /etc/config, the rest of /etc and the flash partition
    are kept.  True when it booted."""
    run = os.path.abspath(run)
    if not safefs.lexists(run, REBOOT_MARKER):
        return False
    _unmount_all(run)
    _clear_dir(run, "tmp")
    for rel, text in BOOT_TMP.items():
        safefs.write_text(run, rel, text)
    safefs.write_text(run, "syslog.log", SYSLOG)
    safefs.write_text(run, "proc_printk", PRINTK_DEFAULT)
    for name in safefs.listdir(run, "etc"):
        if fnmatch.fnmatchcase(name, REBOOT_LOST_ETC):
            safefs.unlink(run, "etc/" + name)
    safefs.unlink(run, REBOOT_MARKER)
    return True


def _proc_stat_fd(run):
    """Descriptor of RUN/proc_stat (opened without following links) for
    the sandbox's /proc/stat, or None when the run has no such file."""
    if not safefs.is_file(run, "proc_stat"):
        return None
    fd = safefs.open_file(run, "proc_stat", os.O_RDONLY)
    os.set_inheritable(fd, True)
    return fd


def _tool_names():
    return sorted(n for n in os.listdir(os.path.join(SIM_DIR, "bin"))
                  if n != "sim-service")


def sandbox_args(run, cmd, agent=None, env=None, binds=(),
                 preload=(), hostname="VK310", info_fd=None, cwd="/",
                 shell="busybox", proc_stat_fd=None):
    """bwrap arguments that run `cmd` as the simulated device of `run`.
    /bin/sh is BusyBox ash as on the device (shell="host": the host's).
    The network namespace is the caller's: bwrap_command joins the run's
    device network before bwrap starts."""
    run = os.path.abspath(run)
    a = ["--unshare-user", "--unshare-pid", "--unshare-ipc", "--unshare-uts",
         "--unshare-cgroup-try"]
    a += ["--die-with-parent", "--new-session", "--cap-drop", "ALL",
          "--hostname", hostname]
    # Read-only host system; /bin, /sbin and friends as on the host.
    a += ["--ro-bind", "/usr", "/usr", "--ro-bind", "/usr", HOST_USR]
    for top in ("bin", "sbin", "lib", "lib32", "lib64", "libx32"):
        p = "/" + top
        if os.path.islink(p):
            a += ["--symlink", os.readlink(p), p]
        elif os.path.isdir(p):
            a += ["--ro-bind", p, p]
    # /usr/bin and /usr/sbin: host programs as symlinks, device tools over
    # them (so absolute paths such as /sbin/reboot reach the simulation).
    tools = _tool_names()
    skip = set(tools) | {"korvat-cloud"}
    if shell == "busybox":
        skip.add("sh")
    for d in ("bin", "sbin"):
        a += ["--tmpfs", "/usr/" + d]
        for name in sorted(os.listdir("/usr/" + d)):
            if name not in skip:
                a += ["--symlink", "%s/%s/%s" % (HOST_USR, d, name),
                      "/usr/%s/%s" % (d, name)]
        for name in tools:
            a += ["--symlink", "%s/bin/%s" % (SIM_MOUNT, name),
                  "/usr/%s/%s" % (d, name)]
        if d == "bin" and shell == "busybox":
            a += ["--symlink", "%s/busybox/sh" % SIM_MOUNT, "/usr/bin/sh"]
    if agent:
        a += ["--ro-bind", os.path.abspath(agent), AGENT_PATH]
    a += ["--remount-ro", "/usr/bin", "--remount-ro", "/usr/sbin"]
    # Device state from the run directory.
    a += ["--ro-bind", SIM_DIR, SIM_MOUNT, "--bind", run, RUN_MOUNT,
          "--bind", os.path.join(run, "etc"), "/etc",
          "--bind", os.path.join(run, "tmp"), "/tmp",
          "--bind", os.path.join(run, "mnt"), "/mnt"]
    # Fresh /proc, read-only, with the printk file taken from the run.
    a += ["--proc", "/proc", "--remount-ro", "/proc",
          "--bind", os.path.join(run, "proc_printk"),
          "/proc/sys/kernel/printk"]
    if proc_stat_fd is not None:
        # CPU times a test sets (Device.set_proc_stat)
        a += ["--ro-bind-fd", str(proc_stat_fd), "/proc/stat"]
    a += ["--dev", "/dev", "--tmpfs", "/run", "--tmpfs", "/var",
          "--symlink", "../run", "/var/run", "--dir", "/var/log",
          "--tmpfs", "/root"]
    if TARGET:
        guest = target_guest_root()
        binds = list(binds) + [(guest, guest)]
    for src, dest, *rw in binds:
        a += ["--bind" if rw and rw[0] else "--ro-bind",
              os.path.abspath(src), dest]
    pre = []
    for so in preload:
        dest = "%s/%s" % (EXTRA_MOUNT, os.path.basename(so))
        a += ["--ro-bind", os.path.abspath(so), dest]
        pre.append(dest)
    envs = {"PATH": PATH, "HOME": "/root", "TERM": "dumb", "USER": "root",
            "LOGNAME": "root", "SHELL": "/bin/sh"}
    if pre and TARGET:
        # Only the emulated agent gets the (target) shim; qemu itself and the
        # host tools the agent runs must not see it.
        envs["QEMU_SET_ENV"] = "LD_PRELOAD=" + ":".join(pre)
    elif pre:
        envs["LD_PRELOAD"] = ":".join(pre)
    if TARGET:
        envs["QEMU_LD_PREFIX"] = target_guest_root()
    envs.update(env or {})
    a.append("--clearenv")
    for k, v in envs.items():
        a += ["--setenv", k, str(v)]
    a += ["--chdir", cwd]
    if info_fd is not None:
        a += ["--info-fd", str(info_fd)]
    return a + ["--"] + list(cmd)


def _args_fd(run, args):
    """Write the arguments NUL-separated to a file of the control directory
    and open it for bwrap's --args (keeps the long symlink list off the
    command line)."""
    path = os.path.join(control_dir(run), "bwrap-args")
    with open(path, "wb") as f:
        f.write(b"".join(x.encode() + b"\0" for x in args))
    fd = os.open(path, os.O_RDONLY)
    os.set_inheritable(fd, True)
    return fd


def bwrap_command(run, cmd, net_ns, **kw):
    """(argv, fds) to start the sandbox in the network namespace at net_ns:
    argv for exec/Popen, fds to pass.  The sandbox's host pid appears in
    the control directory's bwrap-info.json once running.  When the
    device's last session ended with `reboot`, this start is a boot
    (boot_if_rebooted)."""
    boot_if_rebooted(run)
    info = os.open(os.path.join(control_dir(run), "bwrap-info.json"),
                   os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
    os.set_inheritable(info, True)
    stat_fd = _proc_stat_fd(run)
    args = sandbox_args(run, cmd, info_fd=info, proc_stat_fd=stat_fd, **kw)
    cut = args.index("--")
    fd = _args_fd(run, args[:cut])
    argv = ["bwrap", "--args", str(fd)] + args[cut:]
    if TARGET:
        argv = [QEMU_BINFMT, "run", "--"] + argv
    fds = (fd, info) if stat_fd is None else (fd, info, stat_fd)
    return simnet.ns_argv(net_ns, argv), fds


def uci_sandbox_argv(run, args):
    """argv running the simulated uci with args on the run's configuration,
    inside a one-shot sandbox: links planted in the run directory resolve
    inside the device's own tree, never to a host file.  Nothing is
    journalled."""
    run = os.path.abspath(run)
    a = ["bwrap", "--unshare-all", "--die-with-parent", "--new-session",
         "--cap-drop", "ALL", "--ro-bind", "/usr", "/usr"]
    for top in ("bin", "sbin", "lib", "lib32", "lib64", "libx32"):
        p = "/" + top
        if os.path.islink(p):
            a += ["--symlink", os.readlink(p), p]
        elif os.path.isdir(p):
            a += ["--ro-bind", p, p]
    a += ["--ro-bind", SIM_DIR, SIM_MOUNT, "--bind", run, RUN_MOUNT,
          "--bind", os.path.join(run, "etc"), "/etc",
          "--bind", os.path.join(run, "tmp"), "/tmp",
          "--tmpfs", "/nodelta", "--dev", "/dev", "--proc", "/proc",
          "--clearenv", "--setenv", "PATH", PATH,
          "--setenv", "SIMDEVICE_NOJOURNAL", "1", "--chdir", "/",
          "--", PYTHON, "-S", SIM_MOUNT + "/bin/uci"]
    return a + list(args)


def _tgkill(tgid, tid, sig):
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.syscall(234, tgid, tid, sig) != 0:  # SYS_tgkill on x86_64
        raise OSError(ctypes.get_errno(), "tgkill failed")


class Device:
    """One simulated device: its run directory, its network (simnet) and at
    most one running sandbox (plus any processes entered into it with
    `exec`).  The network exists from construction on, so that servers can
    listen in its gateway namespace before the device starts."""

    def __init__(self, run_dir=None, template=TEMPLATE, keep=False, net=None):
        self.created = run_dir is None
        self.run = create_run_dir(run_dir, template)
        self.ctl = control_dir(self.run)
        self.keep = keep
        self.proc = None
        self._own_net = net is None
        self.net = simnet.DeviceNet() if net is None else net
        # Multiplies the waits of wait_journal and wait_rebooted, for a slow
        # or loaded machine; a wait that succeeds ends just as soon.
        self.timeout_scale = 1.0

    # ---- sandbox ---------------------------------------------------------
    def start(self, cmd, agent=None, env=None, binds=(),
              preload=(), shell="busybox", hostname="VK310",
              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
              stderr=subprocess.PIPE, **popen_kw):
        """Start cmd inside the sandbox; returns the subprocess.Popen of the
        launcher, whose exit status is that of cmd (128+n for signal n).
        agent: host path of the agent binary, /usr/bin/korvat-cloud inside.
        env: extra environment; preload: host paths of shared objects for
        LD_PRELOAD; binds: (host path, device path[, writable]) tuples.
        The device's network is always the run's own: peers listen on
        self.net.gateway_ip inside self.net's gateway namespace."""
        if self.running():
            raise RuntimeError("device already running")
        argv, fds = bwrap_command(self.run, cmd, self.net.device_ns,
                                  agent=agent, env=env, binds=binds,
                                  preload=preload, shell=shell,
                                  hostname=hostname)
        try:
            self.proc = subprocess.Popen(argv, pass_fds=fds, stdin=stdin,
                                         stdout=stdout, stderr=stderr,
                                         **popen_kw)
        finally:
            for fd in fds:
                os.close(fd)
        return self.proc

    def start_agent(self, agent, url, mac="00:11:22:33:44:55", debug=True,
                    **kw):
        cmd = [AGENT_PATH] + (["-d"] if debug else []) + [url, mac]
        return self.start(cmd, agent=agent, **kw)

    @staticmethod
    def _sandbox_ready(pid):
        """bwrap reports the sandbox's pid before it has finished setting up
        the mounts; the sandbox is ready once pid 1 has a child that has
        left bwrap (exec'd the command)."""
        with open("/proc/%d/task/%d/children" % (pid, pid)) as f:
            children = f.read().split()
        for child in children:
            try:
                if not os.readlink("/proc/%s/exe" % child).endswith("/bwrap"):
                    return True
            except OSError:
                pass
        return False

    def sandbox_pid(self, timeout=5.0):
        """Host pid of the sandbox's pid 1 once the sandbox is set up (None
        when not running)."""
        path = os.path.join(self.ctl, "bwrap-info.json")
        end = time.time() + timeout
        while True:
            try:
                with open(path) as f:
                    pid = json.load(f)["child-pid"]
                with open("/proc/%d/comm" % pid) as f:
                    if f.read().strip() == "bwrap" and \
                            (timeout == 0 or self._sandbox_ready(pid)):
                        return pid
            except (OSError, ValueError, KeyError):
                pass
            if self.proc is not None and self.proc.poll() is not None:
                return None
            if time.time() > end:
                return None
            time.sleep(0.02)

    def running(self):
        return self.proc is not None and self.proc.poll() is None

    def exec_argv(self, cmd, env=None):
        """argv running cmd inside the running sandbox (same namespaces,
        network included, and root, no capabilities)."""
        pid = self.sandbox_pid()
        if pid is None:
            raise RuntimeError("device not running")
        envs = ["PATH=" + PATH, "HOME=/root", "TERM=dumb"]
        if TARGET:
            # a target binary started from here (the init script starting
            # the agent) finds its libraries as in the device's main process
            envs.append("QEMU_LD_PREFIX=" + target_guest_root())
        envs += ["%s=%s" % kv for kv in (env or {}).items()]
        ns = ["-U", "-m", "-p", "-i", "-u", "-n"]
        return (["nsenter", "-t", str(pid)] + ns + ["-r", "-w", "--",
                "/usr/bin/setpriv", "--bounding-set=-all", "--inh-caps=-all",
                "--no-new-privs", "/usr/bin/env", "-i"] + envs + list(cmd))

    def exec(self, cmd, env=None, timeout=30, **kw):
        """Run cmd inside the running sandbox and wait: CompletedProcess
        with text stdout/stderr."""
        kw.setdefault("stdout", subprocess.PIPE)
        kw.setdefault("stderr", subprocess.PIPE)
        return subprocess.run(self.exec_argv(cmd, env), timeout=timeout,
                              text=True, **kw)

    def sh(self, script, **kw):
        return self.exec(["/bin/sh", "-c", script], **kw)

    def _ns_inode(self):
        pid = self.sandbox_pid(timeout=0)
        return os.readlink("/proc/%d/ns/pid" % pid) if pid else None

    def processes(self):
        """Processes of the sandbox: dicts with pid (inside), host_pid,
        comm, cmdline and threads (list of (tid inside, host tid))."""
        ns = self._ns_inode()
        out = []
        if ns is None:
            return out
        for d in os.listdir("/proc"):
            if not d.isdigit():
                continue
            try:
                if os.readlink("/proc/%s/ns/pid" % d) != ns:
                    continue
                threads = []
                for t in os.listdir("/proc/%s/task" % d):
                    try:
                        threads.append((self._nspid("/proc/%s/task/%s" % (d, t)),
                                        int(t)))
                    except OSError:
                        pass  # a thread that ended meanwhile
                with open("/proc/%s/cmdline" % d, "rb") as f:
                    cmdline = [x.decode(errors="replace")
                               for x in f.read().split(b"\0") if x]
                with open("/proc/%s/comm" % d) as f:
                    comm = f.read().strip()
                pid = self._nspid("/proc/" + d)
            except OSError:
                continue  # gone meanwhile (the agent runs short commands)
            out.append({"pid": pid, "host_pid": int(d),
                        "comm": comm, "cmdline": cmdline,
                        "threads": sorted(threads)})
        return sorted(out, key=lambda p: p["pid"])

    @staticmethod
    def _nspid(procdir):
        with open(procdir + "/status") as f:
            for line in f:
                if line.startswith("NSpid:"):
                    return int(line.split()[-1])
        raise OSError("no NSpid")

    def find(self, comm):
        """Processes of the sandbox whose command name is comm."""
        return [p for p in self.processes() if p["comm"] == comm]

    def host_tid(self, tid):
        """(host tgid, host tid) of the sandbox thread with in-sandbox id tid."""
        for p in self.processes():
            for inner, host in p["threads"]:
                if inner == tid:
                    return p["host_pid"], host
        raise LookupError("no thread %d in the device" % tid)

    def signal_thread(self, tid, sig=signal.SIGTERM):
        """Send sig to one thread, given by its in-sandbox thread id (e.g.
        the number the agent wrote into /tmp/cloud_timer_pid)."""
        _tgkill(*self.host_tid(tid), sig)

    def signal(self, pid, sig=signal.SIGTERM):
        """Send sig to a process given by its in-sandbox pid."""
        os.kill(self.host_tid(pid)[0], sig)

    def capabilities(self, pid):
        """Effective capability mask (int) of a sandbox process, read from
        its /proc status on the host."""
        host = self.host_tid(pid)[0]
        with open("/proc/%d/status" % host) as f:
            for line in f:
                if line.startswith("CapEff:"):
                    return int(line.split()[1], 16)
        raise OSError("no CapEff")

    def stop(self, timeout=5.0):
        """Kill everything in the sandbox and reap the launcher.  Returns the
        launcher's exit status (None when nothing was started)."""
        if self.proc is None:
            return None
        pid = self.sandbox_pid(timeout=0)
        if pid is not None and self.proc.poll() is None:
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        try:
            self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            self.proc.wait()
        for s in (self.proc.stdout, self.proc.stderr, self.proc.stdin):
            if s:
                s.close()
        return self.proc.returncode

    def reboot_pending(self):
        """True when `reboot` ran in the device since its last boot."""
        return safefs.lexists(self.run, REBOOT_MARKER)

    def reboot_requested_at(self):
        """Host time (seconds) at which `reboot` ran, or None."""
        try:
            return float(safefs.read_text(self.run, REBOOT_MARKER))
        except (FileNotFoundError, ValueError):
            return None

    def wait_rebooted(self, timeout=10.0):
        """Wait until the device has gone down after a `reboot` (the sandbox
        ended and the reboot was requested).  True when it did; False when
        it is still running after timeout seconds or ended without a
        reboot.  The next start() is then a boot of the same run
        directory."""
        if self.proc is None:
            return False
        try:
            self.proc.wait(timeout * self.timeout_scale)
        except subprocess.TimeoutExpired:
            return False
        return self.reboot_pending()

    def close(self):
        self.stop()
        if self._own_net:
            self.net.close()
        if self.created and not self.keep:
            shutil.rmtree(self.run, ignore_errors=True)
            shutil.rmtree(self.ctl, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    # ---- files, journal, UCI ------------------------------------------
    # Every host-side access goes through safefs: the device may have put a
    # link anywhere in the run directory.
    @staticmethod
    def relpath(device_path):
        """Path inside the run directory of a device path under /etc, /tmp
        or /mnt (or of /proc/sys/kernel/printk)."""
        if device_path == "/proc/sys/kernel/printk":
            return "proc_printk"
        top = device_path.lstrip("/").split("/", 1)[0]
        if top not in ("etc", "tmp", "mnt"):
            raise ValueError("not a device path: %s" % device_path)
        return device_path.lstrip("/")

    def path(self, device_path):
        """Host path of a device path.  Only for reporting and for tests that
        plant files on purpose: open it with safefs, never directly."""
        return os.path.join(self.run, self.relpath(device_path))

    def read_file(self, device_path, default=None):
        try:
            return safefs.read_text(self.run, self.relpath(device_path))
        except FileNotFoundError:
            return default

    def write_file(self, device_path, text, mode=None):
        safefs.write_text(self.run, self.relpath(device_path), text, mode)

    def exists(self, device_path):
        return safefs.lexists(self.run, self.relpath(device_path))

    def remove_file(self, device_path):
        safefs.unlink(self.run, self.relpath(device_path))

    def listdir(self, device_path):
        return safefs.listdir(self.run, self.relpath(device_path))

    def journal(self):
        """Journal lines (tool name and arguments), oldest first."""
        return safefs.read_text(self.run, "journal.log").splitlines()

    def clear_journal(self):
        safefs.write_text(self.run, "journal.log", "")

    def wait_journal(self, match, timeout=10.0, interval=0.05):
        """Wait until a journal line equals `match` (str) or satisfies it
        (callable); returns the line, or None on timeout."""
        test = match if callable(match) else (lambda line: line == match)
        end = time.time() + timeout * self.timeout_scale
        while True:
            for line in self.journal():
                if test(line):
                    return line
            if time.time() > end:
                return None
            time.sleep(interval)

    def uci(self, *args):
        """Run the device's uci on the run directory (not journalled), in a
        one-shot sandbox of its own."""
        return subprocess.run(uci_sandbox_argv(self.run, args), text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def uci_ok(self, *args):
        """uci that must succeed: its output, or an error with uci's own
        message."""
        r = self.uci(*args)
        if r.returncode != 0:
            raise RuntimeError("uci %s failed (%d): %s"
                               % (" ".join(args), r.returncode, r.stderr.strip()))
        return r.stdout

    def uci_get(self, path):
        """Value as `uci get` would print it (staged changes included), or
        None when the entry does not exist."""
        r = self.uci("get", path)
        return r.stdout.rstrip("\n") if r.returncode == 0 else None

    def uci_committed(self, path):
        """Value in the committed config file only (None when missing)."""
        r = self.uci("-P", "/nodelta", "get", path)
        return r.stdout.rstrip("\n") if r.returncode == 0 else None

    # ---- canned outputs --------------------------------------------------
    def set_output(self, tool, text, *args, rc=None):
        """Replace the output of a tool (for calls whose arguments start with
        args), e.g. set_output("free", "...") or set_output("ifconfig",
        "...", "br-lan").  The utility script's sub-commands:
        set_output("kapri_util.lua", '{"RadioNum":1}', "WifiInfo")."""
        self._write_override(tool, args, ".out", text)
        if rc is not None:
            self._write_override(tool, args, ".rc", "%d\n" % rc)

    def set_script(self, tool, script, *args):
        """Make a tool call run a shell script instead (inside the device,
        with the call's arguments as $@); its output and status count."""
        self._write_override(tool, args, ".sh", script)

    def clear_output(self, tool, *args):
        for ext in (".out", ".rc", ".sh"):
            safefs.unlink(self.run, self._override_path(tool, args, ext))

    @staticmethod
    def _override_path(tool, args, ext):
        args = [str(a).replace("/", "%") for a in args]
        if tool == "kapri_util.lua":
            if not args:
                raise ValueError("give the sub-command")
            return "sim/kapri_util/" + "_".join(args) + ext
        return "sim/" + "_".join([tool] + args) + ext

    def _write_override(self, tool, args, ext, text):
        safefs.write_text(self.run, self._override_path(tool, args, ext), text)

    # ---- access point: profile, clients, traffic ------------------------
    def set_profile(self, name):
        """Make the device one of the access-point profiles, before it
        starts: "dual-band" (the template: wifi0 2.4 GHz and wifi1 5 GHz),
        "single-band" (2.4 GHz only: no wifi1 radio, no w1_* networks, no
        w1_* halves in the network profile) or "not-ap"
        (wireless.wifi0.opmode "sta").  Rewrites /etc/config/wireless from
        the template, drops staged wireless changes and resets the client
        and traffic model to the profile's."""
        if self.running():
            raise RuntimeError("set the profile before the device starts")
        with open(os.path.join(TEMPLATE, "etc", "config", "wireless")) as f:
            text = apmodel.profile_wireless(f.read(), name)
        safefs.write_text(self.run, "etc/config/wireless", text)
        safefs.unlink(self.run, "tmp/.uci/wireless")
        self._write_ap_model(apmodel.profile_model(name))

    def ap_model(self):
        """The client and traffic model the utility script answers from."""
        try:
            return apmodel.parse_model(
                safefs.read_text(self.run, apmodel.MODEL_FILE))
        except FileNotFoundError:
            return apmodel.parse_model("")

    def set_clients(self, clients):
        """Replace the associated clients: dicts with "cmac" and "network"
        (interface section, e.g. "w0_index0") and any of "name", "ip",
        "rx", "tx" (printed as text), "signal", "uptime" or other members,
        printed as given.  A client counts only while its network is up."""
        self._write_ap_model(apmodel.with_clients(self.ap_model(), clients))

    def set_traffic(self, lan=None, networks=None, link=None):
        """Set counters: lan=(rx, tx) bytes of eth0, networks={section:
        (rx, tx)} (a radio's counters are the sums over its networks),
        link=(speed, duplexMode) of eth0, e.g. ("100Mbps", "Half").  None
        for a value makes its sub-command print nothing."""
        self._write_ap_model(apmodel.with_traffic(self.ap_model(), lan,
                                                  networks, link))

    def _write_ap_model(self, model):
        safefs.write_text(self.run, apmodel.MODEL_FILE,
                          apmodel.dump_model(model))

    def append_syslog(self, line):
        """Add system-log lines (as logread prints them; `logread -f` picks
        them up).  Several lines given at once, separated by newlines, are
        written in one go, so that a follower sees them together."""
        safefs.write_text(self.run, "syslog.log", line.rstrip("\n") + "\n",
                          append=True)

    def syslog(self):
        """The system log buffer, as plain `logread` prints it."""
        return safefs.read_text(self.run, "syslog.log")

    def set_proc_stat(self, text):
        """Set what /proc/stat reads inside the device (the CPU times the
        agent samples).  Call it before start() to have the file in place
        (a device started without it reads the real /proc/stat); calls
        while the device runs change the text in place, and the device
        sees the new text at its next read."""
        if self.running() and not safefs.is_file(self.run, "proc_stat"):
            raise RuntimeError("set_proc_stat before start(): this device "
                               "reads the real /proc/stat")
        safefs.write_text(self.run, "proc_stat", text)


if DEVICE_DIR not in sys.path:
    sys.path.insert(0, DEVICE_DIR)
from hostguard import HostGuard  # noqa: E402,F401  (re-exported)

__all__ = ["Device", "HostGuard", "create_run_dir", "sandbox_args",
           "bwrap_command", "AGENT_PATH", "PATH"]

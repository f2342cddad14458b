# Simulated access point for tests: creates a run directory from the device
# template, starts commands (the agent binary or anything else) inside a
# bubblewrap sandbox whose /etc, /tmp, /mnt and kernel printk file live in
# that directory, reads the tool journal and files, and checks that nothing
# reached the host (HostGuard).
import ctypes
import json
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time

DEVICE_DIR = os.path.dirname(os.path.abspath(__file__))
TOP_DIR = os.path.dirname(DEVICE_DIR)
SIM_DIR = os.path.join(DEVICE_DIR, "sim")
TEMPLATE = os.path.join(DEVICE_DIR, "template")
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


def create_run_dir(path=None, template=TEMPLATE):
    """Make a fresh run directory (a new temporary one when path is None)
    holding the device's etc/, tmp/, mnt/, flash/, sim/ (overrides),
    journal.log, syslog.log and proc_printk.  Returns its path."""
    if path is None:
        path = tempfile.mkdtemp(prefix="simdevice-")
    os.makedirs(path, exist_ok=True)
    etc = os.path.join(path, "etc")
    for name in HOST_ETC:
        src, dst = os.path.join("/etc", name), os.path.join(etc, name)
        if os.path.lexists(dst) or not os.path.lexists(src):
            continue
        os.makedirs(etc, exist_ok=True)
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
    files = {"journal.log": "", "syslog.log": SYSLOG,
             "proc_printk": "4\t4\t1\t7\n",
             "tmp/resolv.conf": "nameserver 192.168.1.1\n",
             "tmp/resolv.conf.auto": "# Interface lan\n"
                                     "nameserver 192.168.1.1\n"
                                     "nameserver 8.8.8.8\n"}
    for name, text in files.items():
        p = os.path.join(path, name)
        if not os.path.exists(p):
            with open(p, "w") as f:
                f.write(text)
    return path


def _tool_names():
    return sorted(n for n in os.listdir(os.path.join(SIM_DIR, "bin"))
                  if n != "sim-service")


def sandbox_args(run, cmd, agent=None, env=None, net="host", binds=(),
                 preload=(), hostname="VK310", info_fd=None, cwd="/",
                 shell="busybox"):
    """bwrap arguments that run `cmd` as the simulated device of `run`.
    /bin/sh is BusyBox ash as on the device (shell="host": the host's)."""
    run = os.path.abspath(run)
    a = ["--unshare-user", "--unshare-pid", "--unshare-ipc", "--unshare-uts",
         "--unshare-cgroup-try"]
    if net != "host":
        a.append("--unshare-net")
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
          "/proc/sys/kernel/printk",
          "--dev", "/dev", "--tmpfs", "/run", "--tmpfs", "/var",
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
    """Write the arguments NUL-separated to a file and open it for bwrap's
    --args (keeps the long symlink list off the command line)."""
    path = os.path.join(run, "bwrap-args")
    with open(path, "wb") as f:
        f.write(b"".join(x.encode() + b"\0" for x in args))
    fd = os.open(path, os.O_RDONLY)
    os.set_inheritable(fd, True)
    return fd


def bwrap_command(run, cmd, **kw):
    """(argv, fds) to start the sandbox: argv for exec/Popen, fds to pass.
    The sandbox's host pid appears in RUN/bwrap-info.json once running."""
    info = os.open(os.path.join(run, "bwrap-info.json"),
                   os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644)
    os.set_inheritable(info, True)
    args = sandbox_args(run, cmd, info_fd=info, **kw)
    cut = args.index("--")
    fd = _args_fd(run, args[:cut])
    argv = ["bwrap", "--args", str(fd)] + args[cut:]
    if TARGET:
        argv = [QEMU_BINFMT, "run", "--"] + argv
    return argv, (fd, info)


def _tgkill(tgid, tid, sig):
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.syscall(234, tgid, tid, sig) != 0:  # SYS_tgkill on x86_64
        raise OSError(ctypes.get_errno(), "tgkill failed")


class Device:
    """One simulated device: its run directory and at most one running
    sandbox (plus any processes entered into it with `exec`)."""

    def __init__(self, run_dir=None, template=TEMPLATE, keep=False):
        self.created = run_dir is None
        self.run = create_run_dir(run_dir, template)
        self.keep = keep
        self.proc = None
        self.net = "host"

    # ---- sandbox ---------------------------------------------------------
    def start(self, cmd, agent=None, env=None, net="host", binds=(),
              preload=(), shell="busybox", hostname="VK310",
              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
              stderr=subprocess.PIPE, **popen_kw):
        """Start cmd inside the sandbox; returns the subprocess.Popen of the
        launcher, whose exit status is that of cmd (128+n for signal n).
        agent: host path of the agent binary, /usr/bin/korvat-cloud inside.
        env: extra environment; preload: host paths of shared objects for
        LD_PRELOAD; binds: (host path, device path[, writable]) tuples;
        net: "host" (reach servers on 127.0.0.1) or "private"."""
        if self.running():
            raise RuntimeError("device already running")
        self.net = net
        argv, fds = bwrap_command(self.run, cmd, agent=agent, env=env,
                                  net=net, binds=binds, preload=preload,
                                  shell=shell, hostname=hostname)
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

    def sandbox_pid(self, timeout=5.0):
        """Host pid of the sandbox's pid 1 (None when not running)."""
        path = os.path.join(self.run, "bwrap-info.json")
        end = time.time() + timeout
        while True:
            try:
                with open(path) as f:
                    pid = json.load(f)["child-pid"]
                with open("/proc/%d/comm" % pid) as f:
                    if f.read().strip() == "bwrap":
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
        """argv running cmd inside the running sandbox (same namespaces and
        root, no capabilities)."""
        pid = self.sandbox_pid()
        if pid is None:
            raise RuntimeError("device not running")
        envs = ["PATH=" + PATH, "HOME=/root", "TERM=dumb"]
        envs += ["%s=%s" % kv for kv in (env or {}).items()]
        ns = ["-U", "-m", "-p", "-i", "-u"] + (["-n"] if self.net != "host"
                                               else [])
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
                    threads.append((self._nspid("/proc/%s/task/%s" % (d, t)),
                                    int(t)))
                with open("/proc/%s/cmdline" % d, "rb") as f:
                    cmdline = [x.decode(errors="replace")
                               for x in f.read().split(b"\0") if x]
                with open("/proc/%s/comm" % d) as f:
                    comm = f.read().strip()
            except OSError:
                continue
            out.append({"pid": self._nspid("/proc/" + d), "host_pid": int(d),
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

    def close(self):
        self.stop()
        if self.created and not self.keep:
            shutil.rmtree(self.run, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    # ---- files, journal, UCI ------------------------------------------
    def path(self, device_path):
        """Host path of a device path under /etc, /tmp or /mnt (or of
        /proc/sys/kernel/printk)."""
        if device_path == "/proc/sys/kernel/printk":
            return os.path.join(self.run, "proc_printk")
        top = device_path.lstrip("/").split("/", 1)[0]
        if top not in ("etc", "tmp", "mnt"):
            raise ValueError("not a device path: %s" % device_path)
        return os.path.join(self.run, device_path.lstrip("/"))

    def read_file(self, device_path, default=None):
        try:
            with open(self.path(device_path)) as f:
                return f.read()
        except FileNotFoundError:
            return default

    def write_file(self, device_path, text, mode=None):
        p = self.path(device_path)
        os.makedirs(os.path.dirname(p), exist_ok=True)
        with open(p, "w") as f:
            f.write(text)
        if mode is not None:
            os.chmod(p, mode)

    def exists(self, device_path):
        return os.path.lexists(self.path(device_path))

    def remove_file(self, device_path):
        try:
            os.unlink(self.path(device_path))
        except FileNotFoundError:
            pass

    def journal(self):
        """Journal lines (tool name and arguments), oldest first."""
        with open(os.path.join(self.run, "journal.log")) as f:
            return f.read().splitlines()

    def clear_journal(self):
        open(os.path.join(self.run, "journal.log"), "w").close()

    def wait_journal(self, match, timeout=10.0, interval=0.05):
        """Wait until a journal line equals `match` (str) or satisfies it
        (callable); returns the line, or None on timeout."""
        test = match if callable(match) else (lambda line: line == match)
        end = time.time() + timeout
        while True:
            for line in self.journal():
                if test(line):
                    return line
            if time.time() > end:
                return None
            time.sleep(interval)

    def uci(self, *args):
        """Run the device's uci on the run directory (not journalled)."""
        env = dict(os.environ, SIMDEVICE_RUN=self.run,
                   SIMDEVICE_NOJOURNAL="1")
        return subprocess.run([PYTHON, "-S", os.path.join(SIM_DIR, "bin",
                                                          "uci")] + list(args),
                              env=env, text=True, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE)

    def uci_get(self, path):
        """Value as `uci get` would print it (staged changes included), or
        None when the entry does not exist."""
        r = self.uci("get", path)
        return r.stdout.rstrip("\n") if r.returncode == 0 else None

    def uci_committed(self, path):
        """Value in the committed config file only (None when missing)."""
        r = self.uci("-P", os.path.join(self.run, "no-delta"), "get", path)
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
            try:
                os.unlink(self._override_path(tool, args, ext))
            except FileNotFoundError:
                pass

    def _override_path(self, tool, args, ext):
        args = [str(a).replace("/", "%") for a in args]
        if tool == "kapri_util.lua":
            if not args:
                raise ValueError("give the sub-command")
            return os.path.join(self.run, "sim", "kapri_util",
                                "_".join(args) + ext)
        return os.path.join(self.run, "sim", "_".join([tool] + args) + ext)

    def _write_override(self, tool, args, ext, text):
        p = self._override_path(tool, args, ext)
        os.makedirs(os.path.dirname(p), exist_ok=True)
        with open(p, "w") as f:
            f.write(text)

    def append_syslog(self, line):
        """Add a system-log line (as logread prints it; `logread -f` picks
        it up)."""
        with open(os.path.join(self.run, "syslog.log"), "a") as f:
            f.write(line.rstrip("\n") + "\n")


if DEVICE_DIR not in sys.path:
    sys.path.insert(0, DEVICE_DIR)
from hostguard import HostGuard  # noqa: E402,F401  (re-exported)

__all__ = ["Device", "HostGuard", "create_run_dir", "sandbox_args",
           "bwrap_command", "AGENT_PATH", "PATH"]

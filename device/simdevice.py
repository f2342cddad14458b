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
# host-side queries inside a one-shot sandbox of its own.  Every sandbox
# gets its mount sources by descriptor, opened without following links
# (a directory of the run replaced by a link to a host directory is
# refused), and runs as an unprivileged host user (SANDBOX_USER) that is
# root only inside its user namespace.  Recorded pids are checked against
# the process's start time before every use (simnet.Proc).
import ctypes
import fnmatch
import json
import os
import pwd
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
# Of those, the large directories that a run directory made with
# shared_etc=True does not copy: the sandbox binds the host's read-only
# over an empty directory of the run (many devices share one copy).
SHARED_ETC = ("ssl", "alternatives")

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

# The host user every sandbox runs as (uid 0 inside its user namespace).
SANDBOX_USER = os.environ.get("SIMDEVICE_USER", "simdevice")
_sandbox_ids = None


def sandbox_ids():
    """(uid, gid) of the host user the sandboxes run as: the system user
    SANDBOX_USER, created on first use (no home, no login shell).  It owns
    the run directories; inside, it is root of the device's user namespace
    and nothing more, so a host file the device reached anyhow could not be
    written as the host's root.  A harness not run as root uses its own
    ids."""
    global _sandbox_ids
    if _sandbox_ids is not None:
        return _sandbox_ids
    if os.geteuid() != 0:
        _sandbox_ids = (os.geteuid(), os.getegid())
        return _sandbox_ids
    err = ""
    for _ in range(50):
        try:
            pw = pwd.getpwnam(SANDBOX_USER)
            break
        except KeyError:
            pass
        r = subprocess.run(["useradd", "--system", "--user-group",
                            "--no-create-home", "--home-dir", "/nonexistent",
                            "--shell", "/usr/sbin/nologin", "--comment",
                            "simulated device sandbox", SANDBOX_USER],
                           stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                           text=True)
        err = r.stderr.strip()
        if r.returncode != 0:
            time.sleep(0.1)  # another process may be creating it right now
    else:
        raise RuntimeError("cannot create the sandbox user %s: %s"
                           % (SANDBOX_USER, err))
    if pw.pw_uid == 0 or pw.pw_gid == 0:
        raise RuntimeError("the sandbox user %s must not be root" % SANDBOX_USER)
    _sandbox_ids = (pw.pw_uid, pw.pw_gid)
    return _sandbox_ids


def give_run_dir(run, always=True):
    """Gives the run directory, and whatever the host put into it, to the
    sandbox user (links never followed).  always=False: only when the run
    directory itself is not the sandbox user's yet (one made before)."""
    ids = sandbox_ids()
    if always or os.stat(run).st_uid != ids[0]:
        safefs.chown_tree(run, ids)


def control_dir(run):
    """Host-only directory of a run's control files (not visible inside)."""
    return os.path.abspath(run).rstrip("/") + ".ctl"


def create_run_dir(path=None, template=TEMPLATE, shared_etc=False):
    """Make a fresh run directory (a new temporary one when path is None)
    holding the device's etc/, tmp/, mnt/, flash/, sim/ (overrides),
    journal.log, syslog.log and proc_printk, and its control directory.
    A directory that was set up before is left as it is: the device may
    have written anything into it since.  Returns its path.
    shared_etc: the directories of SHARED_ETC are left empty, for the
    host's to be bound over them (Device(shared_etc=True))."""
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
        if shared_etc and name in SHARED_ETC and os.path.isdir(src):
            os.mkdir(dst)
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
    give_run_dir(path)
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


class MountSources:
    """Mount sources of one sandbox.  Each is checked here (a source in
    the run directory is reached without following any link and must be
    of the expected kind: safefs.UnsafePath otherwise) and named by a
    staging path for bubblewrap.  The launcher (safefs.launch, root until
    it execs bubblewrap as the sandbox user) opens them again the same way
    and binds what it opened at those paths in a private mount namespace:
    what is mounted is what was opened, whatever the device puts at the
    paths meanwhile, and the sandbox user needs no access to the host
    directories above them.  Host paths the caller gives (agent, preloads,
    binds outside the run) are taken as they are."""

    def __init__(self, run):
        self.run = os.path.abspath(run)
        self.specs = []

    def _add(self, kind, path):
        self.specs.append([kind, path])
        return "%s/%d" % (safefs.STAGE, len(self.specs) - 1)

    def _check(self, kind, path):
        os.close(safefs.open_source(self.run, kind, path))
        return self._add(kind, path)

    def run_dir(self, rel=""):
        """RUN/rel, a directory (RUN itself for "")."""
        return self._check("dir", rel)

    def run_file(self, rel):
        """RUN/rel, a regular file."""
        return self._check("file", rel)

    def host(self, path):
        """A host path; one inside the run directory is walked as the run's
        own (a file or a directory, no link)."""
        path = os.path.abspath(path)
        if path == self.run or path.startswith(self.run + "/"):
            return self._check("node", os.path.relpath(path, self.run))
        return self._check("host", path)

    def launcher(self, argv):
        """argv that stages the sources and execs argv as the sandbox user
        (run it as root, in the device's network namespace)."""
        return safefs.launch_argv(PYTHON, self.run, sandbox_ids(),
                                  self.specs, argv)


def _tool_names():
    return sorted(n for n in os.listdir(os.path.join(SIM_DIR, "bin"))
                  if n != "sim-service")


def usr_entries(d, shell="busybox"):
    """(name, link target) of every entry of the device's /usr/<d> (bin
    or sbin): the host's programs, the device tools over them and, with
    the BusyBox shell, sh."""
    tools = _tool_names()
    skip = set(tools) | {"korvat-cloud"}
    if shell == "busybox":
        skip.add("sh")
    out = [(name, "%s/%s/%s" % (HOST_USR, d, name))
           for name in sorted(os.listdir("/usr/" + d)) if name not in skip]
    out += [(name, "%s/bin/%s" % (SIM_MOUNT, name)) for name in tools]
    if d == "bin" and shell == "busybox":
        out.append(("sh", "%s/busybox/sh" % SIM_MOUNT))
    return out


USR_LINKS_INFO = "usr-links.json"


# PATH of a device whose link tree leads the tool names to the front end
# itself (make_usr_links(named_tools=True)): the device's own, without
# /simdevice/bin first (whose files are the tools' scripts).
NAMED_TOOLS_PATH = "/usr/sbin:/usr/bin:/sbin:/bin"


def make_usr_links(dest, shell="busybox", front=False, named_tools=False):
    """Makes at dest (a new directory) the link tree of the devices'
    /usr/bin and /usr/sbin (dest/bin, dest/sbin) that sandboxes started
    with usr_links=dest bind read-only, instead of a tmpfs of about 1,600
    links each: the same links, and an empty file where the agent binary
    is bound.  Owned by the caller (root), so no device can change it.
    Made for one shell (see sandbox_args) and for the host programs and
    device tools there are now: make it again when they change.
    front: also build the tools' front end once into it (bin/.toolfront,
    see use_shared_front), when this machine builds one at all.
    named_tools (with a front end built): the tools' names lead to the
    front end itself, which takes its tool from the name it was started
    under (sim/lib/toolfront.c), so that a call runs no shell to read the
    script's header; sandboxes then get NAMED_TOOLS_PATH.  A tool's
    process then has the command line the caller gave ("uci get x"), not
    the one of a Python program."""
    os.makedirs(dest, mode=0o755)
    for d in ("bin", "sbin"):
        os.mkdir(os.path.join(dest, d), 0o755)
    built = front and build_front(os.path.join(dest, "bin", SHARED_FRONT))
    named = bool(named_tools and built)
    tools = set(_tool_names())
    for d in ("bin", "sbin"):
        for name, target in usr_entries(d, shell):
            if named and name in tools:
                target = SHARED_FRONT if d == "bin" else "../bin/" + SHARED_FRONT
            os.symlink(target, os.path.join(dest, d, name))
    # the mount point of the agent (an empty file: nothing to run)
    with open(os.path.join(dest, "bin", "korvat-cloud"), "x"):
        pass
    with open(os.path.join(dest, USR_LINKS_INFO), "x") as f:
        json.dump({"shell": shell, "named_tools": named}, f)
    return dest


def read_usr_links(path):
    with open(os.path.join(path, USR_LINKS_INFO)) as f:
        return json.load(f)


TOOLFRONT_SRC = os.path.join(SIM_DIR, "lib", "toolfront.c")
SHARED_FRONT = ".toolfront"     # in the bin/ of a link tree that has one


def build_front(dest):
    """Builds the tools' front end (sim/lib/toolfront.c) at dest on the
    host, as sim/lib/toolfront.sh builds it inside a device (same flags,
    same source key: size, mtime and inode of the source, which the
    device sees through its read-only bind).  True when it was built; on
    a machine where toolfront.sh would build none (not x86_64, no cc), or
    when the build fails, False and nothing at dest."""
    import platform
    cc = shutil.which("cc")
    if platform.machine() != "x86_64" or cc is None:
        return False
    st = os.stat(TOOLFRONT_SRC)
    key = "%d:%d:%d" % (st.st_size, int(st.st_mtime), st.st_ino)
    tmp = "%s.%d" % (dest, os.getpid())
    r = subprocess.run([cc, "-O0", "-static", "-nostdlib", "-fno-pie", "-no-pie",
                        "-fno-stack-protector", "-fno-tree-loop-distribute-patterns",
                        "-fno-asynchronous-unwind-tables",
                        '-DSOURCE_KEY="%s"' % key, "-o", tmp, TOOLFRONT_SRC],
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    if r.returncode != 0:
        try:
            os.unlink(tmp)
        except FileNotFoundError:
            pass
        return False
    os.chmod(tmp, 0o755)
    os.replace(tmp, dest)
    return True


def use_shared_front(run, usr_links):
    """Makes a run directory that no device has run in yet use the front
    end of the link tree (make_usr_links(front=True)) instead of building
    its own at its first tool call: RUN/.simtools/front becomes a link to
    it.  False (nothing done) when the tree has none."""
    if not os.path.exists(os.path.join(usr_links, "bin", SHARED_FRONT)):
        return False
    tools = os.path.join(run, ".simtools")
    os.makedirs(tools, exist_ok=True)
    os.symlink("/usr/bin/" + SHARED_FRONT, os.path.join(tools, "front"))
    give_run_dir(run)
    return True


def sandbox_args(run, cmd, agent=None, env=None, binds=(),
                 preload=(), hostname="VK310", info_fd=None, cwd="/",
                 shell="busybox", proc_stat=False, stdout_to_syslog=False,
                 shared_etc=False, usr_links=None, *, sources):
    """bwrap arguments that run `cmd` as the simulated device of `run`.
    /bin/sh is BusyBox ash as on the device (shell="host": the host's).
    The network namespace is the caller's: bwrap_command joins the run's
    device network before bwrap starts.  Mount sources go through
    `sources` (MountSources), whose launcher must start these arguments.
    proc_stat: RUN/proc_stat is the device's /proc/stat.
    stdout_to_syslog: cmd's output lines also go to the system log, as
    procd's `stdout 1` / `stderr 1` do (see SYSLOG_TEE).
    shared_etc: the host's /etc/ssl and /etc/alternatives are bound
    read-only (a run directory made with create_run_dir(shared_etc=True)).
    usr_links: a link tree made by make_usr_links, bound read-only as
    /usr/bin and /usr/sbin."""
    run = os.path.abspath(run)
    a = ["--unshare-user", "--uid", "0", "--gid", "0", "--unshare-pid",
         "--unshare-ipc", "--unshare-uts", "--unshare-cgroup-try"]
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
    # them (so absolute paths such as /sbin/reboot reach the simulation):
    # a tmpfs of links each, or a link tree many devices share (usr_links)
    path = PATH
    if usr_links is not None:
        shared = read_usr_links(usr_links)
        if shared.get("named_tools"):
            path = NAMED_TOOLS_PATH
        if shared.get("shell") != shell:
            raise ValueError("the link tree %s was made for shell %r"
                             % (usr_links, shared.get("shell")))
        for d in ("bin", "sbin"):
            a += ["--ro-bind", sources.host(os.path.join(usr_links, d)),
                  "/usr/" + d]
    else:
        for d in ("bin", "sbin"):
            a += ["--tmpfs", "/usr/" + d]
            for name, target in usr_entries(d, shell):
                a += ["--symlink", target, "/usr/%s/%s" % (d, name)]
    if agent:
        a += ["--ro-bind", sources.host(agent), AGENT_PATH]
    a += ["--remount-ro", "/usr/bin", "--remount-ro", "/usr/sbin"]
    # Device state from the run directory, as opened by the launcher.
    a += ["--ro-bind", sources.host(SIM_DIR), SIM_MOUNT,
          "--bind", sources.run_dir(), RUN_MOUNT,
          "--bind", sources.run_dir("etc"), "/etc",
          "--bind", sources.run_dir("tmp"), "/tmp",
          "--bind", sources.run_dir("mnt"), "/mnt"]
    if shared_etc:
        for name in SHARED_ETC:
            if os.path.isdir("/etc/" + name):
                a += ["--ro-bind", sources.host("/etc/" + name), "/etc/" + name]
    # Fresh /proc, read-only, with the printk file taken from the run.
    a += ["--proc", "/proc", "--remount-ro", "/proc",
          "--bind", sources.run_file("proc_printk"),
          "/proc/sys/kernel/printk"]
    if proc_stat:
        # CPU times a test sets (Device.set_proc_stat)
        a += ["--ro-bind", sources.run_file("proc_stat"), "/proc/stat"]
    a += ["--dev", "/dev", "--tmpfs", "/run", "--tmpfs", "/var",
          "--symlink", "../run", "/var/run", "--dir", "/var/log",
          "--tmpfs", "/root"]
    if TARGET:
        guest = target_guest_root()
        binds = list(binds) + [(guest, guest)]
    for src, dest, *rw in binds:
        a += ["--bind" if rw and rw[0] else "--ro-bind",
              sources.host(src), dest]
    pre = []
    for so in preload:
        dest = "%s/%s" % (EXTRA_MOUNT, os.path.basename(so))
        a += ["--ro-bind", sources.host(so), dest]
        pre.append(dest)
    envs = {"PATH": path, "HOME": "/root", "TERM": "dumb", "USER": "root",
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
    if stdout_to_syslog:
        cmd = [PYTHON, "-S", "-c", SYSLOG_TEE, RUN_MOUNT + "/syslog.log"] + \
            list(cmd)
    return a + ["--"] + list(cmd)


# procd's `stdout 1` / `stderr 1`, as the parent of the started program
# inside the device: every line the program prints goes to the system log
# buffer (RUN/syslog.log, written as the device's `logger` writes it:
# local time, host name, daemon.info for standard output, daemon.err for
# standard error, tag NAME[PID] with the basename of argv[0] and the
# program's pid in the device), and on to this process's own standard
# output and error unchanged, for the caller.  It ends when the program
# ends (with its status, or by its signal), taking what the program wrote
# until then; signals that would end it before the program (SIGTERM at a
# reboot, SIGINT, SIGHUP) are left to the program.
SYSLOG_TEE = r'''
import os, select, signal, subprocess, sys, time
log, argv = sys.argv[1], sys.argv[2:]
for s in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGQUIT):
    signal.signal(s, lambda *_: None)
try:
    p = subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                         close_fds=False)
except OSError as e:
    sys.stderr.write("bwrap: execvp %s: %s\n" % (argv[0], e.strerror))
    sys.exit(1)
tag = b"%s[%d]" % (os.fsencode(os.path.basename(argv[0])), p.pid)
host = os.uname().nodename.encode()
streams = {p.stdout.fileno(): [1, b"daemon.info", b""],
           p.stderr.fileno(): [2, b"daemon.err", b""]}


def tee(st, data):
    while data and st[0] is not None:
        try:
            data = data[os.write(st[0], data):]
        except OSError:
            st[0] = None  # the caller stopped reading: log only


def syslog(st, lines):
    stamp = time.strftime("%b %e %H:%M:%S").encode()
    text = b"".join(b"%s %s %s %s: %s\n" % (stamp, host, st[1], tag, line)
                    for line in lines)
    try:  # one write: a follower never sees half a line
        fd = os.open(log, os.O_WRONLY | os.O_APPEND | os.O_CREAT, 0o644)
        try:
            os.write(fd, text)
        finally:
            os.close(fd)
    except OSError:
        pass


def take(fd, data):
    st = streams[fd]
    if not data:
        if st[2]:
            syslog(st, [st[2]])
        del streams[fd]
        return
    tee(st, data)
    lines = (st[2] + data).split(b"\n")
    st[2] = lines.pop()
    if lines:
        syslog(st, lines)


ended = os.pidfd_open(p.pid)
while streams:
    ready = select.select(list(streams) + [ended], [], [])[0]
    for fd in ready:
        if fd != ended:
            take(fd, os.read(fd, 65536))
    if ended in ready:
        # the program is gone: what it wrote is in the pipes; a child it
        # left behind may hold them open, so read only what is there
        for fd in list(streams):
            os.set_blocking(fd, False)
            for _ in range(64):
                try:
                    data = os.read(fd, 65536)
                except BlockingIOError:
                    data = b""
                take(fd, data)
                if not data:
                    break
            if fd in streams:
                take(fd, b"")
status = p.wait()
if status < 0:  # end by the same signal, so that bwrap reports it
    try:
        signal.signal(-status, signal.SIG_DFL)
    except (OSError, ValueError):
        pass  # SIGKILL, SIGSTOP: default already
    signal.pthread_sigmask(signal.SIG_UNBLOCK, [-status])
    os.kill(os.getpid(), -status)
    status = 128 - status
sys.exit(status)
'''


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


_target_checked = False


def _target_ready():
    """Target mode: the guest root and the interpreter are made (fetched)
    as root, before the sandbox user runs target/qemu-binfmt.sh."""
    global _target_checked
    if not _target_checked:
        target_guest_root()
        subprocess.run([QEMU_BINFMT, "interpreter"], check=True,
                       stdout=subprocess.DEVNULL)
        _target_checked = True


def bwrap_command(run, cmd, net_ns, **kw):
    """(argv, fds) to start the sandbox in the network namespace at net_ns:
    argv for exec/Popen, fds to pass (and close after the start).  nsenter
    joins the network as root, then the sandbox user runs bwrap.  The
    sandbox's host pid appears in the control directory's bwrap-info.json
    once running.  When the device's last session ended with `reboot`,
    this start is a boot (boot_if_rebooted).  A mount source of the run
    directory replaced by a link (or by anything but what it was) is
    refused: safefs.UnsafePath."""
    run = os.path.abspath(run)
    boot_if_rebooted(run)
    give_run_dir(run)
    if TARGET:
        _target_ready()
    sources = MountSources(run)
    args = sandbox_args(run, cmd, sources=sources,
                        proc_stat=safefs.lexists(run, "proc_stat"), **kw)
    info = os.open(os.path.join(control_dir(run), "bwrap-info.json"),
                   os.O_WRONLY | os.O_CREAT | os.O_TRUNC | os.O_CLOEXEC, 0o644)
    os.set_inheritable(info, True)
    cut = args.index("--")
    fd = _args_fd(run, args[:cut] + ["--info-fd", str(info)])
    argv = ["bwrap", "--args", str(fd)] + args[cut:]
    if TARGET:
        argv = [QEMU_BINFMT, "run", "--"] + argv
    return simnet.ns_argv(net_ns, sources.launcher(argv)), (fd, info)


def uci_sandbox_argv(run, args):
    """(argv, fds) running the simulated uci with args on the run's
    configuration, inside a one-shot sandbox of the sandbox user: links
    planted inside the run's /etc or /tmp resolve inside the device's own
    tree, never to a host file; a mount source replaced by a link is
    refused (safefs.UnsafePath).  Pass fds to the process (none today).
    Nothing is journalled."""
    run = os.path.abspath(run)
    give_run_dir(run, always=False)
    a = ["bwrap", "--unshare-all", "--uid", "0", "--gid", "0",
         "--die-with-parent", "--new-session", "--cap-drop", "ALL",
         "--ro-bind", "/usr", "/usr"]
    for top in ("bin", "sbin", "lib", "lib32", "lib64", "libx32"):
        p = "/" + top
        if os.path.islink(p):
            a += ["--symlink", os.readlink(p), p]
        elif os.path.isdir(p):
            a += ["--ro-bind", p, p]
    sources = MountSources(run)
    a += ["--ro-bind", sources.host(SIM_DIR), SIM_MOUNT,
          "--bind", sources.run_dir(), RUN_MOUNT,
          "--bind", sources.run_dir("etc"), "/etc",
          "--bind", sources.run_dir("tmp"), "/tmp",
          "--tmpfs", "/nodelta", "--dev", "/dev", "--proc", "/proc",
          "--clearenv", "--setenv", "PATH", PATH,
          "--setenv", "SIMDEVICE_NOJOURNAL", "1", "--chdir", "/",
          "--", PYTHON, "-S", SIM_MOUNT + "/bin/uci"]
    return sources.launcher(a + list(args)), ()


LAUNCHER = "launcher.json"


def record_launcher(run, proc):
    """Record the process that launches the run's sandbox (a simnet.Proc)
    in the control directory, for other processes (the command line)."""
    path = os.path.join(control_dir(run), LAUNCHER)
    with open(path + ".new", "w") as f:
        json.dump(proc.to_json(), f)
    os.replace(path + ".new", path)


def recorded_launcher(run):
    try:
        with open(os.path.join(control_dir(run), LAUNCHER)) as f:
            return simnet.Proc.from_json(json.load(f))
    except (OSError, ValueError, KeyError, TypeError):
        return None


def _tgkill(tgid, tid, sig):
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.syscall(234, tgid, tid, sig) != 0:  # SYS_tgkill on x86_64
        raise OSError(ctypes.get_errno(), "tgkill failed")


class Device:
    """One simulated device: its run directory, its network (simnet) and at
    most one running sandbox (plus any processes entered into it with
    `exec`).  The network exists from construction on, so that servers can
    listen in its gateway namespace before the device starts."""

    def __init__(self, run_dir=None, template=TEMPLATE, keep=False, net=None,
                 shared_etc=False, usr_links=None):
        """shared_etc: /etc/ssl and /etc/alternatives are the host's, bound
        read-only, not copies in the run directory (which, when it is made
        here, has empty directories there); usr_links: every start binds
        this link tree (make_usr_links) as /usr/bin and /usr/sbin.  Both
        for many devices on one host (fleet/), where one copy serves all."""
        self.created = run_dir is None
        self.run = create_run_dir(run_dir, template, shared_etc=shared_etc)
        self.ctl = control_dir(self.run)
        self.keep = keep
        self.shared_etc = shared_etc
        self.usr_links = usr_links
        self.proc = None
        # Recorded processes (simnet.Proc: pid and start time, checked at
        # every use): the launcher start() made, the sandbox's pid 1 once
        # seen, and the sandbox's namespaces held for exec.
        self._launcher = None
        self._sandbox = None
        self._sandbox_ready_seen = False
        self._enter = None
        self._own_net = net is None
        self.net = simnet.DeviceNet() if net is None else net
        # Multiplies the waits of wait_journal and wait_rebooted, for a slow
        # or loaded machine; a wait that succeeds ends just as soon.
        self.timeout_scale = 1.0

    # ---- sandbox ---------------------------------------------------------
    def start(self, cmd, agent=None, env=None, binds=(),
              preload=(), shell="busybox", hostname="VK310",
              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
              stderr=subprocess.PIPE, stdout_to_syslog=False, **popen_kw):
        """Start cmd inside the sandbox; returns the subprocess.Popen of the
        launcher, whose exit status is that of cmd (128+n for signal n).
        agent: host path of the agent binary, /usr/bin/korvat-cloud inside.
        env: extra environment; preload: host paths of shared objects for
        LD_PRELOAD; binds: (host path, device path[, writable]) tuples.
        stdout_to_syslog: as procd's `stdout 1` / `stderr 1`, every line
        cmd prints also goes to the system log (daemon.info / daemon.err,
        tag NAME[PID]); the caller still reads it on stdout / stderr.
        The device's network is always the run's own: peers listen on
        self.net.gateway_ip inside self.net's gateway namespace.  A mount
        source of the run directory replaced by a link is refused
        (safefs.UnsafePath)."""
        if self.running():
            raise RuntimeError("device already running")
        self._forget_sandbox()
        argv, fds = bwrap_command(self.run, cmd, self.net.device_ns,
                                  agent=agent, env=env, binds=binds,
                                  preload=preload, shell=shell,
                                  hostname=hostname,
                                  stdout_to_syslog=stdout_to_syslog,
                                  shared_etc=self.shared_etc,
                                  usr_links=self.usr_links)
        try:
            self.proc = subprocess.Popen(argv, pass_fds=fds, stdin=stdin,
                                         stdout=stdout, stderr=stderr,
                                         **popen_kw)
        finally:
            for fd in fds:
                os.close(fd)
        # not reaped yet: the pid is the launcher's
        self._launcher = simnet.Proc.pinned(self.proc.pid)
        record_launcher(self.run, self._launcher)
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

    def _launcher_proc(self):
        """The launcher of the device's sandbox: the one start() made, or
        the one recorded in the control directory (a device started by
        another process, e.g. `run-device run`)."""
        if self.proc is not None:
            return self._launcher
        return recorded_launcher(self.run)

    def _forget_sandbox(self):
        self._release_enter()
        self._sandbox = None
        self._sandbox_ready_seen = False
        self._launcher = None

    def _sandbox_proc(self, timeout=5.0):
        """simnet.Proc of the sandbox's pid 1 once the sandbox is set up
        (None when not running).  The pid bubblewrap reported counts only
        while it is a child of the recorded launcher (a pid recycled since
        is not), and is checked by its start time from then on."""
        launcher = self._launcher_proc()
        if launcher is None:
            return None
        path = os.path.join(self.ctl, "bwrap-info.json")
        end = time.time() + timeout
        while True:
            found = self._sandbox
            if found is None:
                try:
                    with open(path) as f:
                        pid = json.load(f)["child-pid"]
                    st = simnet.proc_stat(int(pid))
                    if st is not None:
                        cand = simnet.Proc(pid, st[1])
                        with open("/proc/%d/comm" % cand.pid) as f:
                            comm = f.read().strip()
                        if comm == "bwrap" and cand.parent_is(launcher):
                            found = self._sandbox = cand
                except (OSError, ValueError, KeyError, TypeError):
                    pass
            if found is not None:
                if not found.alive():
                    return None
                if timeout == 0 or self._sandbox_ready_seen:
                    return found
                try:
                    self._sandbox_ready_seen = self._sandbox_ready(found.pid)
                except OSError:
                    pass
                if self._sandbox_ready_seen and found.alive():
                    return found
            if self.proc is not None and self.proc.poll() is not None:
                return None
            if not launcher.alive():
                return None
            if time.time() > end:
                return None
            time.sleep(0.02)

    def sandbox_pid(self, timeout=5.0):
        """Host pid of the sandbox's pid 1 once the sandbox is set up (None
        when not running)."""
        found = self._sandbox_proc(timeout)
        return None if found is None else found.pid

    def running(self):
        return self.proc is not None and self.proc.poll() is None

    def _enter_fds(self, timeout=5.0):
        """{namespace: fd, "root": fd} of the running sandbox, opened from
        its pid 1 and kept only when that process was still the recorded
        one after the opens; held until the device stops."""
        found = self._sandbox_proc(timeout)
        if found is None:
            raise RuntimeError("device not running")
        held = self._enter
        if held is not None and held[0] == found:
            return held[1]
        # Descriptors opened while bwrap is still setting up the sandbox
        # name its half-made mount namespace and root for the rest of the
        # device's life: take them only once the sandbox is ready.
        if not self._sandbox_ready_seen:
            try:
                self._sandbox_ready_seen = self._sandbox_ready(found.pid)
            except OSError:
                pass
            if not self._sandbox_ready_seen:
                raise RuntimeError("device not running")
        self._release_enter()
        fds = {}
        try:
            for ns in ("user", "mnt", "pid", "ipc", "uts", "net"):
                fds[ns] = found.open("ns/" + ns)
            fds["root"] = found.open("root", os.O_PATH)
        except simnet.StaleProcess:
            for fd in fds.values():
                os.close(fd)
            raise RuntimeError("device not running")
        self._enter = (found, fds)
        return fds

    def _release_enter(self):
        held, self._enter = self._enter, None
        if held is not None:
            for fd in held[1].values():
                os.close(fd)

    def keep_across_exec(self):
        """Make the descriptors exec_argv's paths name survive an exec of
        this process (the command line execs nsenter)."""
        if self._enter is not None:
            for fd in self._enter[1].values():
                os.set_inheritable(fd, True)

    def exec_argv(self, cmd, env=None):
        """argv running cmd inside the running sandbox (same namespaces,
        network included, and root, no capabilities).  The namespaces are
        named by descriptors this object holds (/proc/<this process>/fd/N),
        valid until the device stops."""
        fds = self._enter_fds()
        path = {k: "/proc/%d/fd/%d" % (os.getpid(), fd) for k, fd in fds.items()}
        envs = ["PATH=" + PATH, "HOME=/root", "TERM=dumb"]
        if TARGET:
            # a target binary started from here (the init script starting
            # the agent) finds its libraries as in the device's main process
            envs.append("QEMU_LD_PREFIX=" + target_guest_root())
        envs += ["%s=%s" % kv for kv in (env or {}).items()]
        ns = ["--user=" + path["user"], "--mount=" + path["mnt"],
              "--pid=" + path["pid"], "--ipc=" + path["ipc"],
              "--uts=" + path["uts"], "--net=" + path["net"]]
        return (["nsenter"] + ns + ["--root=" + path["root"],
                "--wd=" + path["root"], "--",
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

    def _pid_ns(self):
        """(device, inode) of the sandbox's pid namespace, or None."""
        if self._sandbox_proc(timeout=0) is None:
            return None
        try:
            st = os.fstat(self._enter_fds(timeout=0)["pid"])
        except RuntimeError:
            return None
        return st.st_dev, st.st_ino

    @staticmethod
    def _ns_of(host_pid):
        st = os.stat("/proc/%s/ns/pid" % host_pid)
        return st.st_dev, st.st_ino

    def processes(self):
        """Processes of the sandbox: dicts with pid (inside), host_pid,
        comm, cmdline and threads (list of (tid inside, host tid))."""
        ns = self._pid_ns()
        out = []
        if ns is None:
            return out
        for d in os.listdir("/proc"):
            if not d.isdigit():
                continue
            try:
                if self._ns_of(d) != ns:
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

    def _member_pidfd(self, host_pid):
        """pidfd of host process host_pid, kept only when the process is
        in the sandbox's pid namespace after the pidfd was opened (so a
        signal through it never reaches a host process)."""
        fd = os.pidfd_open(host_pid)
        try:
            if self._ns_of(host_pid) != self._pid_ns():
                raise LookupError("process %d left the device" % host_pid)
        except BaseException:
            os.close(fd)
            raise
        return fd

    def signal_thread(self, tid, sig=signal.SIGTERM):
        """Send sig to one thread, given by its in-sandbox thread id (e.g.
        the number the agent wrote into /tmp/cloud_timer_pid)."""
        tgid, host = self.host_tid(tid)
        fd = self._member_pidfd(tgid)
        try:
            _tgkill(tgid, host, sig)
        finally:
            os.close(fd)

    def signal(self, pid, sig=signal.SIGTERM):
        """Send sig to a process given by its in-sandbox pid."""
        fd = self._member_pidfd(self.host_tid(pid)[0])
        try:
            signal.pidfd_send_signal(fd, sig)
        finally:
            os.close(fd)

    def capabilities(self, pid):
        """Effective capability mask (int) of a sandbox process, read from
        its /proc status on the host."""
        host = self.host_tid(pid)[0]
        with open("/proc/%d/status" % host) as f:
            for line in f:
                if line.startswith("CapEff:"):
                    return int(line.split()[1], 16)
        raise OSError("no CapEff")

    def kill_sandbox(self):
        """SIGKILL to the sandbox's pid 1 (everything in the device ends
        with it), if it is still the recorded process.  True when sent."""
        found = self._sandbox_proc(timeout=0)
        return found is not None and found.signal(signal.SIGKILL)

    def stop(self, timeout=5.0):
        """Kill everything in the sandbox and reap the launcher.  Returns the
        launcher's exit status (None when nothing was started)."""
        if self.proc is None:
            return None
        if self.proc.poll() is None:
            self.kill_sandbox()
        self._release_enter()
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
        self._release_enter()
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
        argv, fds = uci_sandbox_argv(self.run, args)
        try:
            return subprocess.run(argv, pass_fds=fds, text=True,
                                  stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE)
        finally:
            for fd in fds:
                os.close(fd)

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

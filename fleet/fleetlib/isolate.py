"""A private PID and mount namespace for the whole fleet.

Everything the fleet starts (devices, their sandboxes, the server, the
forward) lives in one PID namespace whose init is a small process of ours.
When the runner ends, however it ends (a normal exit, Ctrl-C, a crash, a
SIGKILL), init ends with it, and the kernel then kills every other process
of the namespace, those of the devices' own nested namespaces included.  The
namespaces held by those processes (the switch, every device network, the
sandboxes' mount namespaces) go with them.  The runner's mount namespace is
private too: the tmpfs the run directories live on is mounted there only,
and disappears with the namespace's last process.

    outer process (the command the user started, host PID namespace)
      `- init: pid 1 of the fleet's namespace, own session, reaps orphans
           `- runner: pid 2, runs `main`

The outer process forwards SIGINT, SIGTERM and SIGHUP to init, which
forwards them to the runner; the runner is in a session of its own, so a
Ctrl-C at the terminal reaches it once, through the outer process.  When
the outer process is killed, init gets SIGKILL (parent-death signal).
"""
import ctypes
import errno
import os
import signal
import sys

CLONE_NEWNS = 0x00020000
CLONE_NEWPID = 0x20000000
MS_NOSUID, MS_NODEV, MS_NOEXEC = 0x2, 0x4, 0x8
MS_REC, MS_PRIVATE = 0x4000, 0x40000
PR_SET_PDEATHSIG = 1
FORWARDED = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)

# Where the fleet's tmpfs is mounted inside its mount namespace: a
# directory that exists on every Linux system, so that nothing needs to be
# created (and, after a crash, removed) on the host.  The host's own
# /dev/shm is hidden from the fleet only.
TMPFS_AT = "/dev/shm"

_libc = ctypes.CDLL(None, use_errno=True)


def _check(ret, what):
    if ret != 0:
        err = ctypes.get_errno()
        raise OSError(err, "%s: %s" % (what, os.strerror(err)))


def _forward_to(pid_ref):
    def handler(sig, _frame):
        pid = pid_ref[0]
        if pid:
            try:
                os.kill(pid, sig)
            except ProcessLookupError:
                pass
    return handler


def _init(main, alive_r, tmpfs_size):
    """Body of pid 1 of the fleet's namespace."""
    _libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
    # the outer process may have gone before the line above: its end of
    # the pipe is then closed
    os.set_blocking(alive_r, False)
    try:
        if os.read(alive_r, 1) == b"":
            os._exit(1)
    except BlockingIOError:
        pass
    os.setsid()
    _check(_libc.unshare(CLONE_NEWNS), "unshare(mount)")
    _check(_libc.mount(None, b"/", None, MS_REC | MS_PRIVATE, None),
           "private mounts")
    _check(_libc.mount(b"proc", b"/proc", b"proc",
                       MS_NOSUID | MS_NODEV | MS_NOEXEC, None), "mount /proc")
    _check(_libc.mount(b"tmpfs", TMPFS_AT.encode(), b"tmpfs",
                       MS_NOSUID | MS_NODEV,
                       ("mode=755,size=%s" % tmpfs_size).encode()),
           "mount tmpfs on " + TMPFS_AT)
    runner = [0]
    for sig in FORWARDED:
        signal.signal(sig, _forward_to(runner))
    pid = os.fork()
    if pid == 0:
        for sig in FORWARDED:
            signal.signal(sig, signal.SIG_DFL)
        signal.signal(signal.SIGINT, signal.default_int_handler)
        os.close(alive_r)
        code = 1
        try:
            code = main()
        except SystemExit as e:
            code = e.code if isinstance(e.code, int) else (0 if e.code is None else 1)
        except KeyboardInterrupt:
            code = 130
        except BaseException:
            import traceback
            traceback.print_exc()
            code = 1
        finally:
            try:
                sys.stdout.flush()
                sys.stderr.flush()
            except Exception:
                pass
            os._exit(code if isinstance(code, int) else 1)
    runner[0] = pid
    status = 1
    while True:
        try:
            got, st = os.waitpid(-1, 0)
        except ChildProcessError:
            break
        if got == pid:
            status = os.waitstatus_to_exitcode(st)
            if status < 0:
                status = 128 - status
            break
    # the rest of the namespace ends with this process
    os._exit(status)


def run_isolated(main, tmpfs_size="50%"):
    """Runs main() as the runner described above and returns its exit
    status (128+n when it died by signal n).  Needs root."""
    alive_r, alive_w = os.pipe()
    _check(_libc.unshare(CLONE_NEWPID), "unshare(pid)")
    sys.stdout.flush()
    sys.stderr.flush()
    pid = os.fork()
    if pid == 0:
        os.close(alive_w)
        try:
            _init(main, alive_r, tmpfs_size)
        finally:
            os._exit(1)
    os.close(alive_r)
    init = [pid]
    for sig in FORWARDED:
        signal.signal(sig, _forward_to(init))
    while True:
        try:
            _, st = os.waitpid(pid, 0)
            break
        except ChildProcessError:
            return 1
        except InterruptedError:
            continue
    os.close(alive_w)
    code = os.waitstatus_to_exitcode(st)
    return 128 - code if code < 0 else code


def in_fleet_namespace():
    """True inside the runner (pid 2 of a fleet namespace made here)."""
    return os.getpid() == 2


def pid_namespace(pid="self"):
    """Inode of the PID namespace of a process (host view)."""
    try:
        return os.stat("/proc/%s/ns/pid" % pid).st_ino
    except OSError as e:
        if e.errno in (errno.ENOENT, errno.ESRCH):
            return None
        raise

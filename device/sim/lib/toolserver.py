# Tool server of a simulated device (device/README.md, "Tool cost").
#
# A warm Python with the tools' modules loaded, started on demand inside
# the device by the first tool call (toolfront.c) and living as long as the
# device.  Each call arrives on its Unix socket from a front end: the
# script as Python was asked to run it, its arguments, the caller's
# environment, umask, nice value, signal mask and ignored signals, and as
# descriptors the caller's working directory and standard input, output
# and error.  The server forks a worker that becomes the process Python
# would have started -- those descriptors as 0, 1 and 2, that directory,
# that environment (with the changes Python's own start makes to it),
# sys.argv, sys.path and standard streams as Python sets them up -- and
# runs the script as __main__, with Python's exit handling (SystemExit,
# tracebacks, flushing the streams).  The server answers the worker's pid
# at once and its wait status when it ends.
#
# The worker's end of the socket signals it (SIGIO, whose default action
# ends the process) when the front end is gone, so a killed front end takes
# its worker with it at once, even after the worker exec'd a BusyBox applet.
#
#     python3 -S toolserver.py SOCKET READY_FD
import gc
import os
import select
import signal
import socket
import struct
import sys
import time
import types

# What the tools load, loaded once here (the workers inherit it).
import fcntl  # noqa: F401
import io
import json  # noqa: F401
import importlib.machinery

LIB = os.path.dirname(os.path.realpath(__file__))
sys.path.insert(0, LIB)
import simcommon  # noqa: E402,F401
import ucilib  # noqa: E402,F401
import apmodel  # noqa: E402,F401

MAGIC = b"KTF1"
# A front end that can take a call answered by the server itself (no
# worker: the pid it gets is 0, the status follows at once) says so
# with this magic; one built from an older source sends MAGIC.
MAGIC_HERE = b"KTF2"
HEAD = struct.Struct("=4s8Q")
INT = struct.Struct("=i")
RCVTIMEO = struct.pack("ll", 3, 0)
STDIO = (("<stdin>", "r"), ("<stdout>", "w"), ("<stderr>", "w"))
# sys.path after its first entry (the script's directory), as Python -S
# sets it up: the standard library.
BASE_PATH = [p for p in sys.path if p != LIB]


def initial_environment():
    """This process's environment as it was exec'd (entries, in order)."""
    try:
        with open("/proc/self/environ", "rb") as f:
            return f.read().split(b"\0")[:-1]
    except OSError:
        return None


def startup_env_changes(initial):
    """{name: value} that this Python's own start set in its environment
    (the locale coercion's LC_CTYPE=C.UTF-8): the initial environment
    against os.environ."""
    orig = {}
    for entry in initial or ():
        k, eq, v = entry.partition(b"=")
        if eq:
            orig.setdefault(k, v)
    return {k: v for k, v in os.environb.items() if orig.get(k) != v}


INITIAL_ENV = initial_environment()
ENV_CHANGES = startup_env_changes(INITIAL_ENV)
SERVER_STDIO = (sys.__stdin__, sys.__stdout__, sys.__stderr__)


def localtime_key():
    try:
        st = os.stat("/etc/localtime")
        return st.st_ino, st.st_size, st.st_mtime_ns
    except OSError:
        return None


time.tzset()
SERVER_TZ = (os.environb.get(b"TZ"), localtime_key())


class Script:
    """A tool script compiled once per path as called (the file name in
    tracebacks), with the directory Python puts first on sys.path; compiled
    again when the file changes."""
    cache = {}

    @classmethod
    def get(cls, path):
        got = cls.cache.get(path)
        real = got.real if got else os.path.realpath(os.fsdecode(path))
        try:
            st = os.stat(real)
        except OSError:
            return None
        key = (st.st_mtime_ns, st.st_size, st.st_ino)
        if got is None or got.key != key:
            try:
                with open(real, "rb") as f:
                    source = f.read()
                code = compile(source, os.fsdecode(path), "exec",
                               dont_inherit=True)
            except (OSError, SyntaxError, ValueError):
                return None
            got = cls(real, key, code)
            cls.cache[path] = got
        return got

    def __init__(self, real, key, code):
        self.real, self.key, self.code = real, key, code
        self.path0 = os.path.dirname(real)


def read_request(conn):
    """(fields, fds) of one call: fields None when it is malformed or did
    not come whole."""
    try:
        data, fds, _, _ = socket.recv_fds(conn, 1 << 16, 4)
    except OSError:
        return None, []
    try:
        while len(data) < HEAD.size:
            more = conn.recv(1 << 16)
            if not more:
                return None, fds
            data += more
        magic, length, argc, envc, umask, nice, ign, blk, mask = \
            HEAD.unpack_from(data)
        total = HEAD.size + length
        while len(data) < total:
            more = conn.recv(min(1 << 20, total - len(data)))
            if not more:
                return None, fds
            data += more
    except OSError:
        return None, fds
    if magic not in (MAGIC, MAGIC_HERE) or len(data) != total:
        return None, fds
    strings = data[HEAD.size:].split(b"\0")[:-1]
    if len(strings) != argc + envc or argc < 1 or \
            len(fds) != bin(mask).count("1"):
        return None, fds
    nice = nice - (1 << 64) if nice >= 1 << 63 else nice
    return (strings[:argc], strings[argc:], umask, nice, ign, blk, mask,
            magic == MAGIC_HERE), fds


def bits(mask):
    return [n + 1 for n in range(64) if mask >> n & 1]


def set_up_worker(conn, req, fds):
    """Turn this forked process into the caller's tool process."""
    argv, env, umask, nice, ign, blk, mask, _ = req
    c = conn.fileno()
    # The front end's end closing signals this process: SIGIO, whose
    # action is the default one here (the front end started the server so)
    fcntl.fcntl(c, fcntl.F_SETOWN, os.getpid())
    fcntl.fcntl(c, fcntl.F_SETFL, fcntl.fcntl(c, fcntl.F_GETFL) | os.O_ASYNC)
    p = select.poll()
    p.register(c, select.POLLIN)
    if p.poll(0):  # gone already
        os.kill(os.getpid(), signal.SIGIO)
    it = iter(fds)
    cwd = next(it) if mask & 8 else None
    for fd in range(3):
        if mask >> fd & 1:
            os.dup2(next(it), fd)
        else:
            try:
                os.close(fd)
            except OSError:
                pass
    if cwd is not None:
        os.fchdir(cwd)
    # every descriptor of the server (and the received ones) but the socket
    os.closerange(3, c)
    os.closerange(c + 1, 1 << 20)
    os.umask(umask)
    try:
        os.setpriority(os.PRIO_PROCESS, 0, nice)
    except OSError:
        pass
    for sig in bits(ign):
        if sig not in (signal.SIGKILL, signal.SIGSTOP, signal.SIGIO):
            try:
                signal.signal(sig, signal.SIG_IGN)
            except (OSError, ValueError):
                pass
    if blk:  # (the server blocks nothing)
        signal.pthread_sigmask(signal.SIG_SETMASK,
                               [s for s in bits(blk) if s != signal.SIGIO])
    set_environment(env)
    # standard streams as Python sets them up
    for fd, (name, mode) in enumerate(STDIO):
        stream = open_stdio(fd, name, mode) if mask >> fd & 1 else None
        setattr(sys, ("stdin", "stdout", "stderr")[fd], stream)
        setattr(sys, ("__stdin__", "__stdout__", "__stderr__")[fd], stream)


def set_environment(env):
    """The caller's environment, with the changes Python's start makes to
    it (ENV_CHANGES); then the time zone of it.  Only what differs from
    this process's environment is changed."""
    if env != INITIAL_ENV:
        want = {}
        for entry in env:
            k, eq, v = entry.partition(b"=")
            if eq and k not in want:
                want[k] = ENV_CHANGES.get(k, v)
        for k, v in ENV_CHANGES.items():
            want.setdefault(k, v)
        have = os.environb
        for k in [k for k in have if k not in want]:
            del have[k]
        for k, v in want.items():
            if have.get(k) != v:
                have[k] = v
    # the C library's zone (localtime_r keeps what it read last) and
    # time.timezone and friends, as a fresh Python has them
    if os.environb.get(b"TZ") != SERVER_TZ[0] or \
            localtime_key() != SERVER_TZ[1]:
        time.tzset()


def open_stdio(fd, name, mode):
    """A standard stream as Python's start opens it (create_stdio): stdin
    always buffered, stdout and stderr unbuffered with -u; line-buffered
    on a terminal, stderr always; newline "\\n"; encoding and errors
    of this Python's own streams (same locale settings).

    The server's own stream over the same descriptor number is that
    stream already when the caller's file is no terminal and has the same
    block size (buffer size): it has not been read from, and what it
    wrote went out.  (What differs: tell() and seekable() answer for the
    server's /dev/null; no tool asks.)"""
    try:
        st = os.fstat(fd)
    except OSError:
        return None
    old = SERVER_STDIO[fd]
    raw = old.buffer if isinstance(old.buffer, io.FileIO) else old.buffer.raw
    if st.st_blksize == raw._blksize and not os.isatty(fd):
        return old
    write = mode == "w"
    unbuffered = SERVER_STDIO[1].write_through  # -u, PYTHONUNBUFFERED
    buf = io.open(fd, mode + "b", 0 if unbuffered and write else -1,
                  closefd=False)
    raw = buf if unbuffered and write else buf.raw
    raw.name = name
    tty = raw.isatty()
    stream = io.TextIOWrapper(buf, old.encoding, old.errors, "\n",
                              not unbuffered and (tty or fd == 2),
                              unbuffered)
    stream.mode = mode
    return stream

def run_script(script, argv):
    """Run the script as __main__ as Python does; returns the exit code."""
    path = os.fsdecode(argv[0])
    sys.argv = [os.fsdecode(a) for a in argv]
    sys.orig_argv = [sys.executable, "-S"] + sys.argv
    sys.path[:] = [script.path0] + BASE_PATH
    main = types.ModuleType("__main__")
    main.__file__ = path
    main.__cached__ = None
    main.__loader__ = importlib.machinery.SourceFileLoader("__main__", path)
    main.__builtins__ = __builtins__
    sys.modules["__main__"] = main
    code = 0
    try:
        exec(script.code, main.__dict__)
    except SystemExit as e:
        code = system_exit_code(e)
    except BaseException as e:
        tb = e.__traceback__.tb_next  # not this function's frame
        e.__traceback__ = tb
        sys.last_type, sys.last_value, sys.last_traceback = type(e), e, tb
        sys.excepthook(type(e), e, tb)
        code = 1
        if isinstance(e, KeyboardInterrupt):  # ends by SIGINT, as Python
            flush_streams()
            signal.signal(signal.SIGINT, signal.SIG_DFL)
            os.kill(os.getpid(), signal.SIGINT)
            code = 128 + signal.SIGINT
    return code


def system_exit_code(e):
    code = e.code
    if code is None:
        return 0
    if isinstance(code, int):
        return code if -(1 << 31) <= code < (1 << 31) else -1
    try:
        if sys.stderr is not None:
            sys.stderr.write(str(code))
            sys.stderr.write("\n")
            sys.stderr.flush()
    except Exception:
        pass
    return 1


def flush_streams():
    """Python's flush of sys.stdout and sys.stderr at exit; False when one
    failed."""
    ok = True
    for name in ("stdout", "stderr"):
        f = getattr(sys, name, None)
        if f is None or getattr(f, "closed", True):
            continue
        try:
            f.flush()
        except Exception as e:
            ok = False
            if name == "stdout":
                sys.unraisablehook(types.SimpleNamespace(
                    exc_type=type(e), exc_value=e,
                    exc_traceback=e.__traceback__, err_msg=None, object=f))
    return ok


def worker(conn, req, fds, script):
    status = 1
    try:
        set_up_worker(conn, req, fds)
        status = run_script(script, req[0])
        if not flush_streams() and status == 0:
            status = 120
    except BaseException:
        try:
            import traceback
            traceback.print_exc()
        except BaseException:
            pass
    finally:
        os._exit(status & 0xff)


# ---- calls answered here, without a worker ----------------------------------
#
# `uci get PATH` is the device's hottest call: the agent's maintenance
# timer makes it every second (the remote-access check), and a fleet of
# devices makes it hundreds of times a second.  A worker costs a fork of
# this process, its set-up and its exit: several times what the call
# itself does.  So the server answers it itself, with what the tool's own
# code does for it -- the journal line, the shared lock of the staged
# changes, the value or the error message and status -- on the caller's
# descriptors, and hands any other case to a worker: another command or
# option, a standard descriptor the caller closed, the lock taken by
# another call, a directory it cannot make.  Only for front ends that say
# they take such an answer (MAGIC_HERE).

UCI_SCRIPT = os.path.realpath(os.path.join(LIB, "..", "bin", "uci"))
UCI_CONFDIR, UCI_SAVEDIR = "/etc/config", "/tmp/.uci"


def answer_here(req, fds, script):
    """The wait status of the call when this process answered it, or None
    (a worker runs it)."""
    argv, env, umask, _, ign, _, mask, here_ok = req
    if not here_ok or script.real != UCI_SCRIPT or len(argv) != 3 or \
            argv[1] != b"get" or mask & 7 != 7:
        return None
    names = {e.partition(b"=")[0] for e in env}
    if b"SIMDEVICE_RUN" in names:
        return None
    std = fds[-3:]
    old = os.umask(umask)
    try:
        os.makedirs(UCI_SAVEDIR, mode=0o700, exist_ok=True)
        lockfd = os.open(os.path.join(UCI_SAVEDIR, ".lock"),
                         os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o600)
    except OSError:
        return None
    finally:
        os.umask(old)
    try:
        fcntl.flock(lockfd, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except OSError:
        os.close(lockfd)
        return None       # another call holds it: a worker waits for it
    out = err = b""
    status = 0
    stream = SERVER_STDIO[1]
    try:
        if b"SIMDEVICE_NOJOURNAL=1" not in env:
            simcommon.journal_line("uci", [os.fsdecode(a) for a in argv[1:]])
        try:
            value = ucilib.Store(UCI_CONFDIR, UCI_SAVEDIR).get(os.fsdecode(argv[2]))
            out = (value + "\n").encode(stream.encoding, stream.errors)
        except ucilib.UciError as e:
            err, status = ("uci: %s\n" % e).encode(), 1
        except (ValueError, OSError):
            err, status = ("uci: %s\n" % ucilib.INVALID).encode(), 1
    finally:
        os.close(lockfd)
    try:
        _write_all(std[1], out)
    except OSError as e:
        # as Python's own flush of standard output at its exit reports it
        err += ("Exception ignored in: <_io.TextIOWrapper name='<stdout>' mode='w' "
                "encoding='%s'>\n%s: %s\n" % (stream.encoding, type(e).__name__, e)).encode()
        status = 120 if status == 0 else status
    try:
        _write_all(std[2], err)
    except OSError:
        pass
    return status << 8


def _write_all(fd, data):
    while data:
        data = data[os.write(fd, data):]


def serve(path, ready_fd):
    tmp = "%s.%d" % (path, os.getpid())
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    try:
        os.unlink(tmp)
    except FileNotFoundError:
        pass
    listener.bind(tmp)
    listener.listen(128)
    os.rename(tmp, path)
    poll = select.epoll()
    lfd = listener.fileno()
    poll.register(lfd, select.EPOLLIN)
    calls = {}  # pidfd: (worker pid, connection)
    gc.collect()
    gc.freeze()  # the workers leave the server's objects alone
    os.write(ready_fd, b"R")
    os.close(ready_fd)
    while True:
        for fd, _ in poll.poll():
            if fd == lfd:
                accept(listener, poll, calls)
            else:
                finish(fd, poll, calls)


def accept(listener, poll, calls):
    try:
        conn, _ = listener.accept()
        # a front end that connects and sends nothing holds the server
        # 3 s at most (a Unix socket does not take this from the listener);
        # that front end runs its tool as Python
        conn.setsockopt(socket.SOL_SOCKET, socket.SO_RCVTIMEO, RCVTIMEO)
    except OSError:
        return
    req, fds = read_request(conn)
    pid = None
    try:
        script = Script.get(req[0][0]) if req else None
        if script is not None:
            status = answer_here(req, fds, script)
            if status is not None:
                try:
                    conn.sendall(INT.pack(0) + INT.pack(status))
                except OSError:
                    pass  # the front end is gone
                conn.close()
                return
            pid = os.fork()
            if pid == 0:
                worker(conn, req, fds, script)
    except OSError:
        pass
    finally:
        for fd in fds:
            os.close(fd)
    if pid is None:
        conn.close()  # the front end runs the tool itself
        return
    pidfd = os.pidfd_open(pid)
    calls[pidfd] = (pid, conn, req[0])
    poll.register(pidfd, select.EPOLLIN)
    try:
        conn.sendall(INT.pack(pid))
    except OSError:
        pass  # the front end is gone; its worker goes too


def finish(pidfd, poll, calls):
    pid, conn, argv = calls.pop(pidfd)
    poll.unregister(pidfd)
    os.close(pidfd)
    _, status = os.waitpid(pid, 0)
    if os.WIFSIGNALED(status):
        # a tool that died of a signal prints nothing for its caller: the
        # server's log (RUN/.simtools/server.log) keeps the trace
        try:
            sys.stderr.write("toolserver: worker %d (%s) ended by signal %d\n" % (
                pid, " ".join(os.fsdecode(a) for a in argv), os.WTERMSIG(status)))
            sys.stderr.flush()
        except (OSError, ValueError):
            pass
    try:
        conn.sendall(INT.pack(status))
    except OSError:
        pass  # the front end is gone
    conn.close()


if __name__ == "__main__":
    serve(sys.argv[1], int(sys.argv[2]))

# Shared helpers of the simulated device tools: where the run directory is,
# the call journal, and the per-run canned-output overrides.
import fcntl
import os
import sys

# Inside the sandbox the run directory is mounted here.
SANDBOX_RUN = "/simrun"


def run_dir():
    """Run directory of the device: $SIMDEVICE_RUN (host-side use) or the
    sandbox mount.  Refuses to guess when neither exists, so a tool started
    by mistake on the host never touches host files."""
    env = os.environ.get("SIMDEVICE_RUN")
    if env:
        return env
    if os.path.isdir(SANDBOX_RUN):
        return SANDBOX_RUN
    sys.stderr.write("simdevice: not inside a simulated device "
                     "(set SIMDEVICE_RUN)\n")
    sys.exit(2)


def device_path(path):
    """Map a device path (/etc/..., /tmp/..., /mnt/...) to where it really is.
    Inside the sandbox that is the path itself; on the host it lies in the
    run directory."""
    if os.environ.get("SIMDEVICE_RUN"):
        return os.path.join(run_dir(), path.lstrip("/"))
    return path


def journal(name, args):
    """Append one line 'name arg1 arg2 ...' to RUN/journal.log, as a single
    O_APPEND write under an exclusive lock.  SIMDEVICE_NOJOURNAL=1 (host-side
    queries of the test API) records nothing."""
    if os.environ.get("SIMDEVICE_NOJOURNAL") == "1":
        return
    journal_line(name, args)


def journal_line(name, args):
    """journal() whatever the environment says (the tool server decides for
    the call it answers itself, from the caller's environment)."""
    words = [os.path.basename(name)] + list(args)
    line = " ".join(w.replace("\n", "\\n") for w in words) + "\n"
    path = os.path.join(run_dir(), "journal.log")
    fd = os.open(path, os.O_WRONLY | os.O_APPEND | os.O_CREAT, 0o644)
    try:
        fcntl.flock(fd, fcntl.LOCK_EX)
        os.write(fd, line.encode("utf-8", "surrogateescape"))
    finally:
        os.close(fd)


def _keys(tool, args):
    """Override keys, most specific first: tool_a1_a2..., ..., tool."""
    safe = [a.replace("/", "%") for a in args]
    for n in range(len(safe), -1, -1):
        yield "_".join([tool] + safe[:n])


def override(tool, args, subdir=""):
    """Return (output_bytes, exit_code) from RUN/sim/[subdir/]<key>.sh (run
    with sh and the call's arguments), RUN/sim/[subdir/]<key>.out (printed;
    <key>.rc beside it gives the status), or None when the run has no
    override for this call.  Keys: tool_arg1_arg2..., then shorter, down to
    tool alone ('/' in arguments becomes '%')."""
    base = os.path.join(run_dir(), "sim", subdir)
    for key in _keys(tool, args):
        script = os.path.join(base, key + ".sh")
        if os.path.isfile(script):
            import subprocess  # only here: most calls print a file or nothing
            res = subprocess.run(["/bin/sh", script] + list(args),
                                 stdout=subprocess.PIPE)
            return res.stdout, res.returncode
        out = os.path.join(base, key + ".out")
        if os.path.isfile(out):
            with open(out, "rb") as f:
                data = f.read()
            rc = 0
            rcfile = os.path.join(base, key + ".rc")
            if os.path.isfile(rcfile):
                with open(rcfile) as f:
                    rc = int(f.read().strip() or 0)
            return data, rc
    return None


def emit(tool, args, default):
    """Print the override of this call if any, else `default` (str or a
    callable returning str).  Returns the exit status to use."""
    ov = override(tool, args)
    if ov is not None:
        sys.stdout.flush()
        os.write(1, ov[0])
        return ov[1]
    text = default() if callable(default) else default
    if text:
        sys.stdout.write(text)
        sys.stdout.flush()
    return 0

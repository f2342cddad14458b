"""Where the fleet's CPU time and memory go.

The runner lives in a PID namespace of its own (isolate.py) with its own
/proc: every process listed there is the fleet's.  A process's CPU time is
read from /proc/PID/stat: its own (utime + stime) and that of its children
it has waited for (cutime + cstime).  Every process of the fleet is waited
for by its parent (or by the namespace's init), so the sum of both over the
processes alive at a moment is all the CPU the fleet has used until then,
whichever processes have ended meanwhile; the difference between two
samples is what was used in between.

Processes are sorted into kinds by command name and line:

    agent            the agent's own threads
    agent commands   what the agent ran and waited for: its shells, the
                     tools' front ends, tr, awk, sed, cat ... (the agent's
                     children)
    tool servers     the devices' warm tool servers, their own handling
    tool workers     the servers' workers (a tool's Python code, forked)
    sandboxes        bubblewrap (the sandbox's init and its monitor) and
                     whatever they reaped
    server           the bundled device server (or the forward)
    runner           the runner itself, its helpers (ip, nsenter ...) and init
"""
import os
import time

CLK_TCK = os.sysconf("SC_CLK_TCK")
PAGE_KB = os.sysconf("SC_PAGE_SIZE") // 1024
KINDS = ("agent", "agent commands", "tool servers", "tool workers",
         "sandboxes", "server", "runner")
# the kind of the children a process of a kind has waited for
CHILDREN_KIND = {"agent": "agent commands", "tool servers": "tool workers"}


def _stat(pid):
    with open("/proc/%s/stat" % pid, "rb") as f:
        data = f.read()
    rp = data.rindex(b")")
    comm = data[data.index(b"(") + 1:rp].decode("utf-8", "replace")
    fields = data[rp + 2:].split()
    # fields[0] is field 3 (state); utime is field 14
    return (comm, int(fields[1]), int(fields[11]) + int(fields[12]),
            int(fields[13]) + int(fields[14]), int(fields[21]))


def _cmdline(pid):
    try:
        with open("/proc/%s/cmdline" % pid, "rb") as f:
            return f.read().split(b"\0")
    except OSError:
        return []


def classify(comm, cmdline, ppid_kind):
    if comm == "korvat-cloud":
        return "agent"
    if comm == "bwrap":
        return "sandboxes"
    text = b" ".join(cmdline)
    if b"toolserver.py" in text:
        return "tool servers" if ppid_kind != "tool servers" else "tool workers"
    if b"fleet_server" in text or b"devserver" in text or b"fleet-forward" in text:
        return "server"
    if ppid_kind in ("agent", "agent commands"):
        return "agent commands"
    if ppid_kind == "tool servers":
        return "tool workers"
    if ppid_kind in ("sandboxes",):
        return "sandboxes"
    return "runner"


class Sample:
    """CPU seconds by kind (own, children) at one moment, and the
    processes seen."""

    def __init__(self):
        self.at = time.monotonic()
        self.own = dict.fromkeys(KINDS, 0)
        self.children = dict.fromkeys(KINDS, 0)
        self.pids = {}

    def total(self, kind=None):
        kinds = KINDS if kind is None else (kind,)
        return sum(self.own[k] + self.children[k] for k in kinds) / CLK_TCK


def take_sample(known=None):
    """A Sample of every process in this /proc.  known: {pid: kind} of the
    last sample (a process's kind is kept while it lives)."""
    s = Sample()
    stats = {}
    for name in os.listdir("/proc"):
        if not name.isdigit():
            continue
        try:
            stats[int(name)] = _stat(name)
        except (OSError, ValueError, IndexError):
            continue
    kinds = {}

    def kind_of(pid, depth=0):
        if pid in kinds:
            return kinds[pid]
        st = stats.get(pid)
        if st is None or depth > 40:
            return "runner"
        if known and pid in known and known[pid][1] == st[4]:
            kinds[pid] = known[pid][0]
            return kinds[pid]
        parent = kind_of(st[1], depth + 1) if st[1] in stats else "runner"
        kinds[pid] = classify(st[0], _cmdline(pid), parent)
        return kinds[pid]

    for pid, st in stats.items():
        k = kind_of(pid)
        s.own[k] += st[2]
        s.children[CHILDREN_KIND.get(k, k)] += st[3]
        s.pids[pid] = (k, st[4])
    return s


def cpu_between(a, b):
    """{kind: CPU seconds} used between samples a and b (b later)."""
    out = {}
    for k in KINDS:
        d = (b.own[k] + b.children[k]) - (a.own[k] + a.children[k])
        out[k] = max(0.0, d / CLK_TCK)
    return out


def memory(sample):
    """{kind: PSS in KiB} of the processes of a sample (from
    smaps_rollup), and the total."""
    out = dict.fromkeys(KINDS, 0)
    for pid, (kind, _) in sample.pids.items():
        try:
            with open("/proc/%d/smaps_rollup" % pid) as f:
                for line in f:
                    if line.startswith("Pss:"):
                        out[kind] += int(line.split()[1])
                        break
        except (OSError, ValueError):
            continue
    return out


def tmpfs_used_kib(path):
    try:
        st = os.statvfs(path)
    except OSError:
        return None
    return (st.f_blocks - st.f_bfree) * st.f_frsize // 1024


def meminfo():
    out = {}
    try:
        with open("/proc/meminfo") as f:
            for line in f:
                k, v = line.split(":", 1)
                out[k] = int(v.split()[0])
    except OSError:
        pass
    return out

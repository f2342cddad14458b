#!/usr/bin/python3
"""Figures of the agent's cost on an idle, connected device (scripts/bench.sh).

Everything runs inside the simulated device (device/), against the bundled
device server listening in the device's gateway namespace:

1. CPU time of the agent per minute of real time while it is connected and
   idle (no requests), with the maintenance timer ticking and status
   updates going out at a short period: once with remote access closed and
   once with it open (the timer's expiry check then asks the session check
   at every tick).  Read on the host side from /proc/PID/stat of the agent
   process: its own user+system time, and apart from it the user+system
   time of the commands it ran and waited for (the children figures).
2. The commands the timer and the status thread run, each started directly
   inside the same device as the agent starts it (`/bin/sh -c LINE`),
   several times: user+system and wall time of the whole process, so the
   agent's own work can be told from the cost of the commands it runs.
3. Resident and private memory of the agent (VmRSS; Private_Clean +
   Private_Dirty of smaps_rollup) once connected, and again after an
   hour's worth of timer ticks.  The timer waits with select(); a small
   preloaded library built here shortens those waits (and only those), so
   the ticks of an hour pass in minutes, and counts them.
4. Threads, descriptors and memory over an hour of a busy connection, over
   ws:// and over wss://: the timer's 3600 ticks, status periods of 10 s
   (at least 360), every minute a batch of requests, every five minutes
   the connection dropped and the next upgrades refused with HTTP 401 and
   503.  The waits are shortened alike (the tick library above, and
   tests/e2e/shims/periodshim.c for the status period and the
   reconnection back-off) and the commands run at every tick, update and
   request (uci get of the settings, date, free) are answered by small
   scripts, as in the end-to-end suite test_resource_bounds.py: the hour
   passes in minutes and costs the agent's own work.  A row of figures
   every ten minutes of the device's time; the threads and descriptors of
   a row are the lowest over a second (the idle agent), "(most)" the
   highest thread count seen since the last row.

Only figures are printed; nothing is judged.
"""
import argparse
import collections
import datetime
import http
import os
import platform
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = os.path.abspath(os.path.join(os.path.dirname(os.path.abspath(__file__)), ".."))
for extra in (os.path.join(ROOT, "device"), os.path.join(ROOT, "server"),
              os.path.join(ROOT, "tests", "e2e")):
    if extra not in sys.path:
        sys.path.insert(0, extra)

import simnet  # noqa: E402
from simdevice import Device  # noqa: E402
from simgateway import UpnpGateway  # noqa: E402
from conftest import MAC, Agent, device_server  # noqa: E402
from device_server import DeviceServer  # noqa: E402
import test_resource_bounds as soak  # noqa: E402

CLK_TCK = os.sysconf("SC_CLK_TCK")
ACCESS_TIMEOUT = 86400      # seconds the opened remote access stays valid

# The command lines as the agent hands them to /bin/sh (src/client/
# remote_access.cpp, src/client/status_updates.cpp, src/util/facts.cpp).
TICK_COMMANDS = [
    # the expiry check reads the open flag at every tick
    # (remote_access_timeout is 600 in the device's default configuration)
    ("uci get upnpc.http.enable | tr -d '\\n'", "closed"),
    # with remote access open, the session check follows it
    ("/usr/bin/lua /usr/sbin/session_timeout.lua %d | tr -d '\\n'" % ACCESS_TIMEOUT, "open"),
]
STATUS_COMMANDS = [
    "uci get korvatCloud.korvatCloud.auto_update | tr -d '\\n'",
    "grep 'cpu ' /proc/stat | awk '{idle=($5)} END {print idle}'",
    "grep 'cpu ' /proc/stat | awk '{ttl=($2+$3+$4+$5+$6+$7+$8+$9+$10)} END {print ttl}'",
    "date +'%Y-%m-%dT%H:%M:%S%z' | sed 's/[0-9][0-9]$/:&/'",
    "free | awk '/^Mem/ {print $4}' | tr -d '\\n'",
    "free | awk '/^Mem/ {print $3}' | tr -d '\\n'",
    "/usr/sbin/kapri_util.lua GetSysTxRx eth0 0 rx bytes | tr -d '\n'",
    "/usr/sbin/kapri_util.lua GetSysTxRx eth0 0 tx bytes | tr -d '\n'",
    "/usr/sbin/kapri_util.lua WifiInfo | tr -d '\n'",
]

# Preloaded into the agent for the memory run: select() with no descriptors
# (the timer's one-second wait) is counted into KC_TICK_COUNT_FILE ("TICKS
# UNTIL" on one line).  Once KC_TICK_GO_FILE exists and holds a number N,
# the next N such waits last KC_TICK_SCALE times as long; before and after
# them a wait is the C library's select(), as is every other select().
# LD_PRELOAD is dropped at load, so the commands the agent runs do not
# inherit it.
TICK_SHIM = r"""
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/select.h>
#include <time.h>
#include <unistd.h>

typedef int (*select_fn)(int, fd_set *, fd_set *, fd_set *, struct timeval *);
static select_fn s_select;
static double s_scale = 0.001;
static const char *s_go;
static long s_ticks;
static long s_until = -1;
static int s_fd = -1;

__attribute__((constructor)) static void tick_init(void)
{
    const char *text = getenv("KC_TICK_SCALE");
    if (text != NULL && text[0] != '\0')
        s_scale = atof(text);
    s_go = getenv("KC_TICK_GO_FILE");
    text = getenv("KC_TICK_COUNT_FILE");
    if (text != NULL && text[0] != '\0')
        s_fd = open(text, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    s_select = (select_fn)dlsym(RTLD_NEXT, "select");
    unsetenv("LD_PRELOAD");
}

static void counted(void)
{
    s_ticks++;
    if (s_fd >= 0) {
        char line[64];
        int len = snprintf(line, sizeof line, "%20ld %20ld\n", s_ticks, s_until);
        if (pwrite(s_fd, line, (size_t)len, 0) < 0) {
            /* best effort */
        }
    }
}

static void checkGo(void)
{
    if (s_until >= 0 || s_go == NULL || s_go[0] == '\0')
        return;
    int fd = open(s_go, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    char text[32];
    ssize_t n = read(fd, text, sizeof text - 1);
    close(fd);
    if (n > 0) {
        text[n] = '\0';
        s_until = s_ticks + atol(text);
    }
}

/* only the timer thread waits this way: no other thread touches the state */
int select(int nfds, fd_set *r, fd_set *w, fd_set *e, struct timeval *tv)
{
    if (nfds != 0 || r != NULL || w != NULL || e != NULL || tv == NULL)
        return s_select(nfds, r, w, e, tv);
    checkGo();
    if (s_until < 0 || s_ticks >= s_until) {
        int ret = s_select(nfds, r, w, e, tv);
        if (ret == 0)
            counted();
        return ret;
    }
    double total = ((double)tv->tv_sec + tv->tv_usec / 1e6) * s_scale;
    struct timespec ts;
    ts.tv_sec = (time_t)total;
    ts.tv_nsec = (long)((total - (double)ts.tv_sec) * 1e9);
    if (nanosleep(&ts, NULL) != 0)
        return -1; /* EINTR, as select() reports a signal */
    counted();
    return 0;
}
"""


# ---- reading the agent from the host side ----------------------------------

def agent_pid(device, timeout=15.0):
    """Host pid of the agent process inside the device."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        found = device.find("korvat-cloud")
        if found:
            return found[0]["host_pid"]
        time.sleep(0.05)
    raise RuntimeError("korvat-cloud is not running in the device")


def cpu_times(pid):
    """(own user+system, waited-for children's user+system) in seconds."""
    with open("/proc/%d/stat" % pid) as f:
        text = f.read()
    fields = text[text.rindex(")") + 2:].split()
    utime, stime, cutime, cstime = (int(x) for x in fields[11:15])
    return (utime + stime) / CLK_TCK, (cutime + cstime) / CLK_TCK


def memory_kb(pid):
    """(VmRSS, Private_Clean + Private_Dirty) in kB."""
    rss = private = 0
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith("VmRSS:"):
                rss = int(line.split()[1])
    with open("/proc/%d/smaps_rollup" % pid) as f:
        for line in f:
            if line.startswith(("Private_Clean:", "Private_Dirty:")):
                private += int(line.split()[1])
    return rss, private


def status_updates(server):
    return sum(1 for t in server.received_texts if '"method":"dsLogStatusUpdates"' in t)


def wait_until(test, timeout, what):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        value = test()
        if value:
            return value
        time.sleep(0.2)
    raise RuntimeError("timed out waiting for " + what)


def configure(device, period):
    device.uci_ok("set", "korvatCloud.korvatCloud.auto_update=%d" % period)
    device.uci_ok("commit", "korvatCloud")


def start_agent(device, agent_path, url, debug, env=None, preload=()):
    cmd = ["/usr/bin/korvat-cloud"] + (["-d"] if debug else []) + [url, MAC]
    proc = device.start(cmd, agent=agent_path, env=env or {}, preload=list(preload))
    return Agent(device, proc)


def settle(device, agent, server, period):
    """Connected, the timer running, the first status update sent."""
    server.wait_for_connection(timeout=20)
    agent.timer_tid()
    wait_until(lambda: status_updates(server) >= 1, period + 20, "the first status update")


# ---- 1. CPU while idle -----------------------------------------------------

def measure_cpu(device, agent, server, seconds, label):
    pid = agent_pid(device)
    journal_before = len(device.journal())
    updates_before = status_updates(server)
    own0, kids0 = cpu_times(pid)
    t0 = time.monotonic()
    time.sleep(seconds)
    own1, kids1 = cpu_times(pid)
    wall = time.monotonic() - t0
    if not agent.alive():
        raise RuntimeError("the agent ended during the measurement")
    journal = device.journal()[journal_before:]
    per_min = 60.0 / wall
    return {
        "label": label,
        "wall": wall,
        "own": (own1 - own0) * per_min,
        "children": (kids1 - kids0) * per_min,
        "updates": (status_updates(server) - updates_before) * per_min,
        "journal": {k: v * per_min for k, v in collections.Counter(journal).items()},
        "ticks": sum(1 for line in journal if line == "uci get upnpc.http.enable") * per_min,
    }


def open_remote_access(device, server):
    """Opens remote access as the server does; returns how it was opened."""
    reply = server.request("dxEnableRemoteWebUiAccess",
                           {"deviceId": MAC, "protocol": "http", "timeout": ACCESS_TIMEOUT},
                           timeout=60)
    if "result" not in reply.data:
        raise RuntimeError("enable refused: %s" % reply.raw)
    wait_until(lambda: device.uci_committed("upnpc.http.enable") == "1", 20,
               "upnpc.http.enable=1")
    wait_until(lambda: device.exists("/tmp/luci-sessions/external/record_file"), 20,
               "the session record")
    return "dxEnableRemoteWebUiAccess through the UPnP gateway, port %s" % \
        reply.data["result"]["port"]


def open_by_state(device):
    """Fallback without a gateway: the state the expiry check reads."""
    device.uci_ok("set", "upnpc.http.enable=1")
    device.uci_ok("set", "upnpc.http.ext_port=50000")
    device.uci_ok("commit", "upnpc")
    device.sh("mkdir -p /tmp/luci-sessions/external && "
              "touch /tmp/luci-sessions/external/record_file")
    return ("state written directly (upnpc.http.enable=1, session record; "
            "remote_access_timeout 600 of the default configuration)")


# ---- 2. the commands run directly -------------------------------------------

def time_command(argv, runs, warmup):
    """[(user+sys, wall)] of `runs` runs of argv after `warmup` uncounted ones;
    user+sys of the whole process and its waited-for children."""
    out = []
    null = [(os.POSIX_SPAWN_OPEN, 0, "/dev/null", os.O_RDONLY, 0),
            (os.POSIX_SPAWN_OPEN, 1, "/dev/null", os.O_WRONLY, 0),
            (os.POSIX_SPAWN_OPEN, 2, "/dev/null", os.O_WRONLY, 0)]
    for i in range(warmup + runs):
        t0 = time.monotonic()
        pid = os.posix_spawnp(argv[0], argv, os.environ, file_actions=null)
        _, status, usage = os.wait4(pid, 0)
        wall = time.monotonic() - t0
        if os.waitstatus_to_exitcode(status) != 0 and i == 0:
            print("   (exit status %d: %s)" % (os.waitstatus_to_exitcode(status), argv[-1]))
        if i >= warmup:
            out.append((usage.ru_utime + usage.ru_stime, wall))
    return out


def spread(values):
    return statistics.median(values), min(values), max(values)


def direct_commands(device, runs, warmup):
    """Median user+sys and wall of each command, with the cost of entering
    the device (a run of /bin/true the same way) apart."""
    rows = {}
    base = time_command(device.exec_argv(["/bin/true"]), runs, warmup)
    rows["(entering the device: /bin/true)"] = base
    for line, _ in TICK_COMMANDS:
        rows[line] = time_command(device.exec_argv(["/bin/sh", "-c", line]), runs, warmup)
    for line in STATUS_COMMANDS:
        rows[line] = time_command(device.exec_argv(["/bin/sh", "-c", line]), runs, warmup)
    return rows


# ---- 3. memory over an hour of ticks -----------------------------------------

def build_shim(workdir):
    src = os.path.join(workdir, "tickshim.c")
    so = os.path.join(workdir, "tickshim.so")
    with open(src, "w") as f:
        f.write(TICK_SHIM)
    cc = shutil.which("cc") or shutil.which("gcc")
    subprocess.run([cc, "-shared", "-fPIC", "-O2", "-o", so, src, "-ldl"], check=True)
    return so


def tick_count(device):
    """(ticks so far, tick at which the shortened ticks end or -1)."""
    words = (device.read_file("/tmp/bench_ticks") or "").split()
    if len(words) != 2:
        return 0, -1
    return int(words[0]), int(words[1])


def measure_memory(args, workdir):
    shim = build_shim(workdir)
    with Device() as device:
        configure(device, args.status_period)
        server = device_server(device, ping_interval=20.0, echo=False)
        server.start()
        try:
            env = {"KC_TICK_SCALE": str(args.tick_scale),
                   "KC_TICK_COUNT_FILE": "/tmp/bench_ticks",
                   "KC_TICK_GO_FILE": "/tmp/bench_go"}
            agent = start_agent(device, args.agent, server.url, args.debug, env, [shim])
            settle(device, agent, server, args.status_period)
            pid = agent_pid(device)
            start_ticks, _ = tick_count(device)
            start_mem = memory_kb(pid)
            start_updates = status_updates(server)
            journal_start = len(device.journal())
            t0 = time.monotonic()
            device.write_file("/tmp/bench_go", "%d\n" % args.ticks)
            last = -1
            while True:
                n, until = tick_count(device)
                if until >= 0 and n >= until:
                    break
                if not agent.alive():
                    raise RuntimeError("the agent ended during the memory run")
                if time.monotonic() - t0 > args.memory_timeout:
                    raise RuntimeError("only %d ticks in %d s" % (n, args.memory_timeout))
                if n // 600 != last:
                    last = n // 600
                    print("   ... tick %d, %.0f s" % (n, time.monotonic() - t0), flush=True)
                time.sleep(0.5)
            wall = time.monotonic() - t0
            end_mem = memory_kb(pid)
            end_ticks, _ = tick_count(device)
            journal_ticks = sum(1 for line in device.journal()[journal_start:]
                                if line == "uci get upnpc.http.enable")
            updates = status_updates(server) - start_updates
            connections = len(server.connections)
        finally:
            server.stop()
    return {"start": start_mem, "end": end_mem, "start_ticks": start_ticks,
            "end_ticks": end_ticks, "journal_ticks": journal_ticks, "wall": wall,
            "updates": updates, "connections": connections}


# ---- 4. threads, descriptors and memory over a busy hour --------------------

LONG_MINUTES = 60
LONG_REQUESTS_PER_MINUTE = 20       # every tenth a dxGetAbout
LONG_RECONNECT_EVERY = 5            # minutes
LONG_REFUSALS = (401, 503, 401, 503)
LONG_STATUS_PERIOD = 10             # seconds (auto_update)
LONG_REPORT_EVERY = 10              # minutes


class RefusingServer(DeviceServer):
    """The device server, answering the next upgrades with plain HTTP
    statuses while refuse() has some left."""

    def __init__(self, *args, **kw):
        super().__init__(*args, **kw)
        self.to_refuse = []
        self.refused = 0

    def refuse(self, statuses):
        self.to_refuse.extend(statuses)

    async def _process_request(self, path, headers):
        if self.to_refuse:
            status = self.to_refuse.pop(0)
            self.refused += 1
            return (http.HTTPStatus(status), [("Content-Length", "0")], b"")
        return await super()._process_request(path, headers)


def long_run(args, workdir, tls):
    """Rows of figures over the hour, one every LONG_REPORT_EVERY minutes."""
    tick_shim = build_shim(workdir)
    period_shim = os.path.join(workdir, "periodshim.so")
    cc = shutil.which("cc") or shutil.which("gcc")
    subprocess.run([cc, "-shared", "-fPIC", "-O2", "-o", period_shim, soak.SHIM_SRC, "-ldl"],
                   check=True)
    with Device() as device:
        soak.fast_tools(device, auto_update=LONG_STATUS_PERIOD, conn_retry=10)
        server = RefusingServer(host=device.net.gateway_ip, netns=device.net.gateway_ns,
                                ping_interval=20.0, echo=False, tls=tls)
        server.start()
        try:
            env = soak.soak_env(args.long_period_scale)
            # ticks and status periods shortened alike: the device's time
            # runs args.long_period_scale times as fast as real time
            env.update({"KC_TICK_SCALE": str(args.long_period_scale),
                        "KC_TICK_COUNT_FILE": "/tmp/bench_ticks",
                        "KC_TICK_GO_FILE": "/tmp/bench_go"})
            agent = start_agent(device, args.agent, server.url, args.debug, env,
                                [tick_shim, period_shim])
            server.wait_for_connection(timeout=20)
            agent.timer_tid()
            wait_until(lambda: status_updates(server) >= 1,
                       LONG_STATUS_PERIOD * args.long_period_scale + 30, "the first status update")
            try:
                return LongRun(args, device, server, agent).run()
            except Exception:
                print("   the agent's last lines:")
                print("\n".join("   | " + line for line in agent.out.lines[-80:]))
                raise
        finally:
            server.stop()


class LongRun(object):
    """The hour, minute by minute: requests, reconnections, the device's
    ticks and status periods."""

    def __init__(self, args, device, server, agent):
        self.args = args
        self.device = device
        self.server = server
        self.agent = agent
        self.fig = soak.Figures(agent)
        self.start_ticks, _ = tick_count(device)
        self.start_periods = soak.periods(device)
        self.requests = 0
        self.reconnections = 0
        self.t0 = time.monotonic()
        self.rows = []

    def row(self, minute, most_threads):
        # the idle figures: the lowest over a moment (an update or a
        # command may be running)
        threads, fds = self.fig.steady(1.0)
        rss, _ = memory_kb(self.fig.pid)
        dirty, clean = self.fig.memory()
        ticks, _ = tick_count(self.device)
        self.rows.append({
            "minute": minute, "ticks": ticks - self.start_ticks,
            "periods": soak.periods(self.device) - self.start_periods,
            "updates": status_updates(self.server), "requests": self.requests,
            "reconnections": self.reconnections, "refused": self.server.refused,
            "threads": threads, "most_threads": most_threads, "fds": fds,
            "rss": rss, "dirty": dirty, "clean": clean,
            "wall": time.monotonic() - self.t0})

    def minute(self, minute):
        for n in range(LONG_REQUESTS_PER_MINUTE):
            rid = "m%d-%d" % (minute, n)
            if n % 10 == 9:
                self.server.request("dxGetAbout", {"deviceId": MAC}, id=rid, timeout=60)
            else:
                self.server.request("dxNoSuchMethod", {"deviceId": MAC}, id=rid, timeout=60)
            self.requests += 1
        if minute % LONG_RECONNECT_EVERY == 0:
            self.server.refuse(LONG_REFUSALS)
            self.server.drop()
            self.server.wait_for_connection(timeout=60)
            self.reconnections += 1
        # the device's minute has passed: its ticks and status periods
        wait_until(lambda: tick_count(self.device)[0] - self.start_ticks >= minute * 60 and
                   soak.periods(self.device) - self.start_periods >=
                   minute * 60 // LONG_STATUS_PERIOD,
                   self.args.memory_timeout, "minute %d" % minute)
        if not self.agent.alive():
            raise RuntimeError("the agent ended during the long run")

    def run(self):
        self.row(0, self.fig.threads())
        # every tick of the run shortened (and a few more: the last row)
        self.device.write_file("/tmp/bench_go", "%d\n" % (self.args.long_minutes * 60 + 600))
        with self.fig:
            for minute in range(1, self.args.long_minutes + 1):
                self.minute(minute)
                if minute % LONG_REPORT_EVERY == 0:
                    self.row(minute, max(self.fig.samples))
                    print("   ... minute %d, %.0f s" % (minute, time.monotonic() - self.t0),
                          flush=True)
        return self.rows


def report_long(args, label, rows):
    print("   %s; a status period lasts %.2f s, a tick's wait %.3g s" % (
        label, LONG_STATUS_PERIOD * args.long_period_scale, args.long_period_scale))
    print("   %6s %6s %7s %7s %8s %6s %7s %7s %7s %4s %7s %7s %7s %6s" % (
        "minute", "ticks", "periods", "updates", "requests", "reconn", "refused",
        "threads", "(most)", "fds", "VmRSS", "p.dirty", "p.clean", "wall s"))
    for r in rows:
        print("   %6d %6d %7d %7d %8d %6d %7d %7d %7d %4d %7d %7d %7d %6.0f" % (
            r["minute"], r["ticks"], r["periods"], r["updates"], r["requests"],
            r["reconnections"], r["refused"], r["threads"], r["most_threads"], r["fds"],
            r["rss"], r["dirty"], r["clean"], r["wall"]))
    first, last = rows[1] if len(rows) > 1 else rows[0], rows[-1]
    print("   from minute %d to %d: private dirty %+d kB, VmRSS %+d kB, descriptors %+d, "
          "threads %+d" % (first["minute"], last["minute"], last["dirty"] - first["dirty"],
                           last["rss"] - first["rss"], last["fds"] - first["fds"],
                           last["threads"] - first["threads"]))


# ---- the run ----------------------------------------------------------------

def fmt_ms(seconds):
    return "%7.1f" % (seconds * 1000)


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--agent", default=os.environ.get("KC_AGENT") or
                    os.path.join(ROOT, "build", "korvat-cloud"))
    ap.add_argument("--seconds", type=float, default=60,
                    help="real time of each CPU measurement (default 60)")
    ap.add_argument("--status-period", type=int, default=10,
                    help="korvatCloud.korvatCloud.auto_update during the run (default 10)")
    ap.add_argument("--runs", type=int, default=5,
                    help="counted runs of each command run directly (default 5)")
    ap.add_argument("--ticks", type=int, default=3600,
                    help="timer ticks of the memory run (default 3600, an hour)")
    ap.add_argument("--tick-scale", type=float, default=0.001,
                    help="length of a shortened tick in seconds of the wait (default 0.001)")
    ap.add_argument("--memory-timeout", type=int, default=3600,
                    help="seconds the memory run may take at most (default 3600)")
    ap.add_argument("--state-only", action="store_true",
                    help="open remote access by writing its state, without the UPnP gateway")
    ap.add_argument("--debug", action="store_true", help="run the agent with -d")
    ap.add_argument("--long-period-scale", type=float, default=0.03,
                    help="the long run's waits (ticks, status periods) as a share of their "
                         "length (default 0.03: a status period of 10 s lasts 0.3 s)")
    ap.add_argument("--long-minutes", type=int, default=LONG_MINUTES,
                    help="minutes of the device's time in the long run (default %d)" % LONG_MINUTES)
    ap.add_argument("--long-transports", default="ws,wss",
                    help="transports of the long run: ws, wss or both (default ws,wss)")
    ap.add_argument("--skip", default="",
                    help="comma-separated parts to leave out: cpu,commands,memory,long")
    args = ap.parse_args()
    skip = set(filter(None, args.skip.split(",")))
    if not os.path.isfile(args.agent):
        sys.exit("no agent binary at %s" % args.agent)

    load = open("/proc/loadavg").read().split()[:3]
    print("korvat-cloud benchmark, %s" % datetime.datetime.now().strftime("%Y-%m-%d %H:%M"))
    print("machine: %s, %d cores, load average %s at the start" % (
        platform.machine(), os.cpu_count(), " ".join(load)))
    print("agent: %s%s; status updates every %d s; server pings every 20 s" % (
        args.agent, " (-d)" if args.debug else "", args.status_period))
    print(flush=True)

    workdir = tempfile.mkdtemp(prefix="korvat-bench.")
    try:
        results = []
        rows = None
        if not ({"cpu", "commands"} <= skip):
            results, rows, how = cpu_and_commands(args, workdir, skip)
            if "cpu" not in skip:
                report_cpu(args, results, how)
            if rows is not None:
                report_commands(args, rows, results)
        if "memory" not in skip:
            print("3. Memory of the agent (kB), before and after %d timer ticks" % args.ticks)
            mem = measure_memory(args, workdir)
            report_memory(args, mem)
            print()
        if "long" not in skip:
            print("4. Threads, descriptors and memory (kB) over %d minutes: %d requests a "
                  "minute, every %d minutes the connection dropped and %s refused" % (
                      args.long_minutes, LONG_REQUESTS_PER_MINUTE, LONG_RECONNECT_EVERY,
                      "/".join(str(x) for x in LONG_REFUSALS)), flush=True)
            for transport in filter(None, args.long_transports.split(",")):
                rows = long_run(args, workdir, tls=(transport == "wss"))
                report_long(args, transport + "://", rows)
    finally:
        shutil.rmtree(workdir, ignore_errors=True)
    return 0


def cpu_and_commands(args, workdir, skip):
    net = simnet.DeviceNet(wan=not args.state_only)
    device = Device(net=net)
    gateway = None
    results, rows, how = [], None, ""
    try:
        if not args.state_only:
            try:
                gateway = UpnpGateway(net, workdir).start()
            except Exception as exc:  # noqa: BLE001 - fall back, and say so
                print("(no UPnP gateway: %s; remote access is opened by its state)" % exc)
                gateway = None
        configure(device, args.status_period)
        server = device_server(device, ping_interval=20.0, echo=False)
        server.start()
        try:
            agent = start_agent(device, args.agent, server.url, args.debug)
            settle(device, agent, server, args.status_period)
            if "cpu" not in skip:
                print("   measuring %.0f s with remote access closed ..." % args.seconds, flush=True)
                results.append(measure_cpu(device, agent, server, args.seconds, "remote access closed"))
                how = open_remote_access(device, server) if gateway else open_by_state(device)
                time.sleep(2)
                print("   measuring %.0f s with remote access open ..." % args.seconds, flush=True)
                results.append(measure_cpu(device, agent, server, args.seconds, "remote access open"))
                if device.uci_committed("upnpc.http.enable") != "1":
                    print("   (remote access was closed again during the measurement)")
        finally:
            device.stop()
            server.stop()
        if "commands" not in skip:
            # the same device, the agent gone: only the commands run
            device.start(["/bin/sleep", "100000"], stdout=subprocess.DEVNULL,
                         stderr=subprocess.DEVNULL)
            device.sandbox_pid()
            print("   timing the commands directly ...", flush=True)
            rows = direct_commands(device, args.runs, 1)
            device.stop()
    finally:
        if gateway is not None:
            gateway.stop()
        device.close()
        net.close()
    print()
    return results, rows, how


def report_cpu(args, results, how):
    print("1. Agent CPU time per minute, connected and idle (%.0f s each; /proc/PID/stat)" % args.seconds)
    print("   %-22s %12s %16s %10s %14s" % ("", "agent itself", "commands it ran",
                                         "ticks/min", "updates/min"))
    for r in results:
        print("   %-22s %10.3f s %14.3f s %10.1f %14.1f" % (
            r["label"], r["own"], r["children"], r["ticks"], r["updates"]))
    if results:
        print("   remote access opened by: %s" % how)
        print("   device tools started per minute (the device's journal):")
        keys = sorted(set().union(*(r["journal"] for r in results)))
        for key in keys:
            print("   %s  %s" % ("  ".join("%6.1f" % r["journal"].get(key, 0) for r in results), key))
        print("   (columns: %s)" % ", ".join(r["label"] for r in results))
    print()


def report_commands(args, rows, results):
    print("2. The same commands run directly in the device (/bin/sh -c LINE, "
          "%d runs after a warm-up;" % args.runs)
    print("   ms of user+system of the whole process and what it waited for, and wall ms: "
          "median [min-max])")
    base_cpu = statistics.median(c for c, _ in rows["(entering the device: /bin/true)"])
    net_cpu = {}
    for line, samples in rows.items():
        cpu = spread([c for c, _ in samples])
        wall = spread([w for _, w in samples])
        net_cpu[line] = max(cpu[0] - base_cpu, 0.0)
        print("   cpu %s [%s-%s]  wall %s [%s-%s]  %s" % (
            fmt_ms(cpu[0]), fmt_ms(cpu[1]).strip(), fmt_ms(cpu[2]).strip(),
            fmt_ms(wall[0]), fmt_ms(wall[1]).strip(), fmt_ms(wall[2]).strip(),
            line.replace("\n", "\\n")))
    per_update = sum(net_cpu[line] for line in STATUS_COMMANDS)
    per_tick_closed = net_cpu[TICK_COMMANDS[0][0]]
    per_tick_open = per_tick_closed + net_cpu[TICK_COMMANDS[1][0]]
    print("   less the cost of entering the device: a status update's commands %.1f ms, "
          "a tick's %.1f ms closed, %.1f ms open" % (
              per_update * 1000, per_tick_closed * 1000, per_tick_open * 1000))
    for r, tick in zip(results, (per_tick_closed, per_tick_open)):
        estimate = r["ticks"] * tick + r["updates"] * per_update
        print("   %-22s commands at the measured rates: %.3f s a minute "
              "(the agent's children figure: %.3f s, its own: %.3f s)" % (
                  r["label"], estimate, r["children"], r["own"]))
    print()


def report_memory(args, mem):
    print("   %-34s %10s %10s" % ("", "VmRSS", "private"))
    print("   %-34s %10d %10d" % ("connected, timer started (tick %d)" % mem["start_ticks"],
                                  mem["start"][0], mem["start"][1]))
    print("   %-34s %10d %10d" % ("after tick %d" % mem["end_ticks"], mem["end"][0], mem["end"][1]))
    print("   %-34s %+10d %+10d" % ("difference", mem["end"][0] - mem["start"][0],
                                    mem["end"][1] - mem["start"][1]))
    print("   ticks between the readings: %d counted by the wait shim (%d shortened to %.3g s "
          "of waiting), %d expiry checks in the device's journal" % (
              mem["end_ticks"] - mem["start_ticks"], args.ticks, args.tick_scale,
              mem["journal_ticks"]))
    print("   in %.0f s of real time, with %d status updates sent (every %d s) and %d connection(s)"
          % (mem["wall"], mem["updates"], args.status_period, mem["connections"]))


if __name__ == "__main__":
    sys.exit(main())

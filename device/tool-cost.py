#!/usr/bin/python3
"""CPU cost of the simulated device's tools, as the agent pays it.

Starts a device (no agent: its main process only waits) and runs, inside
it, each command line N times in a row from one `/bin/sh` loop, several
times over.  A call's cost is user+system time of everything it takes:

- the caller's side: the loop's process and every process it waited for
  (the shell of the command line, the tool, the rest of the pipeline),
  read with wait4() on the host, less the same loop with `:` as the
  command (entering the device and the loop itself);
- the tool server's side, when the device has one (README, "Tool cost"):
  user+system time of the device's tool servers and of the processes they
  waited for, read from /proc/PID/stat on the host before and after the
  loop.

The command lines are those of scripts/bench.py: `uci get
upnpc.http.enable` (alone and as the maintenance timer runs it every
second) and the nine of a status update.  Prints the median over the
runs; judges nothing.

    device/tool-cost.py [--calls N] [--runs R] [--direct]

--direct runs every tool as its own Python program (SIMDEVICE_TOOLSERVER=0,
no tool server), as every call ran before the server.
"""
import argparse
import os
import platform
import statistics
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
sys.path.insert(0, HERE)
sys.path.insert(0, os.path.join(ROOT, "scripts"))

from simdevice import Device  # noqa: E402
from bench import STATUS_COMMANDS, TICK_COMMANDS  # noqa: E402

CLK_TCK = os.sysconf("SC_CLK_TCK")
UCI_GET = "uci get upnpc.http.enable"


def server_cpu(device):
    """{host pid: user+system of it and its waited-for children, seconds}
    of the device's tool servers."""
    out = {}
    for p in device.processes():
        if not any(a.endswith("toolserver.py") for a in p["cmdline"]):
            continue
        try:
            with open("/proc/%d/stat" % p["host_pid"]) as f:
                fields = f.read().rsplit(")", 1)[1].split()
        except OSError:
            continue
        out[p["host_pid"]] = sum(int(x) for x in fields[11:15]) / CLK_TCK
    return out


def run_loop(device, line, calls, env):
    """(caller's user+sys, servers' user+sys, wall) of one loop, seconds."""
    script = ("i=0; while [ $i -lt %d ]; do { %s ; } >/dev/null; "
              "i=$((i+1)); done" % (calls, line))
    argv = device.exec_argv(["/bin/sh", "-c", script], env=env)
    null = [(os.POSIX_SPAWN_OPEN, 0, "/dev/null", os.O_RDONLY, 0),
            (os.POSIX_SPAWN_OPEN, 1, "/dev/null", os.O_WRONLY, 0),
            (os.POSIX_SPAWN_OPEN, 2, "/dev/null", os.O_WRONLY, 0)]
    before = server_cpu(device)
    t0 = time.monotonic()
    pid = os.posix_spawnp(argv[0], argv, os.environ, file_actions=null)
    _, status, usage = os.wait4(pid, 0)
    wall = time.monotonic() - t0
    after = server_cpu(device)
    if status != 0:
        raise RuntimeError("the loop of %r ended with status %d"
                           % (line, os.waitstatus_to_exitcode(status)))
    served = sum(v - before.get(k, 0.0) for k, v in after.items())
    return usage.ru_utime + usage.ru_stime, served, wall


def measure(device, lines, calls, runs, env):
    """{line: [(caller ms, server ms, wall ms) per call, one per run]}"""
    rows = {line: [] for line in lines}
    for line in lines:  # warm-up: the server starts, caches fill
        r = device.exec(["/bin/sh", "-c", line], env=env)
        if r.returncode != 0 or not r.stdout.strip() or r.stderr:
            raise RuntimeError("%r: status %d, output %r, errors %r"
                               % (line, r.returncode, r.stdout, r.stderr))
        run_loop(device, line, 2, env)
    for _ in range(runs):
        base = run_loop(device, ":", calls, env)
        for line in lines:
            cpu, served, wall = run_loop(device, line, calls, env)
            rows[line].append(((cpu - base[0]) * 1000 / calls,
                               served * 1000 / calls,
                               (wall - base[2]) * 1000 / calls))
    return rows


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--calls", type=int, default=20,
                    help="calls of each command per loop (default 20)")
    ap.add_argument("--runs", type=int, default=5,
                    help="loops of each command (default 5); medians print")
    ap.add_argument("--direct", action="store_true",
                    help="no tool server: every tool a Python program")
    args = ap.parse_args()
    env = {"SIMDEVICE_TOOLSERVER": "0"} if args.direct else None
    tick = [line for line, when in TICK_COMMANDS if when == "closed"]
    lines = [UCI_GET] + tick + STATUS_COMMANDS
    with open("/proc/loadavg") as f:
        load = " ".join(f.read().split()[:3])
    print("tool cost, %s, %s, %d cores, load average %s%s"
          % (time.strftime("%Y-%m-%d %H:%M"), platform.node(),
             os.cpu_count(), load, ", direct" if args.direct else ""))
    print("median ms per call over %d loops of %d calls" % (args.runs,
                                                           args.calls))
    with Device() as dev:
        dev.start(["/bin/sleep", "100000"])
        if dev.sandbox_pid() is None:
            raise RuntimeError("the device did not start")
        rows = measure(dev, lines, args.calls, args.runs, env)
        dev.stop()
    print("%8s %8s %8s %8s  %s" % ("cpu", "caller", "server", "wall",
                                   "command"))
    total = [0.0, 0.0, 0.0, 0.0]
    for line in lines:
        caller = statistics.median(r[0] for r in rows[line])
        server = statistics.median(r[1] for r in rows[line])
        cpu = statistics.median(r[0] + r[1] for r in rows[line])
        wall = statistics.median(r[2] for r in rows[line])
        print("%8.1f %8.1f %8.1f %8.1f  %s" % (cpu, caller, server, wall,
                                               line.replace("\n", "\\n")))
        if line in STATUS_COMMANDS:
            for i, v in enumerate((cpu, caller, server, wall)):
                total[i] += v
    print("%8.1f %8.1f %8.1f %8.1f  %s" % tuple(total + [
        "one status update's %d commands (sum)" % len(STATUS_COMMANDS)]))
    with open("/proc/loadavg") as f:
        print("load average after: %s" % " ".join(f.read().split()[:3]))


if __name__ == "__main__":
    main()

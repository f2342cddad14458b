#!/usr/bin/busybox sh
''':'
# Shell first: inside a device the call goes through the compiled front
# end to the device's warm tool server (device/README.md, "Tool cost");
# elsewhere Python runs this file.
F=/simrun/.simtools/bin/${0##*/}
[ -x "$F" ] && exec -a /usr/bin/python3 "$F" -S "$0" "$@"
[ -r /simdevice/lib/toolfront.sh ] && . /simdevice/lib/toolfront.sh
exec /usr/bin/python3 -S "$0" "$@"
'''
# Multi-call program behind the simulated device tools (sntool, ifconfig, ip,
# free, top, reboot, killall, logread, logger, mount, umount, date, ps, ...).
# The tool is chosen by the name it was started under; every call appends one
# line to the journal; canned outputs can be replaced per run (simcommon).
import os
import signal
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.realpath(__file__)))
import simcommon  # noqa: E402
from simcommon import emit, journal  # noqa: E402

BUSYBOX = "/usr/bin/busybox"


def busybox(applet, args):
    """Run a BusyBox applet under its own name (as on the device, where the
    applets are links to busybox), falling back to `busybox applet`."""
    link = os.path.join(os.path.dirname(os.path.realpath(__file__)), "..",
                        "busybox", applet)
    if os.path.exists(link):
        os.execv(link, [applet] + list(args))
    os.execv(BUSYBOX, [applet] + list(args))


def committed_option(pkg, section, option, default):
    """Value of an option in the committed config (the running state)."""
    sys.path.insert(0, os.path.dirname(os.path.realpath(__file__)))
    from ucilib import Store, UciError
    try:
        conf = simcommon.device_path("/etc/config")
        pkgobj = Store(conf, "/nonexistent").load(pkg, with_delta=False)
        sec = pkgobj.find(section)
        val = sec.options.get(option) if sec else None
        return val if isinstance(val, str) and val else default
    except (UciError, OSError):
        return default


def lan():
    return (committed_option("network", "lan", "ipaddr", "192.168.1.2"),
            committed_option("network", "lan", "netmask", "255.255.255.0"),
            committed_option("network", "lan", "gateway", "192.168.1.1"))


def bcast(ip, mask):
    a = [int(x) for x in ip.split(".")]
    m = [int(x) for x in mask.split(".")]
    return ".".join(str((x & y) | (~y & 255)) for x, y in zip(a, m))


def ifconfig_text(name):
    if name == "lo":
        return ("lo        Link encap:Local Loopback  \n"
                "          inet addr:127.0.0.1  Mask:255.0.0.0\n"
                "          UP LOOPBACK RUNNING  MTU:65536  Metric:1\n"
                "          RX packets:1024 errors:0 dropped:0 overruns:0 frame:0\n"
                "          TX packets:1024 errors:0 dropped:0 overruns:0 carrier:0\n"
                "          collisions:0 txqueuelen:1000 \n"
                "          RX bytes:65536 (64.0 KiB)  TX bytes:65536 (64.0 KiB)\n\n")
    ip, mask, _ = lan()
    return ("%-10sLink encap:Ethernet  HWaddr 00:11:22:33:44:55  \n"
            "          inet addr:%s  Bcast:%s  Mask:%s\n"
            "          inet6 addr: fe80::211:22ff:fe33:4455/64 Scope:Link\n"
            "          UP BROADCAST RUNNING MULTICAST  MTU:1500  Metric:1\n"
            "          RX packets:123456 errors:0 dropped:0 overruns:0 frame:0\n"
            "          TX packets:65432 errors:0 dropped:0 overruns:0 carrier:0\n"
            "          collisions:0 txqueuelen:1000 \n"
            "          RX bytes:12345678 (11.7 MiB)  TX bytes:7654321 (7.2 MiB)\n\n"
            % (name, ip, bcast(ip, mask), mask))


def t_ifconfig(name, args):
    names = [a for a in args if not a.startswith("-")]
    if not names:
        return emit(name, args, lambda: ifconfig_text("br-lan") +
                    ifconfig_text("lo"))
    if names[0] not in ("br-lan", "eth0", "lo"):
        ov = simcommon.override(name, args)
        if ov is None:
            sys.stderr.write("ifconfig: %s: error fetching interface "
                             "information: Device not found\n" % names[0])
            return 1
    return emit(name, args, lambda: ifconfig_text(names[0]))


def t_ip(name, args):
    words = [a for a in args if not a.startswith("-")]
    if words and "route".startswith(words[0]) and words[0].startswith("r"):
        def route():
            ip, mask, gw = lan()
            bits = sum(bin(int(x)).count("1") for x in mask.split("."))
            net = ".".join(str(int(a) & int(b)) for a, b in
                           zip(ip.split("."), mask.split(".")))
            return ("default via %s dev br-lan  proto static \n"
                    "%s/%d dev br-lan  proto kernel  scope link  src %s \n"
                    % (gw, net, bits, ip))
        return emit(name, args, route)
    return emit(name, args, "")


FREE = ("              total        used        free      shared  buff/cache"
        "   available\n"
        "Mem:         126072       48440       55032        1180       22600"
        "       61636\n"
        "Swap:             0           0           0\n")

TOP = ("Mem: 71040K used, 55032K free, 1180K shrd, 4516K buff, 18084K cached\n"
       "CPU:  1.2% usr  0.8% sys  0.0% nic 97.5% idle  0.0% io  0.0% irq"
       "  0.3% sirq\n"
       "Load average: 0.25 0.20 0.18 2/45 1234\n"
       "  PID  PPID USER     STAT   VSZ %VSZ %CPU COMMAND\n"
       " 1234     1 root     S     3456   3%   1% /usr/bin/korvat-cloud\n"
       "    1     0 root     S     1520   1%   0% /sbin/procd\n")


def syslog_path():
    return os.path.join(simcommon.run_dir(), "syslog.log")


def t_logread(name, args):
    """BusyBox logread over the device's log buffer (RUN/syslog.log): plain
    prints the buffer; -f prints only what is logged from now on, as it
    arrives; -F prints the buffer first, then follows.  The call is
    journalled once the starting point is taken, so a line logged after
    the journal line shows is never missed by a follower."""
    follow = "-f" in args or "-F" in args
    dump = "-f" not in args
    path = syslog_path()
    ov = simcommon.override(name, [a for a in args if a not in ("-f", "-F")])
    if ov is not None or not dump:
        pos = os.path.getsize(path) if os.path.exists(path) else 0
    else:
        pos = 0
    journal(name, args)
    if ov is not None:
        os.write(1, ov[0])
        if not follow:
            return ov[1]
    out = sys.stdout.buffer
    while True:
        try:
            with open(path, "rb") as f:
                f.seek(pos)
                data = f.read()
        except OSError:
            data = b""
        if data:
            out.write(data)
            out.flush()
            pos += len(data)
        if not follow:
            return 0
        time.sleep(0.2)


LEVELS = ["emerg", "alert", "crit", "err", "warn", "notice", "info", "debug"]


def priority_name(text):
    """FACILITY.LEVEL of a logger -p value as BusyBox reads it: a pair as
    given; a level alone, by name or number (its low three bits), has the
    facility user."""
    if "." in text:
        return text
    if text.isdigit():
        return "user." + LEVELS[int(text) & 7]
    return "user." + text


def t_logger(name, args):
    """BusyBox logger: one log line per message ("Nov 15 23:12:24 VK310
    user.notice root: message"); without a message, one per line of
    standard input.  -t TAG (default: the user name, root), -p PRIO, -s
    (standard error as well)."""
    tag, prio, msg, rest, to_stderr = "root", "user.notice", [], list(args), False
    while rest:
        a = rest.pop(0)
        if a in ("-t", "-p") and rest:
            v = rest.pop(0)
            if a == "-t":
                tag = v
            else:
                prio = priority_name(v)
        elif a == "-s":
            to_stderr = True
        else:
            msg.append(a)
    if msg:
        messages = [" ".join(msg)]
    else:
        messages = [x for x in sys.stdin.read().split("\n") if x]
    lines = ""
    for text in messages:
        stamp = time.strftime("%b %e %H:%M:%S")
        lines += "%s %s %s %s: %s\n" % (stamp, hostname(), prio, tag, text)
        if to_stderr:
            sys.stderr.write("%s: %s\n" % (tag, text))
    # one write: a follower never sees half a line
    fd = os.open(syslog_path(), os.O_WRONLY | os.O_APPEND | os.O_CREAT, 0o644)
    try:
        os.write(fd, lines.encode("utf-8", "surrogateescape"))
    finally:
        os.close(fd)
    return emit(name, args, "")


# What a reboot takes, as on the device: `reboot` returns at once; init
# stops the services (REBOOT_SHUTDOWN seconds), sends SIGTERM to every
# process, waits REBOOT_GRACE seconds and sends SIGKILL.  The device (the
# sandbox) ends with its main process; the next start is a boot
# (simdevice.boot_if_rebooted).
REBOOT_SHUTDOWN = 2.0
REBOOT_GRACE = 1.0
REBOOT_MARKER = "reboot.pending"


def inside_device_pid_namespace():
    """True only inside the sandbox, whose pid 1 is bubblewrap's init: a
    signal to every process (-1) then reaches device processes only."""
    if os.environ.get("SIMDEVICE_RUN") or not os.path.isdir(
            simcommon.SANDBOX_RUN):
        return False
    try:
        with open("/proc/1/comm") as f:
            return f.read().strip() == "bwrap"
    except OSError:
        return False


def t_reboot(name, args):
    ov = simcommon.override(name, args)
    if ov is not None:  # an override replaces the reboot (record only)
        os.write(1, ov[0])
        return ov[1]
    if not inside_device_pid_namespace():
        sys.stderr.write("reboot: not inside a simulated device\n")
        return 1
    with open(os.path.join(simcommon.run_dir(), REBOOT_MARKER), "w") as f:
        f.write("%.3f\n" % time.time())
    child = os.fork()
    if child == 0:
        try:
            os.setsid()
            if os.fork() != 0:
                os._exit(0)
            null = os.open("/dev/null", os.O_RDWR)
            for fd in (0, 1, 2):
                os.dup2(null, fd)
            time.sleep(REBOOT_SHUTDOWN)
            os.kill(-1, signal.SIGTERM)  # every device process but this one
            time.sleep(REBOOT_GRACE)
            os.kill(-1, signal.SIGKILL)
        finally:
            os._exit(0)
    os.waitpid(child, 0)
    return 0


def hostname():
    try:
        return os.uname().nodename
    except OSError:
        return "VK310"


def flash_dir():
    d = os.path.join(simcommon.run_dir(), "flash")
    os.makedirs(d, exist_ok=True)
    return d


def mounts_file():
    return os.path.join(simcommon.run_dir(), "mounts.sim")


def sim_mounts():
    try:
        with open(mounts_file()) as f:
            return [x for x in f.read().split("\n") if x]
    except OSError:
        return []


def t_mount(name, args):
    pos = [a for i, a in enumerate(args) if not a.startswith("-") and
           not (i > 0 and args[i - 1] in ("-t", "-o"))]
    if not pos:
        busybox("mount", args)
    fstype = args[args.index("-t") + 1] if "-t" in args[:-1] else ""
    target = pos[-1]
    dev = pos[0] if len(pos) > 1 else ""
    ov = simcommon.override(name, args)
    if ov is not None:
        os.write(1, ov[0])
        return ov[1]
    if fstype == "jffs2" or dev.startswith("/dev/mtdblock"):
        real = simcommon.device_path(target)
        if not os.path.isdir(real):
            sys.stderr.write("mount: mounting %s on %s failed: No such file "
                             "or directory\n" % (dev, target))
            return 255
        if target in sim_mounts():
            sys.stderr.write("mount: mounting %s on %s failed: Device or "
                             "resource busy\n" % (dev, target))
            return 255
        import shutil  # here only: every device command starts this program
        src = flash_dir()
        for f in os.listdir(src):
            shutil.copy2(os.path.join(src, f), os.path.join(real, f))
        with open(mounts_file(), "a") as f:
            f.write(target + "\n")
        return 0
    sys.stderr.write("mount: mounting %s on %s failed: Operation not "
                     "permitted\n" % (dev, target))
    return 255


def t_umount(name, args):
    pos = [a for a in args if not a.startswith("-")]
    ov = simcommon.override(name, args)
    if ov is not None:
        os.write(1, ov[0])
        return ov[1]
    if not pos or pos[0].rstrip("/") not in sim_mounts():
        sys.stderr.write("umount: can't unmount %s: Invalid argument\n"
                         % (pos[0] if pos else ""))
        return 1
    target = pos[0].rstrip("/")
    import shutil
    real, dst = simcommon.device_path(target), flash_dir()
    for f in os.listdir(dst):
        os.unlink(os.path.join(dst, f))
    for f in os.listdir(real):
        p = os.path.join(real, f)
        if os.path.isfile(p):
            shutil.copy2(p, os.path.join(dst, f))
            os.unlink(p)
        elif os.path.isdir(p):
            shutil.rmtree(p)
    with open(mounts_file(), "w") as f:
        f.write("".join(m + "\n" for m in sim_mounts() if m != target))
    return 0


def t_session_timeout(name, args):
    def verdict():
        timeout = int(args[0]) if args and args[0].lstrip("-").isdigit() else 0
        rec = simcommon.device_path("/tmp/luci-sessions/external/record_file")
        try:
            age = time.time() - os.stat(rec).st_mtime
        except OSError:
            return "0\n"
        return "1\n" if timeout > 0 and age > timeout else "0\n"
    return emit(name, args, verdict)


def main():
    name = os.path.basename(sys.argv[0])
    args = sys.argv[1:]
    if name == "sim-service":  # /etc/init.d scripts: sim-service "$0" args
        name, args = os.path.basename(args[0]), args[1:]
    if name == "lua":  # interpreter: run the (simulated) script itself
        if not args:
            sys.stderr.write("lua: no script given\n")
            return 1
        os.execv(args[0], args)
    if name == "logread":  # journals once it has taken its start
        return t_logread(name, args)
    journal(name, args)
    if name == "reboot":
        return t_reboot(name, args)
    if name in ("date", "ps"):
        busybox(name, args)
    if name == "killall":
        ov = simcommon.override(name, args)
        if ov is not None:
            os.write(1, ov[0])
            return ov[1]
        busybox("killall", args)
    simple = {"sntool": "7K2X9Q3\n", "free": FREE, "top": TOP}
    if name in simple:
        return emit(name, args, simple[name])
    table = {"ifconfig": t_ifconfig, "ip": t_ip, "logger": t_logger,
             "mount": t_mount, "umount": t_umount,
             "session_timeout.lua": t_session_timeout}
    if name in table:
        return table[name](name, args)
    # halt, poweroff, luci-reload, udhcpc, upnpc-static, cli.sh, service
    # scripts: recorded only (plus any per-run override).
    return emit(name, args, "")


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (BrokenPipeError, KeyboardInterrupt):
        sys.exit(1)

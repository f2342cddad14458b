"""Memory of the emulated agent (footprint.sh), in two states:

1. started, no server to be reached: the agent is up and retrying its
   first connection (nothing listens at the URL it was given);
2. connected and idle: it has answered a ping and a request and has been
   left alone for a few seconds.

The MIPS agent (KC_AGENT) runs under qemu-mips in the simulated device
(SIMDEVICE_TARGET=mips) against the bundled device server, and its memory
is read from the host's /proc/PID/smaps.

qemu-user keeps the guest's whole 2 GiB address space in one host range
(guest_base, from qemu's "page" log) and its own code and data elsewhere.
The guest's figures are therefore the mappings inside that range:
resident is the sum of their Rss, private the sum of Private_Clean and
Private_Dirty (as scripts/bench.sh reads the host build's), dirty the
Private_Dirty alone, virtual the sizes of the accessible mappings.  On the
device the clean pages of the shared libraries are shared with the other
processes that use them; here nothing else maps the MIPS libraries, so
their clean pages count as private: the dirty figure is the part that is
the agent's own on the device too.  The emulator process as a whole is
shown for reference only.
"""
import os
import re
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
TOP = os.path.dirname(HERE)
sys.path[:0] = [os.path.join(TOP, "device"), os.path.join(TOP, "server")]

from simdevice import Device, TARGET  # noqa: E402
from device_server import DeviceServer  # noqa: E402

IDLE_SECONDS = 5
MAC = "00:11:22:33:44:55"
PAGE_LOG = "/tmp/qemu-page.log"
ENV = {"QEMU_LOG": "page", "QEMU_LOG_FILENAME": PAGE_LOG}


def guest_range(log_text):
    """(host address, size) of the guest's address space.  qemu 7 logs its
    reservation; qemu 10 only where the guest space starts (0: guest
    addresses are host addresses), and a 32-bit guest's space then ends at
    4 GiB, below qemu's own mappings."""
    m = re.search(r"pgb_reserved_va: base @ (0x[0-9a-f]+|[0-9a-f]+) for (\d+) bytes",
                  log_text)
    if m:
        return int(m.group(1), 16), int(m.group(2))
    m = re.search(r"Locating guest address space @ (0x[0-9a-f]+)", log_text)
    if m:
        return int(m.group(1), 16), 1 << 32
    raise SystemExit("qemu page log has no guest base:\n" + log_text[:500])


def smaps(pid):
    """[{start, end, perms, path, Rss, Private_Clean, Private_Dirty}] of
    the host process pid (sizes in KiB)."""
    out = []
    with open("/proc/%d/smaps" % pid) as f:
        for line in f:
            head = re.match(r"([0-9a-f]+)-([0-9a-f]+) (\S+) \S+ \S+ \S+\s*(.*)$",
                            line)
            if head:
                out.append({"start": int(head.group(1), 16),
                            "end": int(head.group(2), 16),
                            "perms": head.group(3), "path": head.group(4),
                            "Rss": 0, "Private_Clean": 0, "Private_Dirty": 0})
                continue
            key, _, rest = line.partition(":")
            if key in ("Rss", "Private_Clean", "Private_Dirty") and out:
                out[-1][key] = int(rest.split()[0])
    return out


def status(pid, key):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith(key + ":"):
                return line.split(":", 1)[1].strip()
    return "?"


def part_name(path):
    """What a guest mapping belongs to: the binary, a library, or the
    anonymous rest (heap, stacks, qemu's guest-side areas)."""
    if not path or path.startswith("["):
        return "anonymous (heap, thread stacks)"
    return os.path.basename(path)


def measure(device):
    """Figures of the running agent's guest mappings."""
    proc = device.find("korvat-cloud")[0]
    pid = proc["host_pid"]
    base, size = guest_range(device.read_file(PAGE_LOG) or "")
    total = {"rss": 0, "private": 0, "dirty": 0, "virtual": 0}
    parts = {}
    for m in smaps(pid):
        if m["start"] < base or m["end"] > base + size:
            continue
        private = m["Private_Clean"] + m["Private_Dirty"]
        total["rss"] += m["Rss"]
        total["private"] += private
        total["dirty"] += m["Private_Dirty"]
        if m["perms"] != "---p":
            total["virtual"] += (m["end"] - m["start"]) // 1024
        part = parts.setdefault(part_name(m["path"]), [0, 0, 0])
        part[0] += m["Rss"]
        part[1] += private
        part[2] += m["Private_Dirty"]
    total["threads"] = len(proc["threads"])
    total["parts"] = parts
    total["host_rss"] = status(pid, "VmRSS")
    total["host_size"] = status(pid, "VmSize")
    return total


def wait_for(test, timeout, what):
    deadline = time.monotonic() + timeout
    while not test():
        if time.monotonic() > deadline:
            raise SystemExit("footprint: %s did not happen in %d s" % (what, timeout))
        time.sleep(0.1)


def state(device):
    return (device.read_file("/tmp/cloud_conn_state") or "").strip()


def main():
    if TARGET != "mips":
        raise SystemExit("run through target/footprint.sh (SIMDEVICE_TARGET=mips)")
    agent = os.environ["KC_AGENT"]
    figures = []
    with Device() as device, DeviceServer(
            ping_interval=None, echo=False, host=device.net.gateway_ip,
            netns=device.net.gateway_ns) as server:
        # 1. nothing listens on the gateway's port 9: the agent retries
        device.start_agent(agent, "ws://%s:9/" % device.net.gateway_ip, MAC,
                           debug=False, env=ENV)
        wait_for(lambda: device.find("korvat-cloud") and state(device) == "0",
                 60, "the agent's start")
        time.sleep(IDLE_SECONDS)
        figures.append(("started, no server reached", measure(device)))
        device.stop()

        # 2. connected, a ping and a request answered, then idle
        device.start_agent(agent, server.url, MAC, debug=False, env=ENV)
        conn = server.wait_for_connection(60)
        server.ping("footprint", conn=conn)
        reply = server.request("dxGetAbout", {"deviceId": MAC}, conn=conn, timeout=30)
        assert "result" in reply.data, reply.raw
        wait_for(lambda: state(device) == "1", 10, "connection state 1")
        time.sleep(IDLE_SECONDS)
        figures.append(("connected, idle", measure(device)))

    print("memory (KiB; guest mappings under qemu-mips, %d s after the state "
          "was reached):" % IDLE_SECONDS)
    print("    %-28s %9s %9s %9s %9s" % ("", "resident", "private", "dirty",
                                         "virtual"))
    for name, f in figures:
        print("    %-28s %9d %9d %9d %9d" % (name, f["rss"], f["private"],
                                             f["dirty"], f["virtual"]))
    connected = figures[-1][1]
    print("connected, idle, by part (KiB):")
    print("    %-34s %9s %9s %9s" % ("", "resident", "private", "dirty"))
    for name, (rss, private, dirty) in sorted(
            connected["parts"].items(), key=lambda kv: -kv[1][0]):
        print("    %-34s %9d %9d %9d" % (name, rss, private, dirty))
    print("threads (connected): %d in the emulator process (the agent's own "
          "and qemu's)" % connected["threads"])
    print("emulator process, for reference (connected): VmRSS %s, VmSize %s"
          % (connected["host_rss"], connected["host_size"]))


if __name__ == "__main__":
    main()

"""Memory of the emulated agent when idle and connected (footprint.sh).

The MIPS agent (KC_AGENT) runs under qemu-mips in the simulated device
(SIMDEVICE_TARGET=mips) against the bundled device server.  Once it is
connected and has answered a ping and a request, it is left idle for a few
seconds and its memory is read from the host's /proc/PID/smaps.

qemu-user keeps the guest's whole 2 GiB address space in one host range
(guest_base, from qemu's "page" log) and its own code and data elsewhere.
The guest's figures are therefore the mappings inside that range: resident
memory is the sum of their Rss, virtual memory the sum of their sizes
without inaccessible (---p) areas, which on the host also stand for the
unused part of the reservation.  The emulator process as a whole is shown
for reference only.
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


def guest_range(log_text):
    m = re.search(r"pgb_reserved_va: base @ (0x[0-9a-f]+|[0-9a-f]+) for (\d+) bytes",
                  log_text)
    if not m:
        raise SystemExit("qemu page log has no guest base:\n" + log_text[:500])
    return int(m.group(1), 16), int(m.group(2))


def smaps(pid):
    """[(start, end, perms, rss_kib)] of the host process pid."""
    out = []
    with open("/proc/%d/smaps" % pid) as f:
        for line in f:
            head = re.match(r"([0-9a-f]+)-([0-9a-f]+) (\S+)", line)
            if head:
                out.append([int(head.group(1), 16), int(head.group(2), 16),
                            head.group(3), 0])
            elif line.startswith("Rss:"):
                out[-1][3] = int(line.split()[1])
    return out


def status(pid, key):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith(key + ":"):
                return line.split(":", 1)[1].strip()
    return "?"


def main():
    if TARGET != "mips":
        raise SystemExit("run through target/footprint.sh (SIMDEVICE_TARGET=mips)")
    agent = os.environ["KC_AGENT"]
    with Device() as device, DeviceServer(
            ping_interval=None, echo=False, host=device.net.gateway_ip,
            netns=device.net.gateway_ns) as server:
        env = {"QEMU_LOG": "page", "QEMU_LOG_FILENAME": "/tmp/qemu-page.log"}
        device.start_agent(agent, server.url, MAC, debug=False, env=env)
        conn = server.wait_for_connection(60)
        server.ping("footprint", conn=conn)
        reply = server.request("dxGetAbout", {"deviceId": MAC}, conn=conn, timeout=30)
        assert "result" in reply.data, reply.raw
        deadline = time.monotonic() + 10
        while (device.read_file("/tmp/cloud_conn_state") or "").strip() != "1":
            if time.monotonic() > deadline:
                raise SystemExit("agent never reported the connection")
            time.sleep(0.1)
        time.sleep(IDLE_SECONDS)
        proc = device.find("korvat-cloud")[0]
        pid = proc["host_pid"]
        base, size = guest_range(device.read_file("/tmp/qemu-page.log") or "")
        rss = vsz = 0
        for start, end, perms, rss_kib in smaps(pid):
            if start >= base and end <= base + size:
                rss += rss_kib
                if perms != "---p":
                    vsz += (end - start) // 1024
        threads = len(proc["threads"])
        print("memory, idle and connected (guest mappings under qemu-mips, "
              "%d s idle):" % IDLE_SECONDS)
        print("    resident:      %d KiB" % rss)
        print("    virtual:       %d KiB (accessible mappings)" % vsz)
        print("    threads:       %d in the emulator process (the agent's "
              "five plus qemu's own)" % threads)
        print("emulator process, for reference: VmRSS %s, VmSize %s"
              % (status(pid, "VmRSS"), status(pid, "VmSize")))


if __name__ == "__main__":
    main()

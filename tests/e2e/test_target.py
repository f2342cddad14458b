"""The build under test is the one the suite claims to test.

With SIMDEVICE_TARGET=mips (target/test-target.sh) the agent must be the
32-bit big-endian MIPS binary, and it must really run emulated inside the
simulated device while keeping its own process name (the agent and the
tests find it as "korvat-cloud").  The host build is checked to be a native
binary, so a suite run never silently tests the wrong program.
"""
import os
import platform
import shutil
import struct
import subprocess

import pytest

from conftest import AGENT, wait_for
from simdevice import TARGET

EM_MIPS = 8
EM_X86_64 = 62


def elf_header(path):
    """(class bits, byte order, machine) from the ELF header of path."""
    with open(path, "rb") as f:
        ident = f.read(20)
    assert ident[:4] == b"\x7fELF", "%s is not an ELF file" % path
    bits = {1: 32, 2: 64}[ident[4]]
    order = {1: "little", 2: "big"}[ident[5]]
    machine = struct.unpack(">H" if order == "big" else "<H", ident[18:20])[0]
    return bits, order, machine


def test_agent_binary_is_built_for_the_suite_target():
    bits, order, machine = elf_header(AGENT)
    if TARGET == "mips":
        assert (bits, order, machine) == (32, "big", EM_MIPS)
        if shutil.which("file"):
            text = subprocess.run(["file", "-L", AGENT], check=True, text=True,
                                  stdout=subprocess.PIPE).stdout
            assert "ELF 32-bit MSB" in text and "MIPS" in text, text
    else:
        assert TARGET == "", "unknown SIMDEVICE_TARGET %r" % TARGET
        if platform.machine() != "x86_64":
            pytest.skip("native check written for x86-64 hosts")
        assert (bits, order, machine) == (64, "little", EM_X86_64)


def host_parent(host_pid):
    """The host pid of a process's parent (None once it is gone)."""
    try:
        with open("/proc/%d/stat" % host_pid) as f:
            return int(f.read().rsplit(")", 1)[1].split()[1])
    except (OSError, IndexError, ValueError):
        return None


def named_agents(device):
    """The device's processes named korvat-cloud, less the agent's own
    children: a child the agent forks for a command keeps the agent's name
    until its exec (a window that qemu makes wide), and its parent is then
    a process of that name too."""
    found = device.find("korvat-cloud")
    named = {p["host_pid"] for p in found}
    return [p for p in found if host_parent(p["host_pid"]) not in named]


# "busybox pidof korvat-cloud" as the agent's own "killall" finds it, with
# each pid's parent (the fourth field of /proc/PID/stat; a child that has
# ended meanwhile is left out)
PIDOF_WITH_PARENTS = ('for p in $(busybox pidof korvat-cloud); do '
                      'set -- $(cat /proc/$p/stat 2>/dev/null) && echo "$1 $4"; done')


def named_agents_inside(device):
    """In-device pids found by name inside the device, less those whose
    parent was found by that name too (the agent's children before their
    exec)."""
    rows = [line.split() for line in device.sh(PIDOF_WITH_PARENTS).stdout.splitlines()]
    named = {pid for pid, _ in rows}
    return sorted(int(pid) for pid, parent in rows if parent not in named)


def test_agent_runs_emulated_under_its_own_name(connected, device):
    if TARGET != "mips":
        pytest.skip("host build: runs natively (target/test-target.sh "
                    "runs the suite under qemu-mips)")
    agent, _ = connected
    found = named_agents(device)
    assert len(found) == 1, device.processes()
    exe = os.path.basename(os.readlink("/proc/%d/exe" % found[0]["host_pid"]))
    assert exe.startswith("qemu-mips"), exe
    # Found by name inside the device, as the agent's own "killall" does.
    assert named_agents_inside(device) == [found[0]["pid"]]


def test_a_child_that_keeps_the_agents_name_is_not_taken_for_the_agent(device, tmp_path):
    """What the check above relies on, shown natively: a stand-in agent
    (a script, so its name is korvat-cloud) with a forked child that keeps
    that name is found once, by the host and inside the device."""
    stand_in = tmp_path / "korvat-cloud"
    # the child, a subshell, never execs; both also fork "sleep" children,
    # each named korvat-cloud until its exec
    stand_in.write_text("#!/bin/sh\n(while :; do sleep 1; done) &\nwhile :; do sleep 1; done\n")
    stand_in.chmod(0o755)
    device.start(["/usr/bin/korvat-cloud"], agent=str(stand_in))
    assert wait_for(lambda: len(device.find("korvat-cloud")) >= 2, 10), device.processes()

    def entered():
        # Device.exec may take the sandbox's descriptors before its root is
        # in place when the command starts this fast (nsenter then finds no
        # /usr/bin/setpriv, for the life of the device): taken again then
        if device.sh("true").returncode == 0:
            return True
        device._release_enter()
        return False
    assert wait_for(entered, 10)
    parent = named_agents(device)
    assert len(parent) == 1, parent
    assert named_agents_inside(device) == [parent[0]["pid"]]
    # ... where the name alone gives more
    assert len(device.find("korvat-cloud")) >= 2
    assert len(device.sh("busybox pidof korvat-cloud").stdout.split()) >= 2

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

from conftest import AGENT
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


def test_agent_runs_emulated_under_its_own_name(connected, device):
    if TARGET != "mips":
        pytest.skip("host build: runs natively (target/test-target.sh "
                    "runs the suite under qemu-mips)")
    agent, _ = connected
    found = device.find("korvat-cloud")
    assert len(found) == 1, device.processes()
    exe = os.path.basename(os.readlink("/proc/%d/exe" % found[0]["host_pid"]))
    assert exe.startswith("qemu-mips"), exe
    # Found by name inside the device, as the agent's own "killall" does.
    out = device.sh("busybox pidof korvat-cloud").stdout.split()
    assert out == [str(found[0]["pid"])]

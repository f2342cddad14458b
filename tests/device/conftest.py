# Fixtures of the simulated-device tests: a fresh device per test, cleaned up
# (sandbox killed, run directory removed) afterwards.
import os
import sys

import pytest

DEVICE_DIR = os.path.join(os.path.dirname(os.path.abspath(__file__)),
                          "..", "..", "device")
sys.path.insert(0, os.path.abspath(DEVICE_DIR))

import simdevice  # noqa: E402


def pytest_sessionstart(session):
    # The simulated device makes namespaces and mounts: without root the
    # suite is skipped, with the reason (status 77, which CTest reports as
    # skipped).
    if os.geteuid() != 0:
        pytest.exit("skipped: the simulated device needs root (namespaces, "
                    "mounts); run the suite as root", returncode=77)


@pytest.fixture
def device():
    d = simdevice.Device()
    yield d
    d.close()


def run_sh(device, script, timeout=30, **kw):
    """Run a shell script as the device; returns (status, stdout, stderr)."""
    p = device.start(["/bin/sh", "-c", script], **kw)
    out, err = p.communicate(timeout=timeout)
    device.stop()
    return p.returncode, out.decode(), err.decode()

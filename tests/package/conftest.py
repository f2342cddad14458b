# Fixtures of the package tests: a fresh simulated device with the package
# installed (pkgsupport.AccessPoint), running, per test.  The device needs
# root: without it those tests are skipped with the reason, and a run whose
# tests all needed the device ends with status 77 (skipped for CTest).
import os
import sys

import pytest

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from pkgsupport import AccessPoint  # noqa: E402

IS_ROOT = os.geteuid() == 0
NEEDS_ROOT = ("needs root (the simulated device's namespaces and mounts); "
              "run the suite as root")
SERVER_URL = "wss://cloud.example.net/device"


def pytest_configure(config):
    config.addinivalue_line("markers", "root: the test needs root")


def _needs_root(item):
    return bool(item.get_closest_marker("root") or
                {"ap", "fresh_ap"} & set(getattr(item, "fixturenames", ())))


def pytest_collection_modifyitems(config, items):
    config._kc_all_root = bool(items) and all(_needs_root(i) for i in items)
    if not IS_ROOT:
        for item in items:
            if _needs_root(item):
                item.add_marker(pytest.mark.skip(reason=NEEDS_ROOT))


def pytest_sessionfinish(session, exitstatus):
    if (not IS_ROOT and exitstatus == 0 and
            getattr(session.config, "_kc_all_root", False)):
        session.exitstatus = 77


@pytest.fixture
def fresh_ap(tmp_path):
    """The device with the package as installed: default configuration
    (no server URL)."""
    a = AccessPoint(str(tmp_path))
    a.boot()
    yield a
    a.close()


@pytest.fixture
def ap(fresh_ap):
    """The device once a server URL has been set (SERVER_URL)."""
    fresh_ap.configure(server_url=SERVER_URL)
    return fresh_ap

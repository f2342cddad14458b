"""Shared fixtures for the tests of the test device server and raw peer."""
import os
import sys

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
for sub in (os.path.join(HERE, "..", "..", "server"), os.path.join(HERE, "..", "e2e"), HERE):
    if sub not in sys.path:
        sys.path.insert(0, sub)

import device_server  # noqa: E402
import tlscert  # noqa: E402


@pytest.fixture(scope="session")
def cert_dir(tmp_path_factory):
    path = str(tmp_path_factory.mktemp("cert"))
    tlscert.make_self_signed(path)
    return path


@pytest.fixture
def server():
    srv = device_server.DeviceServer(ping_interval=None, url_path="dev")
    srv.start()
    yield srv
    srv.stop()

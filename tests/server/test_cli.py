"""Tests of the device server's command line (the demonstration tour)."""
import os
import subprocess
import time

import pytest

from fakeagent import FakeAgent, MAC

SERVER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..",
                      "server", "device_server.py")


def _start(tmp_path, *args):
    url_file = tmp_path / "url"
    proc = subprocess.Popen(["/usr/bin/python3", SERVER, "--url-file", str(url_file)] + list(args),
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    deadline = time.time() + 10
    while not (url_file.exists() and url_file.read_text().endswith("\n")):
        assert time.time() < deadline and proc.poll() is None, "server did not start"
        time.sleep(0.05)
    return proc, url_file.read_text().strip()


@pytest.mark.parametrize("tls", [False, True])
def test_tour_once(tmp_path, tls):
    args = ["--tour", "--once", "--ping-interval", "0.5", "--timeout", "20"]
    proc, url = _start(tmp_path, *(args + (["--tls"] if tls else [])))
    assert url.startswith("wss://" if tls else "ws://")
    agent = FakeAgent(url).connect()
    out, _ = proc.communicate(timeout=30)
    agent.close()
    assert proc.returncode == 0, out
    assert "origin=%s" % MAC in out
    assert ('--> {"jsonrpc":"2.0","id":"1","method":"dxGetAbout","params":{"deviceId":"%s"}}'
            % MAC) in out
    assert '<-- {"jsonrpc":"2.0","id":"1","result":{"deviceId":"%s"' % MAC in out
    assert '<-- {"jsonrpc":"2.0","id":"2","error":{"code":-32601' in out
    assert '--> {"jsonrpc":"2.0","id":"3","method":"dxGetAbout"}' in out
    assert '<-- {"jsonrpc":"2.0","id":"3","error":{"code":-32600' in out
    assert "< RECV PONG" in out and "tour complete" in out


def test_tour_times_out_without_agent(tmp_path):
    proc, _ = _start(tmp_path, "--tour", "--once", "--timeout", "1")
    out, _ = proc.communicate(timeout=20)
    assert proc.returncode != 0, out
    assert "tour failed" in out


def test_tour_fails_without_replies(tmp_path):
    proc, url = _start(tmp_path, "--tour", "--once", "--timeout", "2")
    agent = FakeAgent(url, answer=False).connect()
    out, _ = proc.communicate(timeout=20)
    agent.close()
    assert proc.returncode != 0, out

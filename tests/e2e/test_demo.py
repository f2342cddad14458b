"""The README's demonstration: one tour (--once) in which the agent in the
simulated device answers the bundled device server and reports itself
connected, and the endless run that Ctrl-C ends."""
import os
import pty
import select
import signal
import subprocess
import time

import pytest

from conftest import AGENT, ROOT


@pytest.mark.parametrize("extra", [[], ["--tls"]], ids=["ws", "wss"])
def test_demo_tour_runs_once_and_exits_0(extra):
    env = dict(os.environ, KC_AGENT=AGENT)
    proc = subprocess.run([os.path.join(ROOT, "scripts", "demo.sh"), "--once"] + extra,
                          env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          timeout=120)
    out = proc.stdout.decode("utf-8", "replace")
    assert proc.returncode == 0, out[-3000:]
    assert "[agent] Recieved text frame: 90" in out
    assert "[agent] Sending text frame:" in out
    assert '"method":"\x1b[1;33mdxGetAbout\x1b[m"' in out
    assert ('[server] <-- {"jsonrpc":"2.0","id":"2","error":{"code":-32601,'
            '"message":"The method is not available","data":""}}') in out
    assert "[agent] Command handler not yet implemented for: dxNoSuchMethod" in out
    assert "[device] /tmp/cloud_conn_state = 1" in out
    assert "[device] connection state reached 1 during the tour" in out
    assert "demo: tour complete" in out


def _read_until(fd, buf, done, timeout):
    """Read the terminal fd into buf until done(buf) or timeout; returns
    whether done(buf) held.  EOF ends the wait too."""
    deadline = time.monotonic() + timeout
    while not done(buf):
        left = deadline - time.monotonic()
        if left <= 0:
            return False
        r, _, _ = select.select([fd], [], [], min(left, 0.2))
        if not r:
            continue
        try:
            data = os.read(fd, 65536)
        except OSError:  # EIO: the terminal's last user has gone
            return done(buf)
        if not data:
            return done(buf)
        buf += data
    return True


def _processes_mentioning(text):
    found = []
    for pid in os.listdir("/proc"):
        if not pid.isdigit():
            continue
        try:
            with open("/proc/%s/cmdline" % pid, "rb") as f:
                if text.encode() in f.read():
                    found.append(int(pid))
        except OSError:
            pass
    return found


def test_demo_runs_until_ctrl_c_and_leaves_nothing_behind(tmp_path):
    """Without --once the demo keeps running; Ctrl-C on its terminal ends
    it, together with the device server and the agent it started."""
    env = dict(os.environ, KC_AGENT=AGENT, TMPDIR=str(tmp_path))
    pid, fd = pty.fork()
    if pid == 0:
        try:
            signal.signal(signal.SIGINT, signal.SIG_DFL)
            os.execve(os.path.join(ROOT, "scripts", "demo.sh"), ["demo.sh"], env)
        finally:
            os._exit(127)
    buf = bytearray()
    try:
        connected = _read_until(
            fd, buf, lambda b: b"[device] /tmp/cloud_conn_state = 1" in b, 60)
        assert connected, bytes(buf[-3000:]).decode("utf-8", "replace")
        # still running well after the tour's requests were answered: the
        # server keeps pinging and the agent keeps answering
        pongs = bytes(buf).count(b" RECV PONG")
        assert _read_until(fd, buf, lambda b: bytes(b).count(b" RECV PONG") >= pongs + 2, 15), \
            bytes(buf[-3000:]).decode("utf-8", "replace")
        assert os.waitpid(pid, os.WNOHANG) == (0, 0)
        assert _processes_mentioning(str(tmp_path)), "server not found"
        os.write(fd, b"\x03")
        _read_until(fd, buf, lambda b: False, 20)
        deadline = time.monotonic() + 10
        while True:
            done, status = os.waitpid(pid, os.WNOHANG)
            if done or time.monotonic() > deadline:
                break
            time.sleep(0.1)
        out = bytes(buf[-3000:]).decode("utf-8", "replace")
        assert done == pid, "demo still running after Ctrl-C:\n" + out
        pid = 0
        assert os.WIFEXITED(status) and os.WEXITSTATUS(status) == 130, (status, out)
        assert _processes_mentioning(str(tmp_path)) == []
        assert os.listdir(tmp_path) == []
    finally:
        if pid:
            os.kill(pid, signal.SIGKILL)
            os.waitpid(pid, 0)
        os.close(fd)

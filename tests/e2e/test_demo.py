"""The README's demonstration, run once: the agent in the simulated device
answers the bundled device server's tour and reports itself connected."""
import os
import subprocess

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

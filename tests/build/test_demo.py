"""scripts/demo.sh when the agent cannot run: the demo ends at once with
the agent's last lines instead of waiting out the device server's 300 s
time-out.  A stand-in agent (a shell script, run as /usr/bin/korvat-cloud
inside the simulated device like the real one) prints two lines and
exits."""
import os
import subprocess

import pytest

from conftest import ROOT

STAND_IN = """#!/bin/sh
echo "stand-in agent: started with $*"
echo "stand-in agent: cannot go on"
exit 3
"""


@pytest.mark.root
@pytest.mark.parametrize("flags", [["--once"], []])
def test_demo_ends_with_the_agents_last_lines_when_it_dies(open_tmp, flags):
    # (where the device's unprivileged user can read it)
    agent = os.path.join(open_tmp, "korvat-cloud")
    with open(agent, "w") as f:
        f.write(STAND_IN)
    os.chmod(agent, 0o755)
    # The bound is the device server's own time-out (300 s), which the demo
    # used to wait out; ending well before it is the behaviour under test.
    r = subprocess.run([os.path.join(ROOT, "scripts", "demo.sh")] + flags,
                       env=dict(os.environ, KC_AGENT=agent),
                       stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                       text=True, timeout=240)
    lines = r.stdout.splitlines()
    assert r.returncode == 1, r.stdout
    assert "[device] the agent ended (status 3)" in lines
    at = lines.index("demo: the agent ended (status 3) before the tour was "
                     "complete; its last lines:")
    assert lines[at + 1].startswith("    stand-in agent: started with -d ws://")
    assert lines[at + 2] == "    stand-in agent: cannot go on"
    assert lines[at + 3] == "demo: tour FAILED"
    assert "demo: tour complete" not in lines

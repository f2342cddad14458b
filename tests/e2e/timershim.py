"""The timer shim (shims/timershim.c) for the suites that count the
maintenance timer's ticks or the status periods.

    agent = start_shimmed(server.url, hold=3599)   # fixture
    ticks = Ticks(device)
    ticks.wait_held(3599)      # ticks 1..3599 ran, tick 3600 has not begun
    ticks.run_to(3600)         # one more tick, and held again
    periods(device)            # status periods asked for, in seconds

The shim is built beside fastsleep.so (KC_TIMERSHIM names it otherwise).
"""
import os
import time

import pytest

from conftest import AGENT, FASTSLEEP, MAC, TIMEOUT_SCALE, Agent, stop_agents

SHIM = os.environ.get("KC_TIMERSHIM") or os.path.join(os.path.dirname(FASTSLEEP),
                                                      "timershim.so")

TICK_FILE = "/tmp/kc_shim_ticks"
HOLD_FILE = "/tmp/kc_shim_hold"
PERIOD_LOG = "/tmp/kc_shim_periods"


class Ticks(object):
    """The timer's ticks as the shim counts and holds them."""

    def __init__(self, device):
        self.device = device

    def state(self):
        """(ticks ended, "run" or "held"), or (0, "") before the first."""
        words = (self.device.read_file(TICK_FILE) or "").split()
        if len(words) != 2:
            return 0, ""
        return int(words[0]), words[1]

    def hold_at(self, tick):
        self.device.write_file(HOLD_FILE, "%d\n" % tick)

    def wait_held(self, tick, timeout=60.0):
        """Waits until tick `tick` has run all its checks and the next tick
        waits for a release."""
        deadline = time.monotonic() + timeout * TIMEOUT_SCALE
        while time.monotonic() < deadline:
            if self.state() == (tick, "held"):
                return
            time.sleep(0.02)
        raise AssertionError("the timer is at %r, not held after tick %d"
                             % (self.state(), tick))

    def run_to(self, tick, timeout=60.0):
        self.hold_at(tick)
        self.wait_held(tick, timeout)

    def release(self):
        """Ticks go on at the C library's pace."""
        self.device.remove_file(HOLD_FILE)


def periods(device):
    """Seconds of every status period asked for so far, in order."""
    return [int(x) for x in (device.read_file(PERIOD_LOG) or "").split()]


@pytest.fixture
def start_shimmed(device, request):
    """start_shimmed(url, hold=None, period_scale=1.0, debug=True, env=None)

    The agent with the timer shim preloaded.  hold: the timer's ticks run
    at once up to that tick and wait there (Ticks.run_to goes on); None:
    ticks of one second, counted.  period_scale: the status periods last
    that many times as long.  Torn down as conftest's start_agent does."""
    started = []

    def start(url, hold=None, period_scale=1.0, debug=True, env=None):
        env = dict(env or {})
        env.update(KC_TICK_FILE=TICK_FILE, KC_TICK_HOLD=HOLD_FILE,
                   KC_PERIOD_LOG=PERIOD_LOG, KC_PERIOD_SCALE=repr(period_scale))
        env.setdefault("ASAN_OPTIONS", "verify_asan_link_order=0")
        if hold is not None:
            device.write_file(HOLD_FILE, "%d\n" % hold)
        cmd = ["/usr/bin/korvat-cloud"] + (["-d"] if debug else []) + [url, MAC]
        proc = device.start(cmd, agent=AGENT, env=env, preload=[SHIM])
        agent = Agent(device, proc)
        started.append(agent)
        return agent

    yield start
    stop_agents(device, started, request)

"""The agent's own settings as it loads them at start-up, and their
defaults: the time-sync period from "ts_autoUpdate" (counted in timer
ticks, which the timer shim runs at once up to a tick and holds there), the
remote-access timeout from "remote_access_timeout" (an agent started while
remote access is open keeps expiring it by that timeout; without the
option nothing expires), and the status period from "auto_update" (60 s
unless a positive number is set; a full status queue skips the period)."""
import re
import time

import pytest

from conftest import MAC, TIMEOUT_SCALE, settings, wait_for
from timershim import Ticks, periods, start_shimmed  # noqa: F401  (fixture)

# The hourly sync test runs more than 7,000 ticks: the server pings as a
# real one does, so that the connection stays up whatever the pace.
SERVER_PING_INTERVAL = 15

RECORD = "/tmp/luci-sessions/external/record_file"


def syncs(device):
    return [line for line in device.journal() if line == "luci-reload ntpclient"]


def expiry_checks(device):
    return [line for line in device.journal()
            if line == "uci get upnpc.http.enable" or line.startswith("session_timeout.lua")]


def open_remote_access(device, port):
    """The device as an earlier instance of the agent left it with remote
    access open."""
    device.uci_ok("set", "upnpc.http.enable=1")
    device.uci_ok("set", "upnpc.http.ext_port=%d" % port)
    device.uci_ok("commit", "upnpc")
    device.write_file(RECORD, "")


# ---- time synchronisation ----------------------------------------------------------------

def test_an_hourly_sync_set_in_uci_runs_at_ticks_3600_and_7200(device, server,
                                                                start_shimmed):
    # no remote-access check: a tick runs no device command at all
    settings(device, ts_autoUpdate="1_HOUR", remote_access_timeout=0)
    agent = start_shimmed(server.url, hold=3599)
    server.wait_for_connection(15)
    agent.out.wait_for("Load uci configurations to global variables...")
    assert "uci get korvatCloud.korvatCloud.ts_autoUpdate" in device.journal()
    ticks = Ticks(device)
    ticks.wait_held(3599)
    assert syncs(device) == []
    assert not device.exists("/tmp/ts_autoupdate")
    ticks.run_to(3600)
    assert syncs(device) == ["luci-reload ntpclient"]
    # with debug output, the time of each sync is noted first
    assert len(device.read_file("/tmp/ts_autoupdate").splitlines()) == 1
    journal = device.journal()
    assert journal.index("date") < journal.index("luci-reload ntpclient")
    ticks.run_to(7199)
    assert syncs(device) == ["luci-reload ntpclient"]
    ticks.run_to(7200)
    assert syncs(device) == ["luci-reload ntpclient"] * 2
    assert len(device.read_file("/tmp/ts_autoupdate").splitlines()) == 2


@pytest.mark.parametrize("name", ["NONE", "2_HOURS", "1_hour", None])
def test_none_an_unknown_name_or_no_name_never_syncs(device, server, start_shimmed, name):
    if name is None:
        device.uci_ok("delete", "korvatCloud.korvatCloud.ts_autoUpdate")
        device.uci_ok("commit", "korvatCloud")
    else:
        settings(device, ts_autoUpdate=name)
    settings(device, remote_access_timeout=0)
    start_shimmed(server.url, hold=3600)
    server.wait_for_connection(15)
    Ticks(device).wait_held(3600)
    assert syncs(device) == []
    assert not device.exists("/tmp/ts_autoupdate")


# ---- remote-access timeout ---------------------------------------------------------------

def test_access_left_open_expires_by_the_timeout_in_uci(device, server, start_agent):
    settings(device, remote_access_timeout=120)
    open_remote_access(device, 50123)
    device.set_output("session_timeout.lua", "0\n")
    agent = start_agent(server.url)
    server.wait_for_connection(15)
    # every tick asks the web interface with the loaded timeout, not 600
    assert device.wait_journal("session_timeout.lua 120", timeout=15)
    assert not [line for line in device.journal() if line == "session_timeout.lua 600"]
    assert device.uci_committed("upnpc.http.enable") == "1"
    device.set_output("session_timeout.lua", "1\n")
    # the session is over: the mapping goes (no gateway answers here) and
    # access is closed
    agent.out.wait_for(re.compile(r"delete upnp port\(50123\)\.$"), timeout=20)
    assert wait_for(lambda: device.uci_committed("upnpc.http.enable") == "0", 15)
    assert wait_for(lambda: not device.exists(RECORD), 15)
    assert not [line for line in device.journal() if line == "session_timeout.lua 600"]


def test_without_the_option_open_access_never_expires(device, server, start_shimmed):
    device.uci_ok("delete", "korvatCloud.korvatCloud.remote_access_timeout")
    device.uci_ok("commit", "korvatCloud")
    open_remote_access(device, 50123)
    device.set_output("session_timeout.lua", "1\n")
    agent = start_shimmed(server.url, hold=5)
    server.wait_for_connection(15)
    ticks = Ticks(device)
    ticks.wait_held(5)
    # five ticks ran their checks: the expiry check was not among them
    assert expiry_checks(device) == []
    assert device.uci_committed("upnpc.http.enable") == "1"
    assert device.exists(RECORD)
    # an enable request sets a timeout (even one that finds no gateway):
    # from then on every tick checks the session with it
    reply = server.request("dxEnableRemoteWebUiAccess",
                           {"deviceId": MAC, "protocol": "http", "timeout": 30},
                           id="e", timeout=30)
    assert reply.data["error"]["code"] == 10100
    ticks.run_to(6)
    assert expiry_checks(device) == ["uci get upnpc.http.enable", "session_timeout.lua 30"]


# ---- status period -----------------------------------------------------------------------

# A status period lasts this share of its seconds: 60 s pass in 1.2 s.
PERIOD_SCALE = 0.02


@pytest.mark.parametrize("value", [None, "0", "-5", "abc"])
def test_without_a_positive_auto_update_the_period_is_60_seconds(device, server,
                                                                 start_shimmed, value):
    if value is None:
        device.uci_ok("delete", "korvatCloud.korvatCloud.auto_update")
        device.uci_ok("commit", "korvatCloud")
    else:
        settings(device, auto_update=value)
    start_shimmed(server.url, period_scale=PERIOD_SCALE)
    server.wait_for_connection(15)
    # the period read when the status thread starts, and read again by the
    # update: the periods before and after it
    server.next_message(40, method="dsLogStatusUpdates")
    seen = len(periods(device))
    assert wait_for(lambda: len(periods(device)) >= seen + 2, 30)
    assert set(periods(device)) == {60}


def test_a_positive_auto_update_is_the_period(device, server, start_shimmed):
    """The other side of the test above: the shim sees the period set."""
    settings(device, auto_update=7)
    start_shimmed(server.url, period_scale=PERIOD_SCALE)
    server.wait_for_connection(15)
    server.next_message(40, method="dsLogStatusUpdates")
    seen = len(periods(device))
    assert wait_for(lambda: len(periods(device)) >= seen + 2, 30)
    assert set(periods(device)) == {7}


UPDATE_STARTS = r"\]\[LINE 120\]: << pthread create and start >>$"
UPDATE_ENDS = r"\]\[LINE 272\]: << pthread exit >>$"


def test_a_full_status_queue_skips_the_period(device, server, start_shimmed):
    settings(device, auto_update=1, conn_retry=1)
    agent = start_shimmed(server.url, period_scale=0.5)
    server.wait_for_connection(15)
    server.next_message(40, method="dsLogStatusUpdates")
    # what the agent sends from now on waits in its queues
    server.pause()
    server.drop()
    agent.out.wait_for(re.compile(r"\] ACK close\.$"), timeout=10)
    cut = len(agent.out.lines)

    def counts():
        return (len(agent.out.matching(UPDATE_STARTS)), len(agent.out.matching(UPDATE_ENDS)))

    # the sending thread holds one update, ten fill the queue; then the
    # periods go by without an update being gathered, and none is left
    # waiting for room in the queue
    quiet = {"since": None, "starts": None}

    def queue_full_and_skipping():
        starts, ends = counts()
        if starts != quiet["starts"]:
            quiet.update(starts=starts, since=len(periods(device)))
            return False
        after_cut = sum(1 for line in agent.out.lines[cut:] if re.search(UPDATE_ENDS, line))
        return (after_cut >= 10 and starts == ends and
                len(periods(device)) >= quiet["since"] + 6)

    assert wait_for(queue_full_and_skipping, 120), (
        "update threads started %d, ended %d" % counts())
    after_cut = sum(1 for line in agent.out.lines[cut:] if re.search(UPDATE_ENDS, line))
    assert after_cut <= 11
    # the updates that waited go out once the server is back
    server.resume()
    server.wait_for_connection(30)
    got = [server.next_message(30, method="dsLogStatusUpdates") for _ in range(10)]
    assert all(m.data["params"]["deviceId"] == MAC for m in got)

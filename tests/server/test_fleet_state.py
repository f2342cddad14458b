"""The device server's fleet features (server/devserver/fleet.py): state kept
per device by MAC across connections, a request to every device, the
replies of each, the server going away and coming back, and the control
socket of server/fleet_server.py."""
import json
import os
import socket
import subprocess
import threading
import time

import pytest

from fakeagent import FakeAgent
import device_server
from devserver.fleet import FleetState

FLEET_SERVER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..",
                            "server", "fleet_server.py")
MACS = ["02:4b:56:00:00:%02x" % i for i in range(3)]


def wait(cond, timeout=10.0):
    end = time.monotonic() + timeout
    while not cond():
        assert time.monotonic() < end, "condition not met within %.0f s" % timeout
        time.sleep(0.02)


@pytest.fixture
def fleet():
    srv = device_server.DeviceServer(ping_interval=None, echo=False, retain=False)
    srv.start()
    state = FleetState(srv)
    agents = []
    yield srv, state, agents
    for a in agents:
        a.close()
    state.close()
    srv.stop()


def connect(srv, agents, mac, **kw):
    a = FakeAgent(srv.url, mac=mac, **kw).connect()
    agents.append(a)
    return a


def test_devices_are_known_by_mac_across_connections(fleet):
    srv, state, agents = fleet
    first = [connect(srv, agents, m) for m in MACS]
    wait(lambda: state.counts()["connected"] == 3)
    first[0].close()
    wait(lambda: state.counts()["connected"] == 2)
    devs = state.device_summaries()
    assert not devs[MACS[0]]["connected"] and devs[MACS[1]]["connected"]
    connect(srv, agents, MACS[0])
    wait(lambda: state.counts()["connected"] == 3)
    devs = state.device_summaries()
    assert sorted(devs) == MACS
    assert devs[MACS[0]]["connections"] == 2 and len(devs[MACS[0]]["closed"]) == 1
    assert devs[MACS[1]]["connections"] == 1
    c = state.counts()
    assert (c["known"], c["connections"]) == (3, 4)
    # the timeline has every opening and closing, in order
    assert [(mac, step) for _, mac, step in state.timeline_since()] == \
        [(m, 1) for m in MACS] + [(MACS[0], -1), (MACS[0], 1)]


def test_request_to_every_device_and_its_replies(fleet):
    srv, state, agents = fleet
    quiet = connect(srv, agents, MACS[2], answer=False)
    for m in MACS[:2]:
        connect(srv, agents, m)
    wait(lambda: state.counts()["connected"] == 3)
    sent = state.request_all("dxGetAbout", {"deviceId": None}, rid="round-1")
    assert sorted(sent["sent"]) == MACS and sent["skipped"] == []
    wait(lambda: sum(1 for r in state.replies("round-1").values() if r["replies"]) == 2)
    # each device got its own MAC as deviceId
    wait(lambda: quiet.texts)
    assert json.loads(quiet.texts[-1]) == {"jsonrpc": "2.0", "id": "round-1",
                                           "method": "dxGetAbout",
                                           "params": {"deviceId": MACS[2]}}
    got = state.replies("round-1")
    for m in MACS[:2]:
        (at, conn_index, summary), = got[m]["replies"]
        assert summary == {"result": {"deviceId": m, "model": "fake"}}
        assert at >= got[m]["sent"]
        assert conn_index == got[m]["sent_conn"]
    assert got[MACS[2]]["replies"] == []
    # a reply that comes twice is kept twice
    quiet.send_json({"jsonrpc": "2.0", "id": "round-1", "result": {"deviceId": MACS[2]}})
    quiet.send_json({"jsonrpc": "2.0", "id": "round-1", "result": {"deviceId": MACS[2]}})
    wait(lambda: len(state.replies("round-1")[MACS[2]]["replies"]) == 2)
    # status updates and events count per device; neither is a reply
    quiet.send_json({"jsonrpc": "2.0", "method": "dsLogStatusUpdates",
                     "params": {"deviceId": MACS[2], "updates": []}})
    quiet.send_json({"jsonrpc": "2.0", "method": "dsEventNotifications",
                     "params": {"deviceId": MACS[2], "events": [{"number": 1}, {"number": 2}]}})
    wait(lambda: state.device_summaries()[MACS[2]]["events"] == 2)
    d = state.device_summaries()[MACS[2]]
    assert d["status_updates"] == 1 and d["last_events"] == [{"number": 1}, {"number": 2}]
    assert state.counts()["replies"] == 4
    # a device not connected is skipped
    quiet.close()
    wait(lambda: state.counts()["connected"] == 2)
    sent = state.request_all("dxGetAbout", {"deviceId": None}, rid="round-2")
    assert sent["skipped"] == [MACS[2]] and len(sent["sent"]) == 2


def test_going_away_and_coming_back(fleet):
    srv, state, agents = fleet
    for m in MACS:
        connect(srv, agents, m)
    wait(lambda: state.counts()["connected"] == 3)
    away = state.go_away(1.5)
    # every connection gets the close frame of a server going away
    wait(lambda: all(a.closed.is_set() for a in agents))
    assert all(a.close_frame_seen for a in agents)
    # the server records a connection's end once its own side is done,
    # which may come after the agent saw the close frame
    wait(lambda: [c.close_sent_code for c in srv.connections] == [1001] * 3)
    wait(lambda: state.counts()["connected"] == 0)
    # no one gets in while it is away
    with pytest.raises(OSError):
        FakeAgent(srv.url, mac=MACS[0]).connect(timeout=1)
    wait(lambda: state.counts()["away"][-1][1] is not None, timeout=10)
    went, back = state.counts()["away"][-1]
    assert went == away["went"] and back - went >= 1.5
    for m in MACS:
        connect(srv, agents, m)
    wait(lambda: state.counts()["connected"] == 3)
    devs = state.device_summaries()
    assert all(d["connections"] == 2 and d["opened"][1] >= back for d in devs.values())


def test_a_request_right_before_each_close_frame(fleet):
    srv, state, agents = fleet
    for m in MACS:
        connect(srv, agents, m, answer=False)
    wait(lambda: state.counts()["connected"] == 3)
    away = state.go_away(1.0, request={"method": "dxGetAbout", "params": {"deviceId": None},
                                       "id": "q-1"})
    assert (away["id"], sorted(away["sent"]), away["skipped"]) == ("q-1", MACS, [])
    wait(lambda: all(a.closed.is_set() for a in agents))
    for a in agents:
        # the request, then the close frame of a server going away
        assert a.close_frame_seen
        req = json.loads(a.texts[-1])
        assert (req["id"], req["params"]["deviceId"]) == ("q-1", a.mac)
    got = state.replies("q-1")
    assert sorted(got) == MACS and all(r["sent"] and not r["replies"] for r in got.values())
    # (the server's record of each end may come after the agent saw it)
    wait(lambda: [c.close_sent_code for c in srv.connections] == [1001] * 3)


def test_drop_mode_resets_every_connection(fleet):
    srv, state, agents = fleet
    for m in MACS:
        connect(srv, agents, m)
    wait(lambda: state.counts()["connected"] == 3)
    state.go_away(0.5, mode="drop")
    wait(lambda: all(a.closed.is_set() for a in agents))
    assert not any(a.close_frame_seen for a in agents)
    # once the server has recorded each end: no close frame was sent
    wait(lambda: all(c.closed_at is not None for c in srv.connections))
    assert [c.close_sent_code for c in srv.connections] == [None] * 3


@pytest.fixture
def thread_errors():
    """Exceptions that end a thread (pytest would only warn of them)."""
    errors = []
    old = threading.excepthook
    threading.excepthook = lambda args: errors.append(args.exc_value)
    yield errors
    threading.excepthook = old


def test_a_server_stopped_while_away_stays_stopped(thread_errors):
    srv = device_server.DeviceServer(ping_interval=None, echo=False, retain=False)
    srv.start()
    state = FleetState(srv)
    state.go_away(0.3)
    srv.stop()
    back = state._returns[-1]
    back.join(20)
    assert not back.is_alive()
    assert thread_errors == []
    assert state.counts()["away"][-1][1] is None


def test_closed_state_does_not_bring_the_server_back(fleet, thread_errors):
    srv, state, agents = fleet
    state.go_away(30)
    state.close()
    assert not state._returns[-1].is_alive()
    assert not srv.listening and state.counts()["away"][-1][1] is None
    assert thread_errors == []


def test_the_control_socket(tmp_path):
    sock = str(tmp_path / "control.sock")
    proc = subprocess.Popen(["/usr/bin/python3", FLEET_SERVER, "--control", sock, "--port", "0",
                             "--ping-interval", "0"], stdout=subprocess.PIPE, text=True)
    agent = None
    try:
        line = proc.stdout.readline()
        assert line.startswith("ready ws://127.0.0.1:"), line
        url = line.split()[1]
        c = socket.socket(socket.AF_UNIX)
        c.connect(sock)
        f = c.makefile("rwb", buffering=0)

        def call(**cmd):
            f.write(json.dumps(cmd).encode() + b"\n")
            return json.loads(f.readline())

        agent = FakeAgent(url, mac=MACS[0]).connect()
        wait(lambda: call(cmd="counts")["data"]["connected"] == 1)
        got = call(cmd="request_all", method="dxGetAbout", params={"deviceId": None}, id="x")
        assert got["ok"] and got["data"]["sent"] == [MACS[0]]
        wait(lambda: call(cmd="replies", id="x")["data"][MACS[0]]["replies"])
        assert call(cmd="nonsense") == {"ok": False, "error": "ValueError: unknown command "
                                                               "'nonsense'"}
        assert call(cmd="stop") == {"ok": True, "data": {}}
        assert proc.wait(10) == 0
        f.close()
        c.close()
    finally:
        if agent is not None:
            agent.close()
        if proc.poll() is None:
            proc.kill()
            proc.wait()
        proc.stdout.close()

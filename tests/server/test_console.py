"""The web console's API without a browser: its SQLite history across a
restart, its access rules, and what it refuses."""
import json
import time
import urllib.error
import urllib.request

import pytest

import device_server
from devserver.console import Console
from devserver.devices import Devices
from devserver.protocol import Protocol
from devserver.store import Store
from fakeagent import FakeAgent, MAC

STATUS = {"jsonrpc": "2.0", "method": "dsLogStatusUpdates", "params": {
    "deviceId": MAC, "version": 0, "updates": [{
        "dateTime": "2026-01-01T10:00:00+00:00", "system": {"cpu": 7, "memFree": 5 << 20,
                                                             "memUsed": 3 << 20},
        "lan": {"rx": 1000, "tx": 2000}}]}}
EVENT = {"jsonrpc": "2.0", "method": "dsEventNotifications", "params": {
    "deviceId": MAC, "version": 0, "events": [{"number": 7, "dateTime": "2026-01-01T10:00:00+00:00",
                                               "type": "INFO", "event": "Reboot"}]}}


class Running(object):
    """A device server with a console over a store file."""

    def __init__(self, db, host="127.0.0.1", token=None):
        self.protocol = Protocol()
        self.server = device_server.DeviceServer(ping_interval=None, echo=False,
                                                 retain=False).start()
        self.store = Store(str(db))
        self.devices = Devices([self.server], self.store, self.protocol)
        self.console = Console(self.devices, self.protocol, host=host, port=0,
                               token=token).start()
        self.base = "http://127.0.0.1:%d" % self.console.port

    def stop(self):
        self.console.stop()
        self.server.stop()
        self.store.close()


def call(url, body=None, headers=None, method=None):
    """(status, parsed JSON or text, headers) of one HTTP call."""
    data = None if body is None else json.dumps(body).encode()
    req = urllib.request.Request(url, data=data, headers=dict(headers or {}), method=method)
    if body is not None:
        req.add_header("Content-Type", "application/json")
    try:
        with urllib.request.urlopen(req, timeout=30) as r:
            status, text, hdrs = r.status, r.read().decode(), r.headers
    except urllib.error.HTTPError as e:
        status, text, hdrs = e.code, e.read().decode(), e.headers
    try:
        return status, json.loads(text), hdrs
    except ValueError:
        return status, text, hdrs


def wait(cond, timeout=10):
    end = time.time() + timeout
    while not cond():
        assert time.time() < end, "condition not met"
        time.sleep(0.05)


POST = {"X-Console": "1"}


def test_history_survives_a_restart(tmp_path):
    db = tmp_path / "console.sqlite"
    run = Running(db)
    agent = FakeAgent(run.server.url).connect()
    # the console asks every new device who it is
    wait(lambda: (run.store.device(MAC) or {}).get("model") == "fake")
    status, out, _ = call(run.base + "/api/devices/%s/request" % MAC,
                          {"method": "dxNoSuchMethod", "params": '{"deviceId":"%s"}' % MAC}, POST)
    assert status == 200 and out["outcome"] == "error" and out["rtt_ms"] >= 0
    assert json.loads(out["reply"])["error"]["code"] == -32601
    agent.send_json(STATUS)
    agent.send_json(EVENT)
    wait(lambda: run.store.events(MAC))
    wait(lambda: run.store.status(MAC))
    agent.close()
    wait(lambda: not run.store.device(MAC)["connected"])
    run.stop()

    again = Running(db)          # the same file, a new process's objects
    try:
        _, devices, _ = call(again.base + "/api/devices")
        [device] = devices["devices"]
        assert device["mac"] == MAC and device["model"] == "fake"
        assert device["connected"] is False and device["disconnected_at"]
        assert device["last_status"]["system"]["cpu"] == 7
        _, history, _ = call(again.base + "/api/history?mac=" + MAC)
        assert [(h["method"], h["source"], h["outcome"]) for h in history["requests"]] == [
            ("dxNoSuchMethod", "console", "error"), ("dxGetAbout", "auto", "result")]
        assert '"code":-32601' in history["requests"][0]["reply"]
        _, rows, _ = call(again.base + "/api/devices/%s/status" % MAC)
        assert [(r["cpu"], r["lan_rx"]) for r in rows["status"]] == [(7, 1000)]
        _, rows, _ = call(again.base + "/api/devices/%s/events" % MAC)
        assert [(e["number"], e["event"]) for e in rows["events"]] == [(7, "Reboot")]
    finally:
        again.stop()


def test_parameters_that_are_not_json_are_refused_and_nothing_is_sent(tmp_path):
    run = Running(tmp_path / "c.sqlite")
    try:
        agent = FakeAgent(run.server.url).connect()
        wait(lambda: len(agent.texts) == 1)          # the console's dxGetAbout
        status, out, _ = call(run.base + "/api/devices/%s/request" % MAC,
                              {"method": "dxGetAbout", "params": '{"deviceId": '}, POST)
        assert status == 400 and "not valid JSON" in out["error"]
        status, _, _ = call(run.base + "/api/devices/%s/request" % MAC,
                            {"method": "dxGetAbout", "params": {}})     # no X-Console
        assert status == 403
        assert len(agent.texts) == 1
        assert [h["method"] for h in run.store.requests(MAC)] == ["dxGetAbout"]
        agent.close()
    finally:
        run.stop()


PATHS = ["/", "/device/%s" % MAC, "/api/devices", "/api/devices/%s" % MAC,
         "/api/devices/%s/status" % MAC, "/api/history", "/openrpc.json",
         "/static/console.js", "/static/chart.js"]


def test_console_off_loopback_refuses_everything_without_its_token(tmp_path):
    run = Running(tmp_path / "c.sqlite", host="0.0.0.0", token="s3cret-token")
    try:
        assert run.console.url.endswith("/?token=s3cret-token")
        agent = FakeAgent(run.server.url).connect()
        wait(lambda: agent.texts)
        before = len(agent.texts)
        for path in PATHS:
            assert call(run.base + path)[0] == 401, path
            assert call(run.base + path + "?token=wrong")[0] == 401, path
            assert call(run.base + path, headers={"Authorization": "Bearer wrong"})[0] == 401
        for path in ("/api/devices/%s/request" % MAC, "/api/devices/%s/logstream" % MAC):
            status, _, _ = call(run.base + path, {"method": "dxGetAbout", "params": {}}, POST)
            assert status == 401
        assert len(agent.texts) == before          # nothing reached the device
        # with the token: in the query (which sets the cookie), or as a bearer
        status, _, headers = call(run.base + "/?token=s3cret-token")
        assert status == 200 and "kc_console_token=s3cret-token" in headers["Set-Cookie"]
        assert call(run.base + "/api/devices", headers={"Cookie": "kc_console_token=s3cret-token"})[0] == 200
        for path in PATHS:
            assert call(run.base + path, headers={"Authorization": "Bearer s3cret-token"})[0] \
                == 200, path
        agent.close()
    finally:
        run.stop()


def test_console_off_loopback_makes_up_a_token_and_loopback_needs_none(tmp_path):
    run = Running(tmp_path / "c.sqlite", host="0.0.0.0")
    try:
        assert len(run.console.token) >= 20
        assert call(run.base + "/api/devices")[0] == 401
        assert call(run.base + "/api/devices?token=" + run.console.token)[0] == 200
    finally:
        run.stop()
    run = Running(tmp_path / "d.sqlite")
    try:
        assert run.console.token is None and "token" not in run.console.url
        for path in PATHS[:3]:
            assert call(run.base + path)[0] in (200, 404), path
        assert call(run.base + "/api/devices")[0] == 200
    finally:
        run.stop()

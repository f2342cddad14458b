"""The protocol document (docs/openrpc.json) against the agent's own tables,
and the device server's check of what an agent sends against it."""
import json
import os
import re

import pytest

import device_server
from devserver.protocol import Protocol
from fakeagent import FakeAgent, MAC

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
DOC = os.path.join(ROOT, "docs", "openrpc.json")


def _source(path):
    with open(os.path.join(ROOT, "src", path)) as fh:
        return fh.read()


def test_document_names_every_method_of_the_dispatcher_and_no_other():
    table = re.findall(r'^\s*\{"(\w+)", \w+\},', _source("client/dispatcher.cpp"), re.M)
    assert len(table) == 30
    proto = Protocol(DOC)
    assert sorted(m["name"] for m in proto.methods) == sorted(table)
    assert sorted(m["name"] for m in proto.notifications) == [
        "dsEventNotifications", "dsLogStatusUpdates"]
    assert "StreamedLogMessage" in proto.document["components"]["schemas"]
    assert proto.method("dxStreamSystemLogs")["x-streamed"] is True


def test_error_table_is_the_agents():
    source = _source("json/envelope.cpp")
    proto = Protocol(DOC)
    assert len(proto.messages) == 10
    for code, message in proto.messages.items():
        assert '"%s"' % message in source, (code, message)
    for m in proto.methods:
        for e in m["errors"]:
            assert e["$ref"].startswith("#/components/errors/")


def test_every_method_has_a_template_with_the_device_id():
    proto = Protocol(DOC)
    for m in proto.methods:
        params = proto.template(m["name"], "02:00:00:00:00:01")
        assert params["deviceId"] == "02:00:00:00:00:01", m["name"]
        names = {p["name"] for p in m["params"]}
        assert set(params) <= names, m["name"]
        required = {p["name"] for p in m["params"] if p["required"]}
        assert required <= set(params), m["name"]
    assert proto.changes_device("dxResetDevice") and proto.changes_device("vekAddNetwork")
    assert proto.changes_device("dxSetTimeSettings")
    assert not proto.changes_device("dxGetAbout")


ABOUT = {"deviceId": MAC, "macAddress": MAC, "firmware": "1.0.0", "model": "VK310",
         "serviceTag": "ST1", "lanAddress": "192.168.1.2"}


@pytest.mark.parametrize("reply,method,ok", [
    ({"jsonrpc": "2.0", "id": "1", "result": ABOUT}, "dxGetAbout", True),
    ({"jsonrpc": "2.0", "id": "1", "result": dict(ABOUT, firmware=1)}, "dxGetAbout", False),
    ({"jsonrpc": "2.0", "id": "1", "result": dict(ABOUT, extra="x")}, "dxGetAbout", False),
    ({"jsonrpc": "2.0", "id": "1", "error": {"code": -32602, "message": "Invalid method parameter",
                                             "data": ""}}, "dxGetAbout", True),
    ({"jsonrpc": "2.0", "id": "1", "error": {"code": -32602, "message": "Bad", "data": ""}},
     "dxGetAbout", False),
    ({"jsonrpc": "2.0", "id": "1", "error": {"code": 10100, "message":
                                             "The router is not a UPnP router", "data": ""}},
     "dxGetAbout", False),
    ({"jsonrpc": "2.0", "id": None, "error": {"code": -32600, "message":
                                              "The JSON sent is not a valid Request object",
                                              "data": ""}}, None, True),
    ({"jsonrpc": "2.0", "id": "1"}, "vekGetRadioConfig", True),
    ({"jsonrpc": "2.0", "id": "1"}, "dxGetAbout", False),
    ({"jsonrpc": "2.0", "id": "s", "stream": True, "result": {"deviceId": MAC, "logs": [
        {"dateTime": "2026-01-01T00:00:00+00:00", "level": 20, "location": " ",
         "message": "hi "}]}}, None, True),
    ({"jsonrpc": "2.0", "method": "dsLogStatusUpdates", "params": {
        "deviceId": MAC, "version": 0, "updates": [{
            "dateTime": "2026-01-01T00:00:00+01:00", "system": {"cpu": 3, "memFree": 1,
                                                                 "memUsed": 2},
            "lan": {"rx": 1, "tx": 2}}]}}, None, True),
    ({"jsonrpc": "2.0", "method": "dsLogStatusUpdates", "params": {
        "deviceId": MAC, "version": 1, "updates": []}}, None, False),
])
def test_check(reply, method, ok):
    problems = Protocol(DOC).check(json.dumps(reply), reply, method)
    assert (problems == []) == ok, problems


class DeviatingAgent(FakeAgent):
    """A test double whose dxGetAbout reply lacks members and has one of the
    wrong type; everything else as the stand-in answers."""

    def __init__(self, url, deviate):
        FakeAgent.__init__(self, url)
        self.deviate = deviate

    def _dispatch(self, text):
        req = json.loads(text)
        if req.get("method") == "dxGetAbout":
            result = dict(ABOUT, firmware=100) if self.deviate else ABOUT
            return self.send_json({"jsonrpc": "2.0", "id": req["id"], "result": result})
        return FakeAgent._dispatch(self, text)


@pytest.mark.parametrize("deviate", [False, True])
def test_server_records_what_differs_from_the_document(deviate):
    with device_server.DeviceServer(ping_interval=None, validate=True) as srv:
        agent = DeviatingAgent(srv.url, deviate).connect()
        srv.wait_for_connection(5)
        srv.request("dxGetAbout", {"deviceId": MAC}, id="a1")
        srv.request("dxNoSuchMethod", {}, id="a2")          # -32601: conforms
        agent.close()
    if deviate:
        assert len(srv.violations) == 1
        raw, problems = srv.violations[0]
        assert '"id":"a1"' in raw
        assert problems == ["dxGetAbout result: 100 is not of type 'string' at firmware"]
        assert any("PROTOCOL VIOLATION" in line for line in srv.log_lines)
    else:
        assert srv.violations == []


def test_validation_off_by_default_and_on_by_environment(monkeypatch):
    monkeypatch.delenv("KC_VALIDATE_PROTOCOL", raising=False)
    assert device_server.DeviceServer().protocol is None
    monkeypatch.setenv("KC_VALIDATE_PROTOCOL", "1")
    assert device_server.DeviceServer().protocol is not None

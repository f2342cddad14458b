"""Tests of the test device server's synchronous API with an agent stand-in."""
import json
import socket
import threading
import time

import pytest

import device_server
from fakeagent import FakeAgent, MAC


def test_handshake_headers_recorded(server):
    agent = FakeAgent(server.url).connect()
    conn = server.wait_for_connection(5)
    assert server.url.endswith("/dev")
    assert conn.path == "/dev"
    assert conn.origin == MAC
    assert conn.protocol == "nimb-protocol"
    assert conn.subprotocol == "nimb-protocol"
    assert conn.version == "13"
    assert conn.host == "127.0.0.1:%d" % server.port
    assert len(conn.key) == 24
    assert [n for n, _ in conn.headers][:2] == ["Host", "Upgrade"]
    assert server.connection_count == 1
    assert server.handshakes[0][0] == "/dev"
    agent.close()


def test_request_reply_matching(server):
    agent = FakeAgent(server.url).connect()
    server.wait_for_connection(5)
    reply = server.request("dxGetAbout", {"deviceId": MAC})
    data, raw = reply
    assert data["result"]["deviceId"] == MAC
    assert raw == '{"jsonrpc":"2.0","id":"%s","result":{"deviceId":"%s","model":"fake"}}' % (
        data["id"], MAC)
    assert reply.raw is raw and reply.data is data
    # Explicit id, unknown method, envelope fault.
    data, _ = server.request("dxNoSuchMethod", {}, id="abc")
    assert data["id"] == "abc" and data["error"]["code"] == -32601
    data, _ = server.request("dxGetAbout", id="x1", omit=("params",))
    assert data["error"]["code"] == -32600
    data, _ = server.request("dxGetAbout", {}, jsonrpc="1.0")
    assert data["error"]["code"] == -32603
    # A numeric id: the stand-in answers with "id": null.
    data, raw = server.request_raw('{"jsonrpc":"2.0","id":7,"method":"dxGetAbout","params":{}}',
                                   expect_id=None)
    assert data["id"] is None and data["error"]["code"] == -32600
    assert server.received_texts[-1] == raw
    assert server.messages == []
    agent.close()


def test_a_reply_without_result_or_error_is_matched_by_its_id(server):
    """The agent passes an empty script answer on as a reply with only
    "jsonrpc" and "id": the request gets it at once, and a notification
    (which has a "method") with the same id is never taken for it."""
    agent = FakeAgent(server.url, answer=False).connect()
    server.wait_for_connection(5)

    def answer():
        deadline = time.monotonic() + 10
        while not any('"id":"c1"' in t for t in agent.texts):
            assert time.monotonic() < deadline
            time.sleep(0.01)
        agent.send_json({"jsonrpc": "2.0", "id": "c1", "method": "dsEventNotifications",
                         "params": {}})
        agent.send_json({"jsonrpc": "2.0", "id": "c1"})

    helper = threading.Thread(target=answer)
    helper.start()
    reply = server.request("vekGetClientStatus", {"deviceId": MAC, "cmac": "x"}, id="c1",
                           timeout=5)
    helper.join()
    assert reply.raw == '{"jsonrpc":"2.0","id":"c1"}'
    assert server.next_message(5).method == "dsEventNotifications"
    agent.close()


def test_request_timeout_and_unsolicited_reply(server):
    agent = FakeAgent(server.url, answer=False).connect()
    server.wait_for_connection(5)
    with pytest.raises(TimeoutError):
        server.request("dxGetAbout", {"deviceId": MAC}, id="9", timeout=0.3)
    # A reply that arrives after the request gave up is an unsolicited message.
    agent.send_json({"jsonrpc": "2.0", "id": "9", "result": {}})
    msg = server.next_message(5)
    assert msg.data == {"jsonrpc": "2.0", "id": "9", "result": {}}
    assert msg.raw == '{"jsonrpc":"2.0","id":"9","result":{}}'
    agent.close()


def test_notifications_and_filter(server):
    agent = FakeAgent(server.url).connect()
    server.wait_for_connection(5)
    agent.send_json({"jsonrpc": "2.0", "method": "dsEventNotifications", "params": {"a": 1}})
    agent.send_json({"jsonrpc": "2.0", "method": "dsLogStatusUpdates", "params": {"b": 2}})
    agent.send_frame("not json")
    msg = server.next_message(5, method="dsLogStatusUpdates")
    assert msg.data["params"] == {"b": 2}
    msg = server.next_message(5)
    assert msg.method == "dsEventNotifications"
    msg = server.next_message(5)
    assert msg.data is None and msg.raw == "not json"
    with pytest.raises(TimeoutError):
        server.next_message(0.2)
    assert len(server.received_texts) == 3
    agent.close()


def test_send_text_and_frame_log(server):
    agent = FakeAgent(server.url, answer=False).connect()
    server.wait_for_connection(5)
    server.send_text("hello agent")
    deadline = time.time() + 5
    while not agent.texts and time.time() < deadline:
        time.sleep(0.02)
    assert agent.texts == ["hello agent"]
    sent = [f for f in server.frames if f.direction == "send" and f.kind == "TEXT"]
    assert sent[-1].payload == b"hello agent"
    assert any("> SEND TEXT hello agent" in line for line in server.log_lines)
    agent.close()


def test_ping_pong(server):
    agent = FakeAgent(server.url).connect()
    conn = server.wait_for_connection(5)
    assert server.ping(b"abc") == b"abc"
    assert server.ping("xyz") == b"xyz"
    assert agent.pings == [b"abc", b"xyz"]
    assert conn.pongs_received == 2
    assert server.wait_for_pong(1, count=2)
    assert any("< RECV PONG 616263" in line for line in server.log_lines)
    agent.close()


def test_periodic_pings():
    with device_server.DeviceServer(ping_interval=0.2) as srv:
        agent = FakeAgent(srv.url).connect()
        conn = srv.wait_for_connection(5)
        assert srv.wait_for_pong(5, count=3)
        assert len(conn.pings_sent) >= 3
        agent.close()


def test_close_from_server(server):
    agent = FakeAgent(server.url, answer=False).connect()
    conn = server.wait_for_connection(5)
    server.close(4000, "bye")
    assert conn.wait_closed(5)
    assert agent.closed.wait(5) and agent.close_frame_seen
    assert conn.close_sent_code == 4000
    assert conn.close_code == 1005          # the stand-in echoes an empty close frame


def test_agent_close_recorded(server):
    agent = FakeAgent(server.url).connect()
    conn = server.wait_for_connection(5)
    agent.close()
    assert conn.wait_closed(5)
    assert conn.close_code == 1005          # empty close frame, as the agent sends
    assert server.current is None
    with pytest.raises(ConnectionError):
        server.send_text("nobody")


def test_drop_and_reconnect(server):
    agent = FakeAgent(server.url).connect()
    first = server.wait_for_connection(5)
    server.drop()
    assert agent.closed.wait(5)
    assert not agent.close_frame_seen
    assert first.wait_closed(5) and first.close_code == 1006
    agent2 = FakeAgent(server.url).connect()
    second = server.wait_for_connection(5)
    assert second.index == 2 and server.connection_count == 2
    assert server.current is second
    assert server.request("dxGetAbout", {"deviceId": MAC})[0]["id"]
    agent2.close()


def test_pause_resume(server):
    port = server.port
    agent = FakeAgent(server.url).connect()
    server.wait_for_connection(5)
    server.pause()
    server.pause()                          # a second pause changes nothing
    assert not server.listening
    with pytest.raises(OSError):
        socket.create_connection(("127.0.0.1", port), timeout=2).close()
    # The open connection is not affected.
    assert server.request("dxGetAbout", {"deviceId": MAC})[0]["result"]
    server.drop()
    server.resume()
    server.resume()                         # nor does a second resume
    assert server.port == port and server.listening
    agent2 = FakeAgent(server.url).connect()
    conn = server.wait_for_connection(5)
    assert conn.index == 2
    agent.close()
    agent2.close()


def test_log_file(tmp_path):
    log = tmp_path / "frames.log"
    with device_server.DeviceServer(ping_interval=None, log_file=str(log)) as srv:
        agent = FakeAgent(srv.url).connect()
        srv.wait_for_connection(5)
        srv.request("dxGetAbout", {"deviceId": MAC}, id="42")
        agent.close()
        srv.wait_for_disconnect(5)
    text = log.read_text()
    assert '> SEND TEXT {"jsonrpc":"2.0","id":"42","method":"dxGetAbout"' in text
    assert '< RECV TEXT {"jsonrpc":"2.0","id":"42","result"' in text
    assert "< RECV CLOSE" in text


def test_wait_for_connection_timeout(server):
    with pytest.raises(TimeoutError):
        server.wait_for_connection(0.2)


def test_request_json_shape(server):
    agent = FakeAgent(server.url).connect()
    server.wait_for_connection(5)
    server.request("dxGetAbout", {"deviceId": MAC}, id="5")
    deadline = time.time() + 5
    while not agent.texts and time.time() < deadline:
        time.sleep(0.02)
    assert agent.texts[0] == json.dumps(
        {"jsonrpc": "2.0", "id": "5", "method": "dxGetAbout", "params": {"deviceId": MAC}},
        separators=(",", ":"))
    agent.close()

"""The device server's own handling of the wire (devserver/wire.py): messages
in pieces, text that is not UTF-8, the frame log of both directions."""
import time

import rawpeer
from fakeagent import FakeAgent, MAC


def _send_raw(agent, payload, opcode, fin=True):
    with agent._wlock:
        agent.sock.sendall(rawpeer.encode_frame(payload, opcode, fin=fin, mask=True))


def test_fragmented_message_is_one_message(server):
    agent = FakeAgent(server.url, answer=False).connect()
    conn = server.wait_for_connection(5)
    _send_raw(agent, b'{"jsonrpc":"2.0",', rawpeer.OP_TEXT, fin=False)
    _send_raw(agent, b'"method":"x",', rawpeer.OP_CONT, fin=False)
    _send_raw(agent, b'"params":{}}', rawpeer.OP_CONT)
    msg = server.next_message(5)
    assert msg.raw == '{"jsonrpc":"2.0","method":"x","params":{}}' and msg.method == "x"
    got = [(f.kind, f.fin) for f in server.frames if f.direction == "recv"]
    assert got == [("TEXT", False), ("CONT", False), ("CONT", True)]
    assert conn.is_open
    agent.close()


def test_text_that_is_not_utf8_closes_with_1007(server):
    agent = FakeAgent(server.url, answer=False).connect()
    conn = server.wait_for_connection(5)
    _send_raw(agent, b"\xff\xfe", rawpeer.OP_TEXT)
    assert conn.wait_closed(5)
    assert conn.close_sent_code == 1007
    assert server.messages == []


def test_pong_and_ping_frames_logged_both_ways(server):
    agent = FakeAgent(server.url).connect()
    conn = server.wait_for_connection(5)
    assert server.ping(b"\x00\x01") == b"\x00\x01"
    _send_raw(agent, b"ab", rawpeer.OP_PING)
    deadline = time.time() + 5
    while not any(f.direction == "send" and f.kind == "PONG" for f in server.frames):
        assert time.time() < deadline, server.frames
        time.sleep(0.02)
    lines = [f.line().split(" ", 1)[1] for f in server.frames]
    assert "[conn 1] > SEND PING 0001" in lines
    assert "[conn 1] < RECV PONG 0001" in lines
    assert lines.index("[conn 1] < RECV PING 6162") < lines.index("[conn 1] > SEND PONG 6162")
    assert conn.pings_sent[0][1] == b"\x00\x01" and conn.pongs[0][1] == b"\x00\x01"
    assert agent.pings == [b"\x00\x01"]
    agent.close()
    assert conn.wait_closed(5) and conn.close_code == 1005


def test_server_close_with_code_and_reason(server):
    agent = FakeAgent(server.url, answer=False).connect()
    conn = server.wait_for_connection(5)
    server.close(4000, "bye")
    assert conn.wait_closed(5)
    assert conn.close_sent_code == 4000 and conn.close_code == 1005
    assert agent.close_frame_seen
    sent = [f for f in server.frames if f.direction == "send" and f.kind == "CLOSE"]
    assert sent[0].payload == b"\x0f\xa0bye"
    assert MAC == conn.origin

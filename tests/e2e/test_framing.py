"""Frames on an open connection (raw-socket peer): pings, sizes at the
receive limit, malformed frames that close the connection, and the shape
of the agent's own frames."""
import json
import time

import pytest

from conftest import MAC, scaled
from rawpeer import OP_BINARY, OP_CLOSE, OP_CONT, OP_PING, OP_PONG, OP_TEXT

CAPACITY = 16384


def request_text(id_, pad_to=None, method="dxNoSuchMethod"):
    """A request, padded with blanks inside "params" to exactly pad_to bytes."""
    base = '{"jsonrpc":"2.0","id":"%s","method":"%s","params":{"deviceId":"x"}' % (id_, method)
    if pad_to is None:
        return base + "}"
    return base + " " * (pad_to - len(base) - 1) + "}"


@pytest.fixture
def open_peer(device, peer, start_agent):
    device.uci_ok("set", "korvatCloud.korvatCloud.conn_retry=1")
    device.uci_ok("commit", "korvatCloud")
    agent = start_agent(peer.url())
    peer.handshake(15)
    return agent, peer


def expect_close_and_reconnect(peer):
    """The agent sends an empty masked close frame, closes, and comes back."""
    frame = peer.read_frame(15)
    while frame.opcode != OP_CLOSE:
        frame = peer.read_frame(15)
    assert frame.header[:2] == b"\x88\x80" and frame.masked and frame.length == 0
    assert peer.wait_closed(10)
    peer.accept(15)
    peer.handshake(15)
    peer.send_text(request_text("again"))
    reply = json.loads(peer.read_message(15).text)
    assert reply["id"] == "again"


def test_ping_is_answered_with_masked_pong_and_marks_connected(open_peer):
    agent, peer = open_peer
    assert agent.state() == "0"
    peer.send_ping(b"abc")
    pong = peer.read_frame(10)
    assert pong.opcode == OP_PONG and pong.fin and pong.masked
    assert pong.header[:2] == b"\x8a\x83"
    assert pong.payload == b"abc"
    assert pong.raw_payload == bytes(b ^ pong.mask_key[i % 4] for i, b in enumerate(b"abc"))
    agent.wait_state("1")
    # still waiting for data frames afterwards
    peer.send_text(request_text("p1"))
    assert json.loads(peer.read_message(10).text)["id"] == "p1"


def test_masked_ping_from_server_is_unmasked_before_the_pong(open_peer):
    agent, peer = open_peer
    peer.send_ping(b"hello", mask=True, mask_key=b"\x01\x02\x03\x04")
    pong = peer.read_frame(10)
    assert pong.opcode == OP_PONG and pong.payload == b"hello"


@pytest.mark.parametrize("opcode", [OP_PONG, OP_CONT, 3])
def test_pong_continuation_and_reserved_frames_are_skipped(open_peer, opcode):
    agent, peer = open_peer
    peer.send_frame(b"ignored", opcode=opcode)
    peer.send_text(request_text("s1"))
    frame = peer.read_message(10)
    assert json.loads(frame.text)["id"] == "s1"
    assert agent.alive()


def test_replies_are_single_masked_text_frames(open_peer):
    agent, peer = open_peer
    peer.send_text(request_text("r1", method="dxGetAbout"))
    frame = peer.read_frame(10)
    assert frame.fin and frame.rsv == 0 and frame.opcode == OP_TEXT and frame.masked
    assert 126 <= len(frame.payload) < 65536
    assert frame.length_form == 16 and len(frame.header) == 8
    reply = json.loads(frame.text)
    assert reply["id"] == "r1" and reply["result"]["macAddress"] == MAC
    peer.send_text(request_text("r2"))
    short = peer.read_frame(10)
    assert len(short.payload) < 126 and len(short.header) == 6


def test_binary_message_is_taken_as_request_text(open_peer):
    agent, peer = open_peer
    peer.send_frame(request_text("b1").encode(), opcode=OP_BINARY)
    assert json.loads(peer.read_message(10).text)["id"] == "b1"


def test_message_of_exactly_the_buffer_size_is_delivered(open_peer):
    agent, peer = open_peer
    text = request_text("big", pad_to=CAPACITY)
    assert len(text) == CAPACITY
    peer.send_text(text)
    reply = json.loads(peer.read_message(15).text)
    assert reply["id"] == "big" and reply["error"]["code"] == -32601
    agent.out.wait_for("Recieved text frame: %d" % CAPACITY)


def test_message_one_byte_over_the_buffer_closes(open_peer):
    agent, peer = open_peer
    peer.send_text(request_text("over", pad_to=CAPACITY + 1))
    expect_close_and_reconnect(peer)
    assert not any("Recieved text frame: %d" % (CAPACITY + 1) in l for l in agent.out.lines)


def test_masked_frame_from_server_is_unmasked(open_peer):
    agent, peer = open_peer
    peer.send_text(request_text("m1"), mask=True)
    assert json.loads(peer.read_message(10).text)["id"] == "m1"


def test_64_bit_length_form_closes_whatever_the_length(open_peer):
    agent, peer = open_peer
    peer.send_text(request_text("l64"), length_form=64)
    expect_close_and_reconnect(peer)


def test_text_frame_without_fin_closes(open_peer):
    agent, peer = open_peer
    peer.send_text(request_text("frag"), fin=False)
    expect_close_and_reconnect(peer)


def test_server_close_frame_is_answered_by_an_empty_close(open_peer):
    agent, peer = open_peer
    peer.send_close(1000, "bye")
    expect_close_and_reconnect(peer)


def test_close_runs_hooks_and_state_follows(open_peer):
    agent, peer = open_peer
    peer.send_ping(b"x")
    agent.wait_state("1")
    peer.send_close()
    frame = peer.read_frame(10)
    while frame.opcode == OP_PONG:
        frame = peer.read_frame(10)
    assert frame.opcode == OP_CLOSE
    agent.wait_state("0")
    peer.accept(15)
    peer.handshake(15)
    agent.wait_state("1")
    assert sum(1 for l in agent.out.lines if l.endswith("] ACK close.")) == 1


def test_peer_vanishing_mid_frame_closes(open_peer):
    agent, peer = open_peer
    peer.send_raw(b"\x81\x7e\x01\x00" + b"{" * 10)
    peer.close()
    peer.accept(15)
    peer.handshake(15)
    peer.send_text(request_text("after"))
    assert json.loads(peer.read_message(10).text)["id"] == "after"


def test_forty_seconds_of_silence_close_the_connection(open_peer):
    agent, peer = open_peer
    started = time.monotonic()
    frame = peer.read_frame(60)
    waited = time.monotonic() - started
    assert frame.opcode == OP_CLOSE
    assert 39 <= waited < 40 + scaled(10), waited

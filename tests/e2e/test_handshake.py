"""The opening handshake as the agent writes it, and how it judges the
server's answer (raw-socket peer)."""
import base64
import time

import pytest

from conftest import MAC, agent_sleeps, scaled, set_conn_retry
from rawpeer import OP_TEXT

ABOUT = '{"jsonrpc":"2.0","id":"h1","method":"dxGetAbout","params":{"deviceId":"x"}}'


def test_request_bytes(peer, start_agent):
    start_agent(peer.url("path/x"))
    peer.accept(15)
    req = peer.read_request()
    lines = req.raw.decode("latin-1").split("\r\n")
    key = lines[4][len("Sec-WebSocket-Key: "):]
    assert lines == [
        "GET /path/x HTTP/1.1",
        "Host: %s:%d" % (peer.host, peer.port),
        "Upgrade: websocket",
        "Connection: Upgrade",
        "Sec-WebSocket-Key: " + key,
        "Sec-WebSocket-Protocol: nimb-protocol",
        "Sec-WebSocket-Version: 13",
        "Origin: " + MAC,
        "",
        "",
    ]
    assert len(key) == 24
    assert len(base64.b64decode(key, validate=True)) == 16


def test_url_without_path_requests_root(peer, start_agent):
    start_agent("ws://%s:%d" % (peer.host, peer.port))
    peer.accept(15)
    req = peer.read_request()
    assert req.raw.startswith(b"GET / HTTP/1.1\r\nHost: %s:%d\r\n" % (peer.host.encode(), peer.port))


def test_each_handshake_uses_a_fresh_key(device, peer, start_agent):
    set_conn_retry(device, 1)
    start_agent(peer.url())
    peer.accept(15)
    first = peer.read_request().key
    peer.send_raw(b"HTTP/1.1 500 Nope\r\n\r\n")
    peer.accept(15)
    second = peer.read_request().key
    assert first != second


def _answered_and_usable(peer):
    peer.send_text(ABOUT)
    frame = peer.read_message(15)
    assert frame.opcode == OP_TEXT and frame.masked
    assert '"id":"h1"' in frame.text


def test_answer_without_accept_header_is_accepted(peer, start_agent):
    start_agent(peer.url())
    peer.handshake(15, accept=False)
    _answered_and_usable(peer)


def test_answer_without_any_header_is_accepted(peer, start_agent):
    start_agent(peer.url())
    peer.accept(15)
    peer.read_request()
    peer.send_raw(b"HTTP/1.1 101\r\n\r\n")
    _answered_and_usable(peer)


def test_correct_accept_and_protocol_are_accepted(peer, start_agent):
    start_agent(peer.url())
    peer.handshake(15)
    _answered_and_usable(peer)


@pytest.mark.parametrize("answer", [
    dict(accept="dGhlIHNhbXBsZSBub25jZQ=="),
    dict(protocol="other-protocol"),
    dict(protocol="nimb-protocol, x"),
    dict(status=200, reason="OK"),
    dict(status=101, version="HTTP/1.0"),
], ids=["wrong-accept", "wrong-protocol", "protocol-list", "status-200", "http-1.0"])
def test_refused_answers_are_retried_after_the_interval(device, peer, start_agent, answer):
    set_conn_retry(device, 2)
    # the agent's sleeps are recorded, and last as long as asked
    start_agent(peer.url(), fastsleep=True, env={"FASTSLEEP_SCALE": "1"})
    peer.accept(15)
    peer.read_request()
    assert agent_sleeps(device) == []
    peer.send_response(**answer)
    refused_at = time.monotonic()
    # refused: the agent leaves this socket alone and tries again after
    # the interval, one wait of two seconds
    peer.accept(20)
    waited = time.monotonic() - refused_at
    assert agent_sleeps(device) == [2]
    assert waited >= 1.5, waited
    peer.read_request()
    peer.send_response()
    _answered_and_usable(peer)


def test_protocol_header_without_blank_is_refused(device, peer, start_agent):
    set_conn_retry(device, 1)
    start_agent(peer.url())
    peer.accept(15)
    peer.read_request()
    peer.send_raw(b"HTTP/1.1 101 Switching Protocols\r\nSec-WebSocket-Protocol:nimb-protocol\r\n\r\n")
    peer.accept(15)
    peer.handshake(15)
    _answered_and_usable(peer)
    assert peer.connections == 2


def test_peer_closing_during_headers_fails_the_attempt(device, peer, start_agent):
    set_conn_retry(device, 1)
    start_agent(peer.url())
    peer.accept(15)
    peer.read_request()
    peer.send_raw(b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n")
    peer.close()
    # no hang on the closed socket: the next attempt arrives
    peer.accept(15)
    peer.handshake(15)
    _answered_and_usable(peer)


def test_server_that_never_answers_is_given_up_after_40_seconds(device, peer, start_agent):
    set_conn_retry(device, 1)
    start_agent(peer.url())
    peer.accept(15)
    peer.read_request()
    silent = peer.sock  # kept open and silent while the next one is awaited
    peer.sock = None
    started = time.monotonic()
    try:
        peer.accept(60)
    finally:
        silent.close()
    waited = time.monotonic() - started
    # 40 s of read time-out plus the 1 s retry interval
    assert 40 <= waited < 40 + scaled(10), waited


def mwc_bytes(seed, count):
    """The low bytes of the first `count` values of the process-wide
    multiply-with-carry generator after seeding it with `seed`."""
    m = 0xffffffff
    w = seed or 1
    z = (w + 3412) & m
    out = bytearray()
    for _ in range(count):
        z = (36969 * (z & 65535) + (z >> 16)) & m
        w = (18000 * (w & 65535) + (w >> 16)) & m
        out.append(((z << 16) + w) & 0xff)
    return bytes(out)


def seed_time_of_key(key, earliest, latest):
    """The clock second t between the two times (both included) whose seed
    (t % 874563) makes the generator give this key, or None."""
    raw = base64.b64decode(key)
    for t in range(int(earliest), int(latest) + 1):
        if mwc_bytes(t % 874563, 16) == raw:
            return t
    return None


def test_the_generator_is_seeded_from_the_clock_before_every_handshake(device, peer,
                                                                     start_agent):
    set_conn_retry(device, 1)
    # the clock is the host's: the device shares it
    earliest = time.time()
    start_agent(peer.url())
    seeds = []
    for attempt in range(3):
        peer.accept(15)
        key = peer.read_request().key
        latest = time.time()
        # each key is the first 16 values after a fresh seed taken from the
        # clock between the end of the last attempt and this request, not
        # the continuation of an earlier sequence
        seeds.append(seed_time_of_key(key, earliest, latest))
        assert seeds[-1] is not None, (attempt, key, earliest, latest)
        earliest = time.time()
        peer.send_raw(b"HTTP/1.1 500 Nope\r\n\r\n")

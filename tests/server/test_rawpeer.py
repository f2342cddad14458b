"""Tests of the raw WebSocket test peer: frame codec, handshake, live use."""
import socket
import threading

import pytest

from rawpeer import (OP_TEXT, OP_PING, OP_PONG, OP_CLOSE, OP_BINARY, RawPeer,
                     accept_value, build_response, decode_frame, encode_frame)
from fakeagent import FakeAgent, MAC


def test_accept_value_rfc_example():
    assert accept_value("dGhlIHNhbXBsZSBub25jZQ==") == "s3pPLMBiTxaQ9kYGzzhZRbK+xOo="


@pytest.mark.parametrize("n,form,hlen", [
    (0, 7, 2), (5, 7, 2), (125, 7, 2), (126, 16, 4), (65535, 16, 4),
    (65536, 64, 10), (70000, 64, 10)])
def test_length_forms_unmasked(n, form, hlen):
    payload = bytes(i & 0xFF for i in range(n))
    data = encode_frame(payload, OP_BINARY)
    assert len(data) == hlen + n
    frame, used = decode_frame(data)
    assert used == len(data)
    assert (frame.length_form, frame.length, frame.payload) == (form, n, payload)
    assert frame.header == data[:hlen]
    assert not frame.masked and frame.mask_key is None
    assert frame.fin and frame.rsv == 0 and frame.opcode == OP_BINARY


@pytest.mark.parametrize("n,form,hlen", [(3, 7, 6), (125, 7, 6), (126, 16, 8),
                                         (65535, 16, 8), (65536, 64, 14)])
def test_length_forms_masked(n, form, hlen):
    payload = b"x" * n
    key = b"\x01\x02\x03\x04"
    data = encode_frame(payload, OP_TEXT, mask=True, mask_key=key)
    assert data[1] & 0x80
    assert data[hlen - 4:hlen] == key
    frame, used = decode_frame(data)
    assert used == hlen + n
    assert frame.masked and frame.mask_key == key and frame.length_form == form
    assert frame.payload == payload
    assert frame.raw_payload == bytes(b ^ key[i % 4] for i, b in enumerate(payload))
    assert frame.raw == data


def test_exact_header_bytes():
    assert encode_frame(b"abc", OP_TEXT) == b"\x81\x03abc"
    assert encode_frame(b"abc", OP_TEXT, mask=True, mask_key=b"\x00\x00\x00\x00") == \
        b"\x81\x83\x00\x00\x00\x00abc"
    # Deliberately long encodings of a short payload.
    assert encode_frame(b"abc", length_form=16) == b"\x81\x7e\x00\x03abc"
    assert encode_frame(b"abc", length_form=64) == b"\x81\x7f" + b"\x00" * 7 + b"\x03abc"
    assert encode_frame(b"abc", length_form=64, length_order="little") == \
        b"\x81\x7f\x03" + b"\x00" * 7 + b"abc"
    # FIN clear, RSV bits, any opcode, lying length, raw first byte.
    assert encode_frame(b"a", OP_TEXT, fin=False) == b"\x01\x01a"
    assert encode_frame(b"a", OP_TEXT, rsv=4) == b"\xc1\x01a"
    assert encode_frame(b"a", 3, rsv=7) == b"\xf3\x01a"
    assert encode_frame(b"abc", length=10) == b"\x81\x0aabc"
    assert encode_frame(b"", first_byte=0x0F) == b"\x0f\x00"
    with pytest.raises(ValueError):
        encode_frame(b"x" * 200, length_form=7)


def test_decode_incomplete_and_flags():
    data = encode_frame(b"hello", OP_PING, fin=False, rsv=2, mask=True, mask_key=b"abcd")
    for cut in range(len(data)):
        assert decode_frame(data[:cut]) is None
    frame, used = decode_frame(data + b"tail")
    assert used == len(data)
    assert (frame.fin, frame.rsv, frame.opcode, frame.payload) == (False, 2, OP_PING, b"hello")
    frame, _ = decode_frame(encode_frame(b"abc", length_form=64))
    assert frame.length_form == 64 and frame.length == 3 and frame.payload == b"abc"


def test_build_response_variants():
    key = "dGhlIHNhbXBsZSBub25jZQ=="
    ok = build_response(key)
    assert ok == (b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n"
                  b"Connection: Upgrade\r\nSec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n"
                  b"Sec-WebSocket-Protocol: nimb-protocol\r\n\r\n")
    assert b"Accept" not in build_response(key, accept=False)
    assert b"Sec-WebSocket-Accept: bogus\r\n" in build_response(key, accept="bogus")
    assert b"Sec-WebSocket-Protocol" not in build_response(key, protocol=None)
    assert b"Sec-WebSocket-Protocol: other\r\n" in build_response(key, protocol="other")
    assert build_response(key, status=200, reason="OK", accept=False, protocol=None,
                          upgrade=False) == b"HTTP/1.1 200 OK\r\n\r\n"
    assert build_response(accept=False, protocol=None, reason=None,
                          extra_headers=["X: y"]).startswith(b"HTTP/1.1 101\r\n")


def _with_agent(peer, **kw):
    """Connect a stand-in agent in a thread; returns (thread, holder)."""
    holder = {}

    def run():
        try:
            holder["agent"] = FakeAgent(peer.url("p/q"), **kw).connect()
        except Exception as exc:   # reported by the test
            holder["error"] = exc
    t = threading.Thread(target=run)
    t.start()
    return t, holder


@pytest.mark.parametrize("tls", [False, True])
def test_live_exchange(tls, cert_dir):
    with RawPeer(tls=tls, cert_dir=cert_dir) as peer:
        t, holder = _with_agent(peer)
        peer.accept(5)
        req = peer.read_request(5)
        assert req.raw.startswith(b"GET /p/q HTTP/1.1\r\nHost: 127.0.0.1:%d\r\n" % peer.port)
        assert req.raw.endswith(b"Origin: " + MAC.encode() + b"\r\n\r\n")
        assert req.method == "GET" and req.path == "/p/q" and req.version == "HTTP/1.1"
        assert req.origin == MAC and req.header("sec-websocket-protocol") == "nimb-protocol"
        assert req.header("Sec-WebSocket-Version") == "13" and len(req.key) == 24
        peer.send_response()
        t.join(5)
        assert "error" not in holder, holder
        agent = holder["agent"]
        # A ping comes back as a masked pong with the same payload.
        peer.send_ping(b"abc")
        frame = peer.read_frame(5)
        assert frame.opcode == OP_PONG and frame.masked and frame.payload == b"abc"
        assert frame.header[0] == 0x8A and frame.length_form == 7
        # A request is answered in one masked, final text frame.
        peer.send_text('{"jsonrpc":"2.0","id":"1","method":"dxGetAbout","params":{}}')
        frame = peer.read_message(5)
        assert frame.fin and frame.masked and frame.opcode == OP_TEXT
        assert '"id":"1"' in frame.text
        # Every byte is kept.
        assert bytes(peer.received).startswith(req.raw)
        assert bytes(peer.received).endswith(frame.raw)
        # A long text (16-bit length form) arrives intact.
        peer.send_text('{"jsonrpc":"2.0","id":"2","method":"x%s","params":{}}' % ("y" * 300))
        frame = peer.read_message(5)
        assert '"id":"2"' in frame.text and frame.length_form == 7
        peer.send_close(1000, "bye")
        frame = peer.read_frame(5)
        assert frame.opcode == OP_CLOSE and frame.masked and frame.payload == b""
        assert peer.wait_closed(5)
        assert agent.closed.wait(5)


def test_peer_detects_close_and_eof():
    with RawPeer() as peer:
        client = socket.create_connection(("127.0.0.1", peer.port))
        peer.accept(5)
        client.sendall(b"GET / HTTP/1.1\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n")
        req = peer.read_request(5)
        peer.send_response(accept="wrong", protocol="other", status=101)
        answer = client.recv(4096)
        assert b"Sec-WebSocket-Accept: wrong\r\n" in answer
        assert b"Sec-WebSocket-Protocol: other\r\n" in answer
        assert req.key == "dGhlIHNhbXBsZSBub25jZQ=="
        # Timeout while the client is silent, then EOF once it closes.
        with pytest.raises(TimeoutError):
            peer.read_frame(0.2)
        assert not peer.wait_closed(0.2)
        client.sendall(encode_frame(b"x" * 130, OP_TEXT, mask=True))
        client.close()
        assert peer.wait_closed(5)
        frame = peer.read_frame(1)           # bytes read before EOF stay available
        assert frame.length_form == 16 and frame.payload == b"x" * 130
        with pytest.raises(EOFError):
            peer.read_frame(1)


def test_raw_bytes_and_abort():
    with RawPeer() as peer:
        client = socket.create_connection(("127.0.0.1", peer.port))
        peer.accept(5)
        peer.send_frame(b"abc", OP_TEXT, length_form=64, length_order="little", rsv=1)
        peer.send_raw(b"\x00\x01")
        got = b""
        while len(got) < 15:
            got += client.recv(100)
        assert got == b"\x91\x7f\x03" + b"\x00" * 7 + b"abc\x00\x01"
        assert bytes(peer.sent) == got
        peer.abort()
        with pytest.raises(ConnectionResetError):
            while client.recv(100):
                pass
        client.close()
